// Change counter of the data model, shared by every process of one root.
//
// An 8-byte file beside the database, mapped shared into each process.
// Every commit on any connection of the library adds one to it (from the
// WAL commit hook, so after the commit is in the log); a process keeps the
// values it read for as long as the counter has not moved. Reading the
// counter is one memory load: no system call, no database transaction.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace quelm::platform {

class Generation {
public:
    Generation() = default;
    ~Generation();
    Generation(const Generation &) = delete;
    Generation &operator=(const Generation &) = delete;

    // Maps the counter file, creating it when missing; false when that is not
    // possible (the caller then does without a cache).
    bool open(const std::string &path);
    bool usable() const { return counter_ != nullptr; }
    std::uint64_t current() const { return counter_ != nullptr ? counter_->load(std::memory_order_acquire) : 0; }
    void bump() {
        if (counter_ != nullptr) counter_->fetch_add(1, std::memory_order_acq_rel);
    }
    // Forgets the mapping without unmapping it (after fork, in the child).
    void abandon() { counter_ = nullptr; }

private:
    std::atomic<std::uint64_t> *counter_ = nullptr;
};

}  // namespace quelm::platform
