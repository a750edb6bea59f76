// The NAS readers: playlist contents and their edits, the XML and URL
// encoders of listings and headers, PATH_INFO fields, and folder listings
// of a sample disk whose paths must stay beneath the disk (a link planted
// on it points outside).
//
// Input: a path on the disk, a song, then the playlist file,
// "\n"-separated; the first byte picks the move.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "nas/nas_internal.h"

namespace {

using namespace cgissi::nas;

constexpr const char *kDisk = "usb1";
constexpr std::size_t kLineRead = 4095;
std::string disk_root_path;

bool is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

void check_encoders(std::string_view text) {
    const std::string xml = xml_encode(text);
    for (std::size_t i = 0; i < xml.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(xml[i]);
        fuzz::require(c >= 0x20 && c != '<' && c != '>' && c != '"' && c != '\'', "a raw markup byte in XML text");
        if (c == '&') fuzz::require(xml.find(';', i) != std::string::npos, "an & that starts no entity");
    }
    for (bool path_info : {false, true}) {
        const std::string url = url_encode(text, path_info);
        for (std::size_t i = 0; i < url.size(); ++i) {
            const unsigned char c = static_cast<unsigned char>(url[i]);
            fuzz::require(c > 0x20 && c < 0x7f, "a blank or control byte in a URL");
            if (c == '%')
                fuzz::require(i + 2 < url.size() && is_hex(url[i + 1]) && is_hex(url[i + 2]), "a bare % in a URL");
        }
    }
}

void check_playlist(std::string_view content, const std::string &song, int direction, int places) {
    const std::vector<std::string> lines = playlist_lines(content);
    for (const std::string &line : lines)
        fuzz::require(!line.empty() && line.size() < kLineRead && line.find('\n') == std::string::npos,
                      "a playlist line with a break, empty or too long");
    const auto moved = playlist_moved(lines, song, direction, places);
    if (!moved) return;
    fuzz::require(moved->size() == lines.size() || moved->size() + 1 == lines.size(), "a move changed the count");
    if (direction == 0) fuzz::require(moved->size() + 1 == lines.size(), "a removal kept the song");
}

void check_paths(const std::string &rel) {
    for (const auto &resolved : {resolve_existing(kDisk, rel), resolve_entry(kDisk, rel)}) {
        if (resolved)
            fuzz::require(*resolved == disk_root_path || resolved->starts_with(disk_root_path + "/"),
                          "a path resolved outside its disk");
    }
    pathinfo_value(rel, "disk", false);
    pathinfo_value(rel, "file", true);
    is_plain_name(rel);
    has_audio_extension(rel, false);
    const std::string listing = fuzz::captured([&] { send_folder_listing(kDisk, rel, rel.size() % 2 == 0); });
    fuzz::require(listing.find("secret-of-the-gateway") == std::string::npos, "a listing showed a file off the disk");
}

void make_sample_disk() {
    const std::string root = fuzz::gateway_root();
    const std::string disk = root + "/var/mnt/" + kDisk;
    for (const std::string &dir : {root + "/var/mnt", disk, disk + "/Music", disk + "/Music/Jazz", disk + "/.playlists",
                                  root + "/outside"}) {
        ::mkdir(dir.c_str(), 0755);
    }
    std::ofstream(disk + "/Music/a.mp3") << "x";
    std::ofstream(disk + "/Music/Jazz/b.MP3") << "yy";
    std::ofstream(disk + "/.playlists/mix.m3u") << "Music/a.mp3\nMusic/Jazz/b.MP3\n";
    std::ofstream(root + "/outside/secret-of-the-gateway") << "z";
    ::symlink((root + "/outside").c_str(), (disk + "/Music/away").c_str());
    ::symlink("../../..", (disk + "/Music/up").c_str());
    const std::optional<std::string> canonical = disk_root(kDisk);
    if (!canonical) fuzz::fail("the sample disk does not resolve");
    disk_root_path = *canonical;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    make_sample_disk();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 1 << 14) return 0;
    const int direction = data[0] % 3 - 1;
    const int places = data[0] / 3 % 5;
    std::string_view rest = fuzz::text_of(data + 1, size - 1);
    const std::string rel(fuzz::take_until(rest, '\n'));
    const std::string song(fuzz::take_until(rest, '\n'));
    check_encoders(song);
    check_playlist(rest, song, direction, places);
    if (rel.find('\0') == std::string::npos) check_paths(rel);
    return 0;
}
