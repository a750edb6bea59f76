// Small files kept across requests (the page being served, the session
// being checked) and trusted again after one status call instead of being
// opened and read once more.
//
// A kept copy is used only while a status call finds the same file
// (device, inode, type) with the same size and the same modification and
// change times. The change time cannot be set by anyone: every write,
// rename, truncation or chmod moves it to the current time. Two changes in
// the same clock tick could still leave equal times, so a copy is kept only
// when the file's last change is older than kSettled when it was read:
// any later change then carries a newer change time and the status differs
// (the rule version-control indexes use for "racily clean" files).
//
// A copy kept with a stamp of its folder (quelm_folder_watch.h) needs not
// even the status call while nothing in the folder has changed.
#pragma once

#include "quelm_folder_watch.h"

#include <ctime>
#include <string>
#include <sys/stat.h>

namespace quelm {

// Longer than the coarsest clock tick a file system stamps with (10 ms at
// HZ=100), with margin.
constexpr long kSettledNanoseconds = 50L * 1000 * 1000;

inline bool same_time(const struct timespec &a, const struct timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Whether two statuses describe the same file with the same contents, as far
// as a status call can tell.
inline bool same_status(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_mode == b.st_mode && a.st_size == b.st_size &&
           same_time(a.st_mtim, b.st_mtim) && same_time(a.st_ctim, b.st_ctim);
}

// Whether a regular file read after the status st was taken may be kept:
// its last change lies at least kSettledNanoseconds in the past. A change
// time in the future (a clock set back) is never settled.
inline bool settled(const struct stat &st) {
    if (!S_ISREG(st.st_mode)) return false;
    struct timespec now {};
    if (::clock_gettime(CLOCK_REALTIME_COARSE, &now) != 0) return false;
    const long long age = (static_cast<long long>(now.tv_sec) - st.st_ctim.tv_sec) * 1000000000LL +
                          (now.tv_nsec - st.st_ctim.tv_nsec);
    return age >= kSettledNanoseconds;
}

// Whether the status fd_status of a file opened at `path` is that of the
// name itself, not of a link's target elsewhere, whose changes the folder's
// watch would not see: a stamp is kept only then.
inline FolderStamp stamp_if_own(const FolderStamp &stamp, const char *path, const struct stat &fd_status) {
    struct stat own {};
    if (stamp.watch < 0 || ::lstat(path, &own) != 0 || own.st_dev != fd_status.st_dev ||
        own.st_ino != fd_status.st_ino) {
        return {};
    }
    return stamp;
}

// One kept file: where it was read, its status then, its bytes, and the
// stamp of its folder taken before it was read (none: always a status call).
struct KeptFile {
    std::string path;
    struct stat status {};
    std::string bytes;
    FolderStamp stamp{};

    // Whether the file at `at` is the kept one, unchanged; `now` then holds
    // its status. False when nothing is kept for `at`, when the status call
    // fails, or when the file changed: read it again. Without follow_links
    // a link at `at` is never the kept file (its own status is taken).
    bool unchanged(const char *at, struct stat &now, bool follow_links = true) const {
        if (path.empty() || path != at) return false;
        if (folder_quiet(stamp)) {
            now = status;
            return true;
        }
        const int taken = follow_links ? ::stat(at, &now) : ::lstat(at, &now);
        return taken == 0 && same_status(now, status);
    }
};

}  // namespace quelm
