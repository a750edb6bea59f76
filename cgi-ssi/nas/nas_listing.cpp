// Folder listings as XML, and the text encoders of the NAS replies.
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "quelm_chars.h"
#include "quelm_html.h"
#include "quelm_owned.h"

namespace cgissi::nas {
namespace {

// Audio extensions of the song form; the music listing uses the first only.
constexpr std::string_view kAudioExtensions[] = {"mp3", "aac", "wma", "avi"};
constexpr const char *kXmlDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

void list_entries(DIR *dir, bool audio_only) {
    const int dir_fd = ::dirfd(dir);
    while (const dirent *entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name.starts_with('.')) continue;
        struct stat info{};
        if (::fstatat(dir_fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const bool is_dir = S_ISDIR(info.st_mode);
        if (audio_only && !is_dir && !has_audio_extension(name, true)) continue;
        cgi_out_printf("<item>\n<name>%s</name>\n<dir>%d</dir>\n<size>%llu</size>\n</item>\n",
                       xml_encode(name).c_str(), is_dir ? 1 : 0, static_cast<unsigned long long>(info.st_size));
    }
}

}  // namespace

bool has_audio_extension(std::string_view name, bool first_only) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return false;
    const std::string_view extension = name.substr(dot + 1);
    for (std::string_view known : kAudioExtensions) {
        if (quelm::equal_ascii_no_case(extension, known)) return true;
        if (first_only) return false;
    }
    return false;
}

std::string xml_encode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (const std::string_view entity = quelm::html_entity(c); !entity.empty()) {
            out.append(entity);
        } else if (c == '\'') {
            out.append("&apos;");
        } else if (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') {
            // Not a character of XML at all, even as a reference.
            out.append("&#xFFFD;");
        } else if (byte < 0x20) {
            out.append("&#").append(std::to_string(byte)).append(";");
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::string url_encode(std::string_view text, bool path_info) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (quelm::is_ascii_alnum(c) || (path_info && (c == '/' || c == '.'))) {
            out.push_back(c);
        } else {
            const auto byte = static_cast<unsigned char>(c);
            out.push_back('%');
            out.push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0xf]);
        }
    }
    return out;
}

void send_folder_listing(std::string_view disk, std::string_view rel, bool audio_only) {
    const std::optional<std::string> dir_path = resolve_existing(disk, rel);
    if (!dir_path) return refuse_path("folder", rel);
    cgiHeaderContentType("text/xml");
    cgi_out_printf("%s<root>\n<folder>\n<disk>%s</disk>\n<path>%s</path>\n", kXmlDeclaration,
                   xml_encode(disk).c_str(), xml_encode(rel).c_str());
    quelm::UniqueDir dir(::opendir(dir_path->c_str()));
    if (!dir) cgi_out_printf("<errno>%d</errno>\n", errno);
    cgi_out_printf("</folder>\n<folderset>\n");
    if (dir) list_entries(dir.get(), audio_only);
    cgi_out_printf("</folderset>\n</root>\n");
}

void send_folder(bool audio_only) {
    if (check_extern_access(NAS_KIND_DISK) == 0 && check_extern_access(NAS_KIND_MUSIC) == 0) return refuse_access();
    if (const auto fields = required_fields<2>({"disk", "path"}))
        send_folder_listing((*fields)[0], (*fields)[1], audio_only);
}

}  // namespace cgissi::nas
