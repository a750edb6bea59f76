// Expiry and counting of session files, and the realm's session limit.
//
// A full pass over the session folder costs one status call per file, so
// the request loop makes at most one pass per second per process (expiry is
// measured in whole seconds anyway) and keeps the count between passes:
// changes this process makes to what the count depends on either adjust it
// (a new file under the legacy policy) or make the next request pass again
// (sign-in, sign-out, removed files). The limit file is read again only
// when its status changed.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "qm_config.h"
#include "quelm_guard.h"
#include "quelm_kept_file.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "session/session_store.h"
#include "util/policy.h"

namespace cgissi::session {
namespace {

constexpr const char *kSessionPath = "/var/quelm/session";
constexpr const char *kSessionLimitFile = "/var/quelm/webiad.d/http_session_maxlimit";
constexpr std::size_t kPathSize = 128;   // gateway path of a session file
constexpr std::size_t kLimitTextSize = 64;
// Seconds between two passes over the folder in one process.
constexpr std::time_t kFlushInterval = 1;

// What the count of the last pass was made for; a pass is due again when
// any of it differs.
struct PassState {
    bool done = false;
    bool stale = false;  // this process changed what the count depends on
    std::time_t at = 0;
    std::string realm;
    int limit = 0;
    bool compat = false;
};
PassState last_pass;

// Status of the limit file when it was last read.
struct LimitFileState {
    bool read = false;
    struct stat st {};
    bool looked = false;           // `read` and `st` describe the file as last looked at
    quelm::FolderStamp stamp{};  // its folder before that look
};
LimitFileState limit_file;

const char *realm() { return QM_SessionRealm != nullptr ? QM_SessionRealm : ""; }

// One decimal number from the open limit file; a file without a number keeps
// the previous limit, an empty one means no limit.
void parse_limit(int fd) {
    char text[kLimitTextSize] = {};
    const ssize_t got = ::read(fd, text, sizeof text - 1);
    if (got < 0) {
        QM_SessionMaxLimit = 0;
        return;
    }
    int value = 0;
    const int matched = std::sscanf(text, "%d", &value);
    if (matched < 0) {
        QM_SessionMaxLimit = 0;
    } else if (matched == 1) {
        QM_SessionMaxLimit = value;
    }
}

// One pass: removes the realm's expired files and counts the live ones
// (only when a limit is set).
void scan_sessions() {
    const std::time_t now = std::time(nullptr);
    QM_CurrentSession = 0;
    const std::string dir_path = quelm::root_path(kSessionPath);
    quelm::UniqueDir dir(::opendir(dir_path.c_str()));
    if (!dir) {
        QM_LOG_print("failed to check %s", kSessionPath);
        return;
    }
    const int dir_fd = ::dirfd(dir.get());
    const char *r = realm();
    const std::size_t realm_len = std::strlen(r);
    const std::size_t prefix_len = std::strlen(kSessionPath) + 1;
    // One reading of the lifetime serves the whole pass over the folder.
    long lifetime = -1;
    while (const struct dirent *entry = ::readdir(dir.get())) {
        if (entry->d_name[0] == '.') continue;
        if (std::strncmp(entry->d_name, r, realm_len) != 0) continue;
        struct stat st {};
        // A name too long for the gateway path is never found, as before.
        const bool too_long = prefix_len + std::strlen(entry->d_name) >= kPathSize;
        if (too_long || ::fstatat(dir_fd, entry->d_name, &st, 0) != 0) {
            if (QM_SessionMaxLimit != 0) ++QM_CurrentSession;
            continue;
        }
        if (lifetime < 0) lifetime = idle_lifetime();
        if (lifetime < now - st.st_mtime) {
            ::unlinkat(dir_fd, entry->d_name, 0);
            continue;
        }
        if (QM_SessionMaxLimit != 0 && counts_towards_limit(entry->d_name, dir_path + "/" + entry->d_name)) {
            ++QM_CurrentSession;
        }
    }
}

}  // namespace

void read_session_limit() {
    // Nothing changed in its folder since the last look: the file is as it
    // was then, still missing or still holding the limit read.
    if (limit_file.looked && quelm::folder_quiet(limit_file.stamp)) {
        if (!limit_file.read) QM_SessionMaxLimit = 0;
        return;
    }
    const std::string path = quelm::root_path(kSessionLimitFile);
    const quelm::FolderStamp stamp = quelm::folder_stamp(path);
    struct stat st {};
    // An unchanged file costs one status call; only a changed one is opened.
    if (limit_file.read && ::stat(path.c_str(), &st) == 0 && quelm::same_status(st, limit_file.st)) {
        limit_file.looked = true;
        limit_file.stamp = quelm::stamp_if_own(stamp, path.c_str(), st);
        return;
    }
    quelm::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        QM_SessionMaxLimit = 0;
        // Missing (not merely unreadable): gone until its folder changes.
        limit_file = LimitFileState{false, {}, !fd && errno == ENOENT, stamp};
        return;
    }
    parse_limit(fd.get());
    limit_file = LimitFileState{true, st, true, quelm::stamp_if_own(stamp, path.c_str(), st)};
}

void flush_sessions_if_due() {
    const std::time_t now = std::time(nullptr);
    const bool compat = policy::compat_mode();
    const bool due = !last_pass.done || last_pass.stale || now - last_pass.at >= kFlushInterval ||
                     now < last_pass.at || last_pass.realm != realm() || last_pass.limit != QM_SessionMaxLimit ||
                     last_pass.compat != compat;
    if (!due) return;
    scan_sessions();
    last_pass = PassState{true, false, now, realm(), QM_SessionMaxLimit, compat};
}

void note_session_created() {
    // The legacy policy counts every file of the realm; the next pass would
    // have counted this one.
    if (policy::compat_mode() && QM_SessionMaxLimit != 0) ++QM_CurrentSession;
}

void note_sessions_changed() { last_pass.stale = true; }

}  // namespace cgissi::session

extern "C" int QM_FlushSessions(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        cgissi::session::scan_sessions();
        return 0;
    });
}
