// Mapping of gateway paths under QUELM_ROOT.
//
// Every absolute path of the gateway ("/var/quelm/...", "/etc/quelm/...",
// "/var/tmp/...", "/var/mnt", "/lib", "/usr/bin/fwburn", ...) is looked up
// through this module so that a host can run the whole system inside one
// directory. QUELM_ROOT unset or empty means the real paths.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/types.h>

#define QUELM_COMMON_API __attribute__((visibility("default")))

namespace quelm {

// Process settings read from the environment: QUELM_ROOT, QUELM_LOG_FILE and
// PATH (where programs called by name are searched).
// Under FastCGI the environment is replaced by each request's parameters, so
// the responder pins the values it was started with before its first accept;
// until pinned (tools, tests) they are read live at every call.
QUELM_COMMON_API void pin_process_environment();
QUELM_COMMON_API const char *process_env(const char *name);  // pinned or live value, may be null

// The process id, read once per process (getpid is a system call); a child
// made by fork learns its own id from a fork handler.
QUELM_COMMON_API pid_t current_pid();

// The root prefix without a trailing "/" ("" when unset).
QUELM_COMMON_API std::string_view root_prefix();

// QUELM_ROOT + gateway_path. gateway_path must be absolute.
QUELM_COMMON_API std::string root_path(std::string_view gateway_path);

// Bounded form for fixed buffers: writes the mapped path into out (size
// bytes, always terminated). Returns false when it did not fit; out then
// holds "" so that a cut path is never used.
QUELM_COMMON_API bool root_path(std::string_view gateway_path, char *out, std::size_t size);

// A mapped gateway path that lives on the stack when it fits, as it does on
// the gateway and in most roots: code run for every request builds its
// paths without allocating. A longer path is held on the heap.
class QUELM_COMMON_API RootPath {
public:
    explicit RootPath(std::string_view gateway_path);
    RootPath(const RootPath &) = delete;
    RootPath &operator=(const RootPath &) = delete;

    const char *c_str() const { return on_heap_ ? heap_.c_str() : inline_; }
    std::string_view view() const { return on_heap_ ? std::string_view(heap_) : std::string_view(inline_, size_); }

private:
    static constexpr std::size_t kInline = 256;
    char inline_[kInline];
    std::size_t size_ = 0;
    bool on_heap_ = false;
    std::string heap_;
};

}  // namespace quelm
