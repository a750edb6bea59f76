// The cross-process configuration lock: an exclusive flock on a lock file.
// The lock belongs to the open file description, so it is released when
// the owner closes it or exits; the descriptor is close-on-exec, so that
// programs started while it is held do not keep it.
#pragma once

#include <string>

#include "quelm_owned.h"

namespace quelm::platform {

constexpr int kDefaultLockWaitMs = 2000;
constexpr int kMaxLockWaitMs = 600000;
constexpr int kLockPollMs = 10;

class FileLock {
public:
    FileLock() = default;
    ~FileLock() { release(); }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;

    // Takes the lock on path (created 0600 when missing), retrying every
    // kLockPollMs for up to wait_ms. Returns 0, QM_ERR_LOCKED when another
    // holder kept it, or QM_ERR_STORAGE when the file cannot be opened.
    int acquire(const std::string &path, int wait_ms);
    // Unlocks explicitly: a copy of the descriptor in a child that has not
    // exec'd yet must not keep the lock.
    void release();
    // Closes without unlocking: for a lock inherited across fork, which
    // belongs to the parent.
    void forget() { fd_.reset(); }
    bool held() const { return static_cast<bool>(fd_); }

private:
    UniqueFd fd_;
};

// QUELM_LOCK_WAIT_MS (milliseconds, 0..kMaxLockWaitMs), else the default.
int lock_wait_from_environment();

}  // namespace quelm::platform
