#include "quelm_root.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace quelm {

namespace {

struct Pinned {
    bool pinned = false;
    std::string root;
    std::string log_file;
    std::string search_path;
    bool has_root = false;
    bool has_log_file = false;
    bool has_search_path = false;
    std::string_view root_prefix;  // root without its trailing "/"s
};

std::string_view without_trailing_slashes(std::string_view path) {
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    return path;
}

Pinned &pinned() {
    static Pinned p;
    return p;
}

}  // namespace

void pin_process_environment() {
    Pinned &p = pinned();
    const char *root = std::getenv("QUELM_ROOT");
    const char *log_file = std::getenv("QUELM_LOG_FILE");
    p.has_root = root != nullptr;
    p.root = root != nullptr ? root : "";
    p.has_log_file = log_file != nullptr;
    p.log_file = log_file != nullptr ? log_file : "";
    const char *search_path = std::getenv("PATH");
    p.has_search_path = search_path != nullptr;
    p.search_path = search_path != nullptr ? search_path : "";
    p.root_prefix = without_trailing_slashes(p.root);
    p.pinned = true;
}

const char *process_env(const char *name) {
    const Pinned &p = pinned();
    if (p.pinned) {
        if (std::strcmp(name, "QUELM_ROOT") == 0) return p.has_root ? p.root.c_str() : nullptr;
        if (std::strcmp(name, "QUELM_LOG_FILE") == 0) return p.has_log_file ? p.log_file.c_str() : nullptr;
        if (std::strcmp(name, "PATH") == 0) return p.has_search_path ? p.search_path.c_str() : nullptr;
    }
    return std::getenv(name);
}

std::string_view root_prefix() {
    if (const Pinned &p = pinned(); p.pinned) return p.root_prefix;  // "" when unset
    const char *root = std::getenv("QUELM_ROOT");
    return root != nullptr ? without_trailing_slashes(root) : std::string_view();
}

std::string root_path(std::string_view gateway_path) {
    const std::string_view prefix = root_prefix();
    std::string out;
    out.reserve(prefix.size() + gateway_path.size());  // one allocation
    out.append(prefix).append(gateway_path);
    return out;
}

bool root_path(std::string_view gateway_path, char *out, std::size_t size) {
    if (size == 0) return false;
    std::string_view prefix = root_prefix();
    if (prefix.size() + gateway_path.size() + 1 > size) {
        out[0] = '\0';
        return false;
    }
    std::memcpy(out, prefix.data(), prefix.size());
    std::memcpy(out + prefix.size(), gateway_path.data(), gateway_path.size());
    out[prefix.size() + gateway_path.size()] = '\0';
    return true;
}

RootPath::RootPath(std::string_view gateway_path) {
    if (root_path(gateway_path, inline_, kInline)) {
        size_ = root_prefix().size() + gateway_path.size();
        return;
    }
    on_heap_ = true;
    heap_ = root_path(gateway_path);
}

pid_t current_pid() {
    static pid_t pid = [] {
        ::pthread_atfork(nullptr, nullptr, [] { pid = ::getpid(); });
        return ::getpid();
    }();
    return pid;
}

}  // namespace quelm
