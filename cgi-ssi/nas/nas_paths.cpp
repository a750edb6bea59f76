// The one place where request names become file system paths. A disk is one
// directory of /var/mnt; every operation's path is resolved and must stay
// beneath its disk, so "..", absolute names and links planted on the disk
// cannot reach the rest of the gateway.
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "cgic.h"
#include "nas/nas_internal.h"
#include "quelm_owned.h"
#include "quelm_root.h"

namespace cgissi::nas {

void log_at(const char *file, int line, const char *format, ...) {
    constexpr std::size_t kMessageSize = 1024;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    const char *slash = std::strrchr(file, '/');
    QM_LOG_print(" %s:%d  %s", slash != nullptr ? slash + 1 : file, line, message);
}

namespace {

std::optional<std::string> canonical(const std::string &path) {
    quelm::MallocString real(::realpath(path.c_str(), nullptr));
    if (!real) return std::nullopt;
    return std::string(real.get());
}

bool beneath(std::string_view path, std::string_view root) {
    return path == root || (path.starts_with(root) && path[root.size()] == '/');
}

}  // namespace

bool is_plain_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

std::string join(std::string_view rel, std::string_view name) {
    std::string out(rel);
    if (!out.empty()) out += '/';
    out += name;
    return out;
}

std::optional<std::string> disk_root(std::string_view disk) {
    if (!is_plain_name(disk) || disk.find('\0') != std::string_view::npos) return std::nullopt;
    const std::optional<std::string> mount = canonical(quelm::root_path(kMountDir));
    if (!mount) return std::nullopt;
    std::string root = *mount + "/" + std::string(disk);
    // The disk itself may not be a link to somewhere else.
    if (canonical(root) != root) return std::nullopt;
    return root;
}

std::optional<std::string> resolve_existing(std::string_view disk, std::string_view rel) {
    std::optional<std::string> root = disk_root(disk);
    if (!root || rel.size() >= kPathMax) return std::nullopt;
    if (rel.empty()) return root;
    std::optional<std::string> real = canonical(*root + "/" + std::string(rel));
    if (!real || !beneath(*real, *root)) return std::nullopt;
    return real;
}

std::optional<std::string> resolve_entry(std::string_view disk, std::string_view rel) {
    const std::size_t slash = rel.rfind('/');
    const std::string_view last = slash == std::string_view::npos ? rel : rel.substr(slash + 1);
    const std::string_view parent = slash == std::string_view::npos ? std::string_view{} : rel.substr(0, slash);
    if (!is_plain_name(last)) return std::nullopt;
    std::optional<std::string> dir = resolve_existing(disk, parent);
    if (!dir) return std::nullopt;
    return *dir + "/" + std::string(last);
}

void refuse_path(const char *what, std::string_view path) {
    NAS_LOG("%s leaves its disk : '%.*s'", what, static_cast<int>(path.size()), path.data());
    fail(404, "Not found", kErrNotFound);
}

}  // namespace cgissi::nas
