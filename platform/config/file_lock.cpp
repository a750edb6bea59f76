#include "file_lock.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>

#include "qm_config.h"

namespace quelm::platform {
namespace {

long long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int FileLock::acquire(const std::string &path, int wait_ms) {
    if (held()) return QM_ERR_NONE;
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd) return QM_ERR_STORAGE;
    const long long deadline = now_ms() + wait_ms;
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) return QM_ERR_STORAGE;
        if (now_ms() >= deadline) return QM_ERR_LOCKED;
        timespec pause{0, kLockPollMs * 1000000L};
        nanosleep(&pause, nullptr);
    }
    fd_ = std::move(fd);
    return QM_ERR_NONE;
}

void FileLock::release() {
    if (held()) ::flock(fd_.get(), LOCK_UN);
    fd_.reset();
}

int lock_wait_from_environment() {
    const char *text = std::getenv("QUELM_LOCK_WAIT_MS");
    if (text == nullptr) return kDefaultLockWaitMs;
    std::string_view sv(text);
    int value = 0;
    auto [ptr, ec] = std::from_chars(sv.data(), sv.data() + sv.size(), value);
    if (ec != std::errc() || ptr != sv.data() + sv.size() || value < 0 || value > kMaxLockWaitMs)
        return kDefaultLockWaitMs;
    return value;
}

}  // namespace quelm::platform
