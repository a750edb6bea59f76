// Sending files: the responder writes the headers and the front web server
// streams the file named by X-Sendfile/X-Sendfile2. Also the thumbnail
// names, which tie a thumbnail to one path and one size.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "qm_session.h"
#include "quelm_chars.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"

namespace cgissi::nas {
namespace {

constexpr std::size_t kFileFieldSize = 256;  // "file" of the PATH_INFO form
constexpr std::size_t kCopyBlock = 4096;
constexpr int kLighttpd = 2;

bool media_open() {
    if (check_extern_access(NAS_KIND_DISK) != 0 || check_extern_access(NAS_KIND_MUSIC) != 0) return true;
    NAS_LOG("NAS Audio disabled");
    fail(500, "Internal server error", kErrRefused);
    return false;
}

// The name as it may stand in a quoted header value: control bytes, quotes
// and backslashes become "_".
std::string header_name(std::string_view file) {
    std::string name(file.substr(file.rfind('/') == std::string_view::npos ? 0 : file.rfind('/') + 1));
    for (char &c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\') c = '_';
    }
    return name;
}

// The thumbnail of the file when one is stored, else the file itself.
std::string thumbnail_or_file(const std::string &disk, const std::string &file, const std::string &path) {
    std::string name;
    if (thumb_name(disk, file, name) != 0) return path;
    const std::optional<std::string> thumb = resolve_existing(disk, std::string(kThumbDir) + "/" + name + ".png");
    if (thumb) return *thumb;
    // compat: the log's own spelling, searched for by support
    NAS_LOG("Thumbnail not availiable, sending normal file : %s for %s", name.c_str(), path.c_str());
    return path;
}

void copy_to_output(const std::string &path) {
    quelm::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return;
    ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    char block[kCopyBlock];
    for (;;) {
        const ssize_t got = ::read(file.get(), block, sizeof block);
        if (got <= 0 || cgi_out_write(block, static_cast<std::size_t>(got)) != got) return;
    }
}

}  // namespace

std::optional<std::string> exact_path(const std::string &disk, const std::string &file) {
    const std::optional<std::string> root = disk_root(disk);
    const std::string full = (root ? *root : quelm::root_path(kMountDir) + "/" + disk) + "/" + file;
    const std::optional<std::string> real = resolve_existing(disk, file);
    if (!real || *real != full) {
        NAS_LOG("realpath != fullPath (hack ?) : '%s' / '%s'", real ? real->c_str() : "", full.c_str());
        refuse_path("file", file);
        return std::nullopt;
    }
    return real;
}

int thumb_name(const std::string &disk, const std::string &file, std::string &name) {
    const std::optional<std::string> path = resolve_existing(disk, file);
    struct stat info{};
    if (!path || ::stat(path->c_str(), &info) != 0) {
        NAS_LOG("Stat is foiring");  // compat: the log's own spelling, searched for by support
        QM_err_set(kErrMemory);
        return -1;
    }
    // The path as the gateway names it, whatever root it runs under.
    const std::string text = std::string(kMountDir) + "/" + disk + path->substr(disk_root(disk)->size()) + "-" +
                             std::to_string(static_cast<unsigned long long>(info.st_size));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1) return -1;
    name = quelm::hex_encode(std::string_view(reinterpret_cast<const char *>(digest), length), quelm::HexCase::lower);
    return 0;
}

void send_file(const char *disposition, const char *type, bool thumbnail) {
    if (!media_open()) return;
    const auto fields = required_fields<2>({"disk", "file"});
    if (!fields) return;
    const auto &[disk, file] = *fields;
    if (disk.size() + file.size() + 10 >= kPathMax) {
        NAS_LOG("Not enough memory for %d bytes", static_cast<int>(disk.size() + file.size() + 10));
        fail(500, "Internal server error", kErrMemory);
        return;
    }
    const std::optional<std::string> path = exact_path(disk, file);
    if (!path) return;
    const std::string sent = thumbnail ? thumbnail_or_file(disk, file, *path) : *path;
    if (::access(sent.c_str(), R_OK) != 0) {
        NAS_LOG("Cannot open file %s err %d: %s", sent.c_str(), errno, std::strerror(errno));
        fail(404, "Not found", kErrNotFound);
        return;
    }
    cgi_out_printf("Content-disposition: %s; filename=\"%s\"\r\n", disposition, header_name(file).c_str());
    // The path travels URL-encoded, as the front server decodes it (a name
    // with "%41" must stay itself, a line break may not end the header).
    cgi_out_printf("X-Sendfile2: %s 0-\r\n", url_encode(sent, true).c_str());
    cgiHeaderContentType(type);
}

void send_pathinfo(const char *path_info, const char *disposition, const char *type, bool check_extension) {
    if (!media_open()) return;
    const std::optional<std::string> disk = pathinfo_value(path_info, "disk", false);
    if (!disk || disk->empty()) return missing("disk");
    std::optional<std::string> file = pathinfo_value(path_info, "file", true);
    if (!file || file->empty()) return missing("file");
    if (file->size() >= kFileFieldSize) file->resize(kFileFieldSize - 1);
    if (check_extension && !has_audio_extension(*file, false)) {
        NAS_LOG("Not authorized extension : '%s'", file->c_str());
        fail(400, "Bad request", kErrMissing);
        return;
    }
    const std::optional<std::string> path = exact_path(disk->substr(0, kDiskSize - 1), *file);
    if (!path) return;
    NAS_LOG("Sending '%s'", path->c_str());
    struct stat info{};
    if (::stat(path->c_str(), &info) != 0) {
        NAS_LOG("Cannot open file '%s'", path->c_str());
        fail(404, "Not found", kErrNotFound);
        return;
    }
    // compat: no blank after the colon in this form, as players have always been sent it.
    cgi_out_printf("Content-disposition:%s; filename=\"%s\"\r\n", disposition, header_name(*file).c_str());
    const bool front_sends = get_server_type() == kLighttpd;
    // The front server URL-decodes the path: "%41" in a name must stay itself.
    if (front_sends) cgi_out_printf("X-Sendfile: %s\r\n", url_encode(*path, true).c_str());
    cgi_out_printf("Content-Length: %llu\r\n", static_cast<unsigned long long>(info.st_size));
    cgiHeaderContentType(type);
    cgi_out_flush();
    // The front server streams the file it was named; the responder never
    // copies it as well.
    if (!front_sends) copy_to_output(*path);
}

}  // namespace cgissi::nas
