// Change notices for the folders of files the responder keeps across
// requests (a session file, a token file, the page, the session limit, the
// absent error file). A file kept together with a stamp of its folder is
// known unchanged, without a status call, while nothing in that folder has
// been created, written, had its attributes changed, been renamed or been
// deleted since the stamp was taken.
//
// One inotify descriptor per process watches the folders asked for. Every
// check first takes in the pending notices, so a change another process
// finished before the check is always seen. Where the kernel can say
// without a system call that nothing is pending (an io_uring ring polling
// the descriptor, Linux 6.1 and later; QUELM_WATCH_RING=0 turns it off), a
// check in a quiet folder makes none; elsewhere it makes one read that
// finds nothing. Whatever the notices cannot vouch for makes a check
// false, and the caller then looks at the file itself as it would without
// a watch:
//   - a folder that cannot be watched (missing, no inotify, too many
//     watches) has no stamp;
//   - a lost notice queue (overflow) or a read error makes every stamp stale;
//   - a folder removed, renamed or unmounted loses its watch and its stamps;
//   - a forked child never reads the parent's notices, and has no stamps.
// Not seen: writes through another name of a file (a hard link in another
// folder), writes through a shared mapping, and a link among the folder's
// parents pointed elsewhere while the process runs. Callers keep files only
// in folders where none of these happens (the gateway's own folders).
//
// For one thread (the responder's request loop).
#pragma once

#include <cstdint>
#include <string_view>

#include "quelm_root.h"  // QUELM_COMMON_API

namespace quelm {

// A folder's watch at the moment a file in it was about to be read.
struct FolderStamp {
    int watch = -1;  // -1: not watched; never quiet
    std::uint64_t serial = 0;
};

// The stamp of the folder holding `file` (an absolute path), to be taken
// before the file is looked at. Starts watching the folder when it is not
// watched yet.
QUELM_COMMON_API FolderStamp folder_stamp(std::string_view file);

// Whether nothing in the stamped folder has changed since the stamp.
QUELM_COMMON_API bool folder_quiet(const FolderStamp &stamp);

// Whether checks use the ring (see above); opens the watch.
QUELM_COMMON_API bool folder_watch_by_ring();

}  // namespace quelm
