#include "quelm_folder_watch.h"

#include "quelm_root.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#if __has_include(<linux/io_uring.h>)
#include <linux/io_uring.h>
#endif
// Kernel headers older than 6.1 (a cross toolchain's) build without the ring.
#if defined(IORING_SETUP_DEFER_TASKRUN) && defined(IORING_SETUP_TASKRUN_FLAG) && defined(IORING_SQ_TASKRUN) && \
    defined(IORING_POLL_ADD_MULTI) && defined(__NR_io_uring_setup)
#define QUELM_NOTICE_RING 1
#endif

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

// Tells, without a system call, whether the notice descriptor may have
// something to read: an io_uring ring holding a multishot poll of it, set up
// so that the kernel runs the poll's completion only when asked
// (IORING_SETUP_DEFER_TASKRUN) and says there is some to run by raising
// IORING_SQ_TASKRUN in the ring's shared memory (IORING_SETUP_TASKRUN_FLAG).
// The kernel queues a notice and wakes the poll within the system call that
// made the change, so the flag is up before that call returns, and anything
// that lets this thread learn of the change comes after it. Nothing is
// delivered to the thread, so none of its calls is cut short. Needs Linux
// 6.1; elsewhere (or with QUELM_WATCH_RING=0) every check reads.
#ifdef QUELM_NOTICE_RING
class NoticeRing {
  public:
    NoticeRing() = default;
    NoticeRing(const NoticeRing &) = delete;
    NoticeRing &operator=(const NoticeRing &) = delete;
    ~NoticeRing() { close(); }

    bool open(int watched) {
        io_uring_params params{};
        params.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_TASKRUN_FLAG;
        fd_ = static_cast<int>(::syscall(__NR_io_uring_setup, kEntries, &params));
        if (fd_ < 0) return false;
        sq_size_ = params.sq_off.array + params.sq_entries * sizeof(unsigned);
        cq_size_ = params.cq_off.cqes + params.cq_entries * sizeof(io_uring_cqe);
        sqes_size_ = params.sq_entries * sizeof(io_uring_sqe);
        const bool single_map = (params.features & IORING_FEAT_SINGLE_MMAP) != 0;
        if (single_map) sq_size_ = cq_size_ = std::max(sq_size_, cq_size_);
        sq_ = map(sq_size_, IORING_OFF_SQ_RING);
        cq_ = single_map ? sq_ : map(cq_size_, IORING_OFF_CQ_RING);
        sqes_ = static_cast<io_uring_sqe *>(map(sqes_size_, IORING_OFF_SQES));
        if (sq_ == nullptr || cq_ == nullptr || sqes_ == nullptr) {
            close();
            return false;
        }
        sq_flags_ = field(sq_, params.sq_off.flags);
        sq_tail_ = field(sq_, params.sq_off.tail);
        sq_mask_ = *field(sq_, params.sq_off.ring_mask);
        sq_array_ = field(sq_, params.sq_off.array);
        cq_head_ = field(cq_, params.cq_off.head);
        cq_tail_ = field(cq_, params.cq_off.tail);
        cq_mask_ = *field(cq_, params.cq_off.ring_mask);
        cqes_ = reinterpret_cast<io_uring_cqe *>(static_cast<char *>(cq_) + params.cq_off.cqes);
        watched_ = watched;
        if (!arm()) {
            close();
            return false;
        }
        return true;
    }

    bool is_open() const { return fd_ >= 0; }

    // True when nothing can have been queued since the last settle().
    bool quiet() const {
        const unsigned flags = __atomic_load_n(sq_flags_, __ATOMIC_ACQUIRE);
        return (flags & (IORING_SQ_TASKRUN | IORING_SQ_CQ_OVERFLOW)) == 0 &&
               __atomic_load_n(cq_tail_, __ATOMIC_ACQUIRE) == *cq_head_;
    }

    // Takes in the poll's completions (lowering the flag) before the caller
    // reads the descriptor, so a notice queued after this raises it again.
    // False when the ring failed: the caller goes on without it.
    bool settle() {
        if (enter(0, IORING_ENTER_GETEVENTS) < 0) return false;
        bool ended = false;
        unsigned head = *cq_head_;
        const unsigned tail = __atomic_load_n(cq_tail_, __ATOMIC_ACQUIRE);
        for (; head != tail; ++head) {
            const io_uring_cqe &cqe = cqes_[head & cq_mask_];
            if ((cqe.flags & IORING_CQE_F_MORE) == 0) ended = true;  // the poll ended (overflow, error)
        }
        __atomic_store_n(cq_head_, head, __ATOMIC_RELEASE);
        return !ended || arm();
    }

    void close() {
        if (sqes_ != nullptr) ::munmap(sqes_, sqes_size_);
        if (cq_ != nullptr && cq_ != sq_) ::munmap(cq_, cq_size_);
        if (sq_ != nullptr) ::munmap(sq_, sq_size_);
        sqes_ = nullptr;
        cq_ = sq_ = nullptr;
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    // In a forked child: the mappings are the child's own copies, the ring
    // is the parent's. Only the descriptor is let go.
    void forget() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        sqes_ = nullptr;
        cq_ = sq_ = nullptr;
    }

  private:
    static constexpr unsigned kEntries = 4;

    void *map(std::size_t size, off_t offset) const {
        void *at = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd_, offset);
        return at == MAP_FAILED ? nullptr : at;
    }
    static unsigned *field(void *ring, std::uint32_t offset) {
        return reinterpret_cast<unsigned *>(static_cast<char *>(ring) + offset);
    }
    int enter(unsigned submit, unsigned flags) const {
        long done;
        do {
            done = ::syscall(__NR_io_uring_enter, fd_, submit, 0, flags, nullptr, 0);
        } while (done < 0 && errno == EINTR);
        return static_cast<int>(done);
    }

    // A multishot poll for input on the watched descriptor.
    bool arm() {
        const unsigned tail = *sq_tail_;
        const unsigned slot = tail & sq_mask_;
        io_uring_sqe &sqe = sqes_[slot];
        std::memset(&sqe, 0, sizeof sqe);
        sqe.opcode = IORING_OP_POLL_ADD;
        sqe.fd = watched_;
        sqe.poll32_events = POLLIN;
        sqe.len = IORING_POLL_ADD_MULTI;
        sq_array_[slot] = slot;
        __atomic_store_n(sq_tail_, tail + 1, __ATOMIC_RELEASE);
        return enter(1, 0) == 1;
    }

    int fd_ = -1;
    int watched_ = -1;
    void *sq_ = nullptr;
    void *cq_ = nullptr;
    io_uring_sqe *sqes_ = nullptr;
    std::size_t sq_size_ = 0, cq_size_ = 0, sqes_size_ = 0;
    unsigned *sq_flags_ = nullptr, *sq_tail_ = nullptr, *sq_array_ = nullptr;
    unsigned *cq_head_ = nullptr, *cq_tail_ = nullptr;
    unsigned sq_mask_ = 0, cq_mask_ = 0;
    io_uring_cqe *cqes_ = nullptr;
};
#else
class NoticeRing {
  public:
    bool open(int) { return false; }
    bool is_open() const { return false; }
    bool quiet() const { return false; }
    bool settle() { return false; }
    void close() {}
    void forget() {}
};
#endif

bool ring_wanted() {
    const char *setting = process_env("QUELM_WATCH_RING");
    return setting == nullptr || std::strcmp(setting, "0") != 0;
}

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
    NoticeRing ring;  // open: reads only when it says there may be notices

    // Whether this process may use the descriptor, opening it the first
    // time. A forked child shares its parent's descriptor, and reading it
    // would take the parent's notices: the child closes its copy and never
    // watches.
    bool ready() {
        if (given_up) return false;
        if (fd >= 0 && owner == current_pid()) return true;
        if (fd >= 0) {
            ring.forget();
            give_up();
            return false;
        }
        fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd < 0) {
            given_up = true;
            return false;
        }
        owner = current_pid();
        if (ring_wanted()) ring.open(fd);
        return true;
    }

    void give_up() {
        ring.close();
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
        if (ring.is_open()) {
            if (ring.quiet()) return;
            if (!ring.settle()) ring.close();
        }
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

bool folder_watch_by_ring() {
    Watcher &w = watcher();
    return w.ready() && w.ring.is_open();
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
