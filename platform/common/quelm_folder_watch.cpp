#include "quelm_folder_watch.h"

#include "quelm_root.h"

#include <cerrno>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

namespace quelm {

namespace {

// Everything that can change what a file of the folder holds or which file
// a name stands for; reads and opens are left out. The folder's own end
// (removed, renamed, unmounted) comes with IN_IGNORED or the _SELF events.
constexpr std::uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE |
                                   IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
constexpr std::uint32_t kWatchEnds = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
// The folders a responder keeps files in are few; beyond this the oldest
// watch is given up.
constexpr std::size_t kMaxWatches = 16;

struct Watch {
    int wd;
    std::string folder;
    std::uint64_t serial;  // new with every notice about the folder
};

struct Watcher {
    int fd = -1;
    pid_t owner = 0;
    bool given_up = false;
    std::uint64_t serial = 0;
    std::vector<Watch> watches;

    // Whether this process may use the descriptor, opening it the first
    // time. A forked child shares its parent's descriptor, and reading it
    // would take the parent's notices: the child closes its copy and never
    // watches.
    bool ready() {
        if (given_up) return false;
        if (fd >= 0 && owner == current_pid()) return true;
        if (fd >= 0) {
            give_up();
            return false;
        }
        fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd < 0) {
            given_up = true;
            return false;
        }
        owner = current_pid();
        return true;
    }

    void give_up() {
        if (fd >= 0) ::close(fd);
        fd = -1;
        watches.clear();
        given_up = true;
    }

    void note(const inotify_event &event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            for (Watch &w : watches) w.serial = ++serial;
            return;
        }
        // Two names of one folder share a watch descriptor: all of them move on.
        const bool ended = (event.mask & kWatchEnds) != 0;
        for (Watch &w : watches)
            if (w.wd == event.wd) w.serial = ++serial;
        if (!ended) return;
        if ((event.mask & IN_IGNORED) == 0) ::inotify_rm_watch(fd, event.wd);
        std::erase_if(watches, [&](const Watch &w) { return w.wd == event.wd; });
    }

    // Takes in every pending notice. A read that fails other than by
    // finding nothing leaves no stamp to trust.
    void drain() {
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            const ssize_t got = ::read(fd, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
            if (got <= 0) {
                give_up();
                return;
            }
            for (std::size_t at = 0; at + sizeof(inotify_event) <= static_cast<std::size_t>(got);) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                note(*event);
                at += sizeof(inotify_event) + event->len;
            }
        }
    }
};

// Never destroyed: a kept file may still be checked by another object's
// destructor at exit. The descriptor closes with the process.
Watcher &watcher() {
    static Watcher &w = *new Watcher;
    return w;
}

}  // namespace

FolderStamp folder_stamp(std::string_view file) {
    const std::size_t slash = file.rfind('/');
    // Relative names depend on the working folder: not watched.
    if (slash == std::string_view::npos || file.front() != '/') return {};
    const std::string_view folder = slash == 0 ? std::string_view("/") : file.substr(0, slash);
    Watcher &w = watcher();
    if (!w.ready()) return {};
    w.drain();
    if (!w.ready()) return {};
    for (const Watch &watch : w.watches)
        if (watch.folder == folder) return {watch.wd, watch.serial};
    std::string path(folder);
    const int wd = ::inotify_add_watch(w.fd, path.c_str(), kChanges);
    if (wd < 0) return {};
    if (w.watches.size() >= kMaxWatches) {
        const int oldest = w.watches.front().wd;
        if (oldest != wd) ::inotify_rm_watch(w.fd, oldest);
        std::erase_if(w.watches, [&](const Watch &watch) { return watch.wd == oldest; });
    }
    // A folder already watched under another name is the same watch: its
    // other names' stamps go stale, and a notice moves them all.
    std::uint64_t serial = ++w.serial;
    for (Watch &watch : w.watches)
        if (watch.wd == wd) watch.serial = serial;
    w.watches.push_back(Watch{wd, std::move(path), serial});
    return {wd, serial};
}

bool folder_quiet(const FolderStamp &stamp) {
    if (stamp.watch < 0) return false;
    Watcher &w = watcher();
    if (!w.ready()) return false;
    w.drain();
    for (const Watch &watch : w.watches)
        if (watch.wd == stamp.watch && watch.serial == stamp.serial) return true;
    return false;
}

}  // namespace quelm
