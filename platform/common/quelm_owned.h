// Owners of C resources: malloc'd memory, descriptors, FILE* and DIR*.
//
// Move-only, and their destructors never throw. Every handle the gateway
// code opens is held by one of these from the moment it exists.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace quelm {

// Deleter calling a C release function; a null pointer is not passed on.
template <auto Release>
struct CDeleter {
    template <class T>
    void operator()(T *p) const noexcept {
        if (p != nullptr) Release(p);
    }
};

// Memory from malloc (the platform's getters, strdup, getline).
template <class T = char>
using Malloced = std::unique_ptr<T, CDeleter<std::free>>;
using MallocString = Malloced<char>;

using UniqueFile = std::unique_ptr<FILE, CDeleter<std::fclose>>;
using UniqueDir = std::unique_ptr<DIR, CDeleter<::closedir>>;

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace quelm
