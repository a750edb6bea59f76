#include "generation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quelm_owned.h"

namespace quelm::platform {

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "the counter is shared between processes");

Generation::~Generation() {
    if (counter_ != nullptr) ::munmap(counter_, sizeof *counter_);
}

bool Generation::open(const std::string &path) {
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd) return false;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return false;
    // A new file grows to the counter's size, reading as zero.
    if (st.st_size < static_cast<off_t>(sizeof(std::uint64_t)) &&
        ::ftruncate(fd.get(), sizeof(std::uint64_t)) != 0)
        return false;
    void *map = ::mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (map == MAP_FAILED) return false;
    counter_ = static_cast<std::atomic<std::uint64_t> *>(map);
    return true;
}

}  // namespace quelm::platform
