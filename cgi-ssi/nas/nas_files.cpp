// Changing a disk: storing uploads, renaming, deleting and storing
// thumbnails. Every target is resolved beneath its disk first; deleting
// never follows a link.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "quelm_owned.h"

namespace cgissi::nas {
namespace {

constexpr std::size_t kThumbMax = 50000;       // decoded thumbnail bytes
constexpr mode_t kSharedDirMode = 01777;
constexpr int kThumbMode = 0644;
constexpr std::string_view kPngSignature = "\x89PNG\r\n\x1a\n";

bool disk_open(int kind = NAS_KIND_DISK, int other = NAS_KIND_DISK) {
    if (check_extern_access(kind) != 0 || check_extern_access(other) != 0) return true;
    refuse_access();
    return false;
}

bool exists_here(const std::string &path) {
    struct stat info{};
    return ::lstat(path.c_str(), &info) == 0;
}

// Removes what the directory holds, never following a link out of it.
void empty_dir_at(int dir_fd) {
    const int own = ::dup(dir_fd);
    if (own < 0) return;
    quelm::UniqueDir dir(::fdopendir(own));
    if (!dir) {
        ::close(own);
        return;
    }
    while (const dirent *entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat info{};
        if (::fstatat(dir_fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(info.st_mode)) {
            quelm::UniqueFd sub(::openat(dir_fd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (sub) empty_dir_at(sub.get());
            ::unlinkat(dir_fd, entry->d_name, AT_REMOVEDIR);
        } else {
            ::unlinkat(dir_fd, entry->d_name, 0);
        }
    }
}

// The thumbnail store of the disk, made when missing; must be a directory
// of the disk itself.
std::optional<std::string> thumb_store(const std::string &disk) {
    const std::optional<std::string> root = disk_root(disk);
    if (!root) return std::nullopt;
    const std::string store = *root + "/" + kThumbDir;
    if (::mkdir(store.c_str(), kSharedDirMode) == 0) ::chmod(store.c_str(), kSharedDirMode);
    if (resolve_existing(disk, kThumbDir) != store) return std::nullopt;
    return store;
}

void write_thumb(const std::string &disk, const std::string &file, const std::string &data) {
    std::string name;
    if (thumb_name(disk, file, name) != 0) return;
    NAS_LOG("Uploading thumbnail for %s", file.c_str());
    const std::optional<std::string> store = thumb_store(disk);
    if (!store) return refuse_path("thumbnail store", kThumbDir);
    const std::string thumb = *store + "/" + name + ".png";
    if (exists_here(thumb)) {
        NAS_LOG("Thumbnail already exists, replace... )%s", thumb.c_str());  // compat: the log's own spelling
        QM_err_set(kErrExisted);
        ::unlink(thumb.c_str());
    }
    quelm::UniqueFd out(::open(thumb.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kThumbMode));
    if (!out || ::write(out.get(), data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
        NAS_LOG("Error writing Thumbnail : %s", thumb.c_str());
        return;
    }
    reply_ok_page();
}

// The entry called name in the folder path, confined to the disk; a refusal
// is answered.
std::optional<std::string> named_entry(const std::string &disk, const std::string &path, const std::string &name,
                                       const char *what) {
    std::optional<std::string> entry = is_plain_name(name) ? resolve_entry(disk, join(path, name)) : std::nullopt;
    if (!entry) refuse_path(what, join(path, name));
    return entry;
}

}  // namespace

bool rename_no_replace(const std::string &from, const std::string &to) {
    // One call, so that nothing can appear at the target between a check and
    // the rename; a file system without the flag gets the check.
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (exists_here(to)) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

void rename_unless_exists(const std::string &from, const std::string &to) {
    if (!rename_no_replace(from, to) && errno == EEXIST) {
        NAS_LOG("File already exists %s", to.c_str());
        QM_err_set(kErrExisted);
    }
}

void refuse_access() {
    NAS_LOG("NAS access refused");
    fail(403, "Forbidden", kErrRefused);
}

std::optional<std::string> base64_decode(std::string_view text, std::size_t limit) {
    std::string out;
    unsigned int bits = 0;
    int count = 0;
    std::size_t padding = 0;
    for (char c : text) {
        int value = -1;
        if (c >= 'A' && c <= 'Z') value = c - 'A';
        else if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
        else if (c >= '0' && c <= '9') value = c - '0' + 52;
        else if (c == '+') value = 62;
        else if (c == '/') value = 63;
        else if (c == '=') { ++padding; continue; }
        else if (c == '\r' || c == '\n' || c == ' ') continue;
        if (value < 0 || padding > 0) return std::nullopt;
        bits = (bits << 6) | static_cast<unsigned int>(value);
        if (++count == 4) {
            if (out.size() + 3 > limit) return std::nullopt;
            out.push_back(static_cast<char>(bits >> 16));
            out.push_back(static_cast<char>(bits >> 8));
            out.push_back(static_cast<char>(bits));
            bits = 0;
            count = 0;
        }
    }
    if (count == 1 || padding > 2) return std::nullopt;
    if (count > 1) {
        bits <<= 6 * (4 - count);
        if (out.size() + static_cast<std::size_t>(count - 1) > limit) return std::nullopt;
        out.push_back(static_cast<char>(bits >> 16));
        if (count == 3) out.push_back(static_cast<char>(bits >> 8));
    }
    return out;
}

void add_file(const std::string &temporary) {
    if (!disk_open()) return;
    if (temporary.empty()) {
        NAS_LOG("Saving file without parameters, something has got wrong earlier");
        fail(400, "Bad request", kErrMissing);
        return;
    }
    const std::optional<std::string> disk = form_field("disk");
    const std::optional<std::string> path = form_field("path");
    char client[kNameSize] = "";
    const bool named = cgiFormFileName("UploadFile", client, sizeof client) == cgiFormSuccess && client[0] != '\0';
    if (!disk || !path || !named) {
        NAS_LOG("Missing parameters !!!! %s", !disk ? "disk" : !path ? "path" : "UploadFile");
        fail(400, "Bad request", kErrMissing);
        return;
    }
    const char *slash = std::strrchr(client, '\\');
    const std::string name = slash != nullptr ? slash + 1 : client;
    const std::optional<std::string> target = named_entry(*disk, *path, name, "upload");
    if (!target) return;
    if (!rename_no_replace(temporary, *target)) {
        fail(500, "Internal server error", kErrNotFound);
        return;
    }
    reply_ok_page();
}

void rename_file() {
    if (!disk_open()) return;
    const auto fields = required_fields<4>({"disk", "path", "name", "newname"});
    if (!fields) return;
    const auto &[disk, path, name, new_name] = *fields;
    const std::optional<std::string> from = named_entry(disk, path, name, "rename");
    if (!from) return;
    const std::optional<std::string> to = named_entry(disk, path, new_name, "rename");
    if (!to) return;
    rename_unless_exists(*from, *to);
    send_folder_listing(disk, path, false);
}

void delete_file() {
    if (!disk_open()) return;
    const auto fields = required_fields<3>({"disk", "path", "name"});
    if (!fields) return;
    const auto &[disk, path, name] = *fields;
    const std::optional<std::string> entry = named_entry(disk, path, name, "delete");
    if (!entry) return;
    struct stat info{};
    if (::lstat(entry->c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        quelm::UniqueFd dir(::open(entry->c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (dir) empty_dir_at(dir.get());
        ::rmdir(entry->c_str());
    } else {
        ::unlink(entry->c_str());
    }
    send_folder_listing(disk, path, false);
}

void add_thumb() {
    if (!disk_open(NAS_KIND_DISK, NAS_KIND_PICTURES)) return;
    const auto fields = required_fields<4>({"disk", "path", "name", "data"});
    if (!fields) return;
    const auto &[disk, path, name, data] = *fields;
    const std::optional<std::string> png = base64_decode(data, kThumbMax);
    if (!png || !png->starts_with(kPngSignature)) {
        NAS_LOG("Thumbnail is not a PNG image");
        fail(400, "Bad request", kErrMissing);
        return;
    }
    const std::string file = join(path, name);
    if (!is_plain_name(name) || !resolve_existing(disk, file)) return refuse_path("thumbnail", file);
    write_thumb(disk, file, *png);
}

}  // namespace cgissi::nas
