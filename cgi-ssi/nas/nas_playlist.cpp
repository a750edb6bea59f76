// Playlists: M3U files in each disk's ".playlists" folder, their XML view,
// their edits, and the SSI symbols that list them in pages.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "ssi.h"

namespace cgissi::nas {
namespace {

constexpr const char *kPlaylistDir = ".playlists";
constexpr std::string_view kPlaylistExtension = ".m3u";
constexpr mode_t kPlaylistDirMode = 0777;
constexpr int kPlaylistMode = 0666;
constexpr std::size_t kPlaylistFileMax = 16 * 1024 * 1024;

struct Playlist {
    std::string disk;
    std::string name;
};

// "disk" and "name"; a missing one is answered as the design says: with 400,
// or only with error 24 when the reply is the OK page anyway.
std::optional<Playlist> playlist_fields(bool status_on_missing) {
    std::optional<std::string> disk = form_field("disk");
    std::optional<std::string> name = form_field("name");
    if (disk && name) return Playlist{std::move(*disk), std::move(*name)};
    const char *field = !disk ? "disk" : "name";
    if (status_on_missing) {
        missing(field);
    } else {
        NAS_LOG("Missing parameters %s", field);
        QM_err_set(kErrMissing);
    }
    return std::nullopt;
}

// The playlist file beneath the disk's playlist folder, or nothing when the
// name is not a plain name or the folder leaves the disk.
std::optional<std::string> playlist_path(const Playlist &list) {
    if (!is_plain_name(list.name)) return std::nullopt;
    return resolve_entry(list.disk, std::string(kPlaylistDir) + "/" + list.name + std::string(kPlaylistExtension));
}

bool music_open() {
    if (check_extern_access(NAS_KIND_MUSIC) != 0) return true;
    refuse_access();
    return false;
}

void send_xml(const Playlist &list, const std::optional<std::string> &path) {
    std::optional<std::string> content;
    if (path) content = read_playlist(*path);
    if (!content) {
        NAS_LOG("Cannot open file %s", path ? path->c_str() : list.name.c_str());
        fail(404, "Not found", kErrNotFound);
        return;
    }
    cgiHeaderContentType("text/xml");
    cgi_out_printf("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<root>\n<playlist>\n<disk>%s</disk>\n"
                   "<name>%s</name>\n</playlist>\n<playlistset>\n",
                   xml_encode(list.disk).c_str(), xml_encode(list.name).c_str());
    for (const std::string &line : playlist_lines(*content))
        cgi_out_printf("<path>%s</path>\n", xml_encode(line).c_str());
    cgi_out_printf("</playlistset>\n</root>\n");
}

// Writes the edited playlist over the old one, then shows it.
void store_and_show(const Playlist &list, const std::string &path, const std::vector<std::string> &lines) {
    if (!write_playlist(path, lines)) {
        NAS_LOG("Cannot open file %s.tmp", path.c_str());
        QM_err_set(kErrNotFound);
    }
    send_xml(list, path);
}

void list_disk_playlists(const std::string &disk, bool full) {
    const std::optional<std::string> dir_path = resolve_existing(disk, kPlaylistDir);
    const std::optional<std::string> root = disk_root(disk);
    if (!dir_path || !root || *dir_path != *root + "/" + kPlaylistDir) return;
    quelm::UniqueDir dir(::opendir(dir_path->c_str()));
    while (dir) {
        const dirent *entry = ::readdir(dir.get());
        if (entry == nullptr) break;
        const std::string_view file = entry->d_name;
        if (file.starts_with('.') || file.size() <= kPlaylistExtension.size() ||
            !has_extension_no_case(file, kPlaylistExtension))
            continue;
        const std::string name(file.substr(0, file.size() - kPlaylistExtension.size()));
        if (!full) {
            ssiprintf("%s%c%s%c", disk.c_str(), 9, name.c_str(), 11);
            continue;
        }
        const std::optional<std::string> content = read_playlist(*dir_path + "/" + std::string(file));
        const std::size_t count = content ? playlist_lines(*content).size() : 0;
        ssiprintf("%s%c%s%c%d%c", disk.c_str(), 9, name.c_str(), 9, static_cast<int>(count), 11);
    }
}

int nas_playlists(bool full) {
    if (check_extern_access(NAS_KIND_MUSIC) == 0) return QM_err_set(kErrRefused);
    quelm::UniqueDir mount(::opendir(quelm::root_path(kMountDir).c_str()));
    while (mount) {
        const dirent *entry = ::readdir(mount.get());
        if (entry == nullptr) break;
        if (entry->d_name[0] != '.') list_disk_playlists(entry->d_name, full);
    }
    return 0;
}

}  // namespace

bool has_extension_no_case(std::string_view name, std::string_view extension) {
    return name.size() >= extension.size() &&
           quelm::equal_ascii_no_case(name.substr(name.size() - extension.size()), extension);
}

std::optional<std::string> read_playlist(const std::string &path) {
    quelm::UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return std::nullopt;
    std::string content;
    char block[4096];
    for (;;) {
        const ssize_t got = ::read(file.get(), block, sizeof block);
        if (got < 0) return std::nullopt;
        if (got == 0 || content.size() + static_cast<std::size_t>(got) > kPlaylistFileMax) break;
        content.append(block, static_cast<std::size_t>(got));
    }
    return content;
}

std::optional<std::string> playlist_file(const std::string &disk, const std::string &name) {
    return playlist_path(Playlist{disk, name});
}

void playlist_xml() {
    if (!music_open()) return;
    if (const std::optional<Playlist> list = playlist_fields(true)) send_xml(*list, playlist_path(*list));
}

void playlist_add() {
    if (!music_open()) return;
    if (const std::optional<Playlist> list = playlist_fields(false)) {
        if (const std::optional<std::string> root = disk_root(list->disk))
            ::mkdir((*root + "/" + kPlaylistDir).c_str(), kPlaylistDirMode);
        const std::optional<std::string> path = playlist_path(*list);
        if (!path) return refuse_path("playlist", list->name);
        constexpr int kCreateNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        quelm::UniqueFd file(::open(path->c_str(), kCreateNew, kPlaylistMode));
        if (!file && errno == EEXIST) {
            NAS_LOG("File already exists %s", path->c_str());
            QM_err_set(kErrExisted);
        } else if (!file) {
            NAS_LOG("Cannot create file %s", path->c_str());
        }
    }
    reply_ok_page();
}

void playlist_rename() {
    if (!music_open()) return;
    const std::optional<Playlist> list = playlist_fields(false);
    const std::optional<std::string> new_name = form_field("newname");
    if (list && !new_name) {
        NAS_LOG("Missing parameters %s", "newname");
        QM_err_set(kErrMissing);
    }
    if (list && new_name && *new_name != list->name) {
        const std::optional<std::string> from = playlist_path(*list);
        const std::optional<std::string> to = playlist_path(Playlist{list->disk, *new_name});
        if (!from || !to) return refuse_path("playlist", *new_name);
        rename_unless_exists(*from, *to);
    }
    reply_ok_page();
}

void playlist_delete() {
    if (!music_open()) return;
    if (const std::optional<Playlist> list = playlist_fields(false)) {
        const std::optional<std::string> path = playlist_path(*list);
        if (!path) return refuse_path("playlist", list->name);
        ::unlink(path->c_str());
    }
    reply_ok_page();
}

void playlist_move(int direction) {
    if (!music_open()) return;
    const std::optional<Playlist> list = playlist_fields(true);
    if (!list) return;
    const std::optional<std::string> song = form_field("song");
    if (!song) return missing("song");
    int nb = 1;
    cgiFormInteger("nb", &nb, 1);
    const std::optional<std::string> path = playlist_path(*list);
    const std::optional<std::string> content = path ? read_playlist(*path) : std::nullopt;
    if (!content) return send_xml(*list, path);
    const auto moved = playlist_moved(playlist_lines(*content), *song, direction, nb);
    if (!moved) {
        QM_err_set(kErrNotFound);
        return send_xml(*list, path);
    }
    store_and_show(*list, *path, *moved);
}

void playlist_add_item() {
    if (!music_open()) return;
    const std::optional<Playlist> list = playlist_fields(true);
    if (!list) return;
    const auto fields = required_fields<2>({"path", "song"});
    if (!fields) return;
    const std::optional<std::string> path = playlist_path(*list);
    if (!path) return refuse_path("playlist", list->name);
    std::vector<std::string> lines = playlist_lines(read_playlist(*path).value_or(""));
    // compat: the entry is "<path>/<song>" even for the disk root's songs.
    lines.push_back((*fields)[0] + "/" + (*fields)[1]);
    store_and_show(*list, *path, lines);
}

}  // namespace cgissi::nas

extern "C" int get_nas_playlists(void) {
    return quelm::guarded(cgissi::nas::kErrMemory, __func__, [] { return cgissi::nas::nas_playlists(false); });
}

extern "C" int get_nas_fullplaylists(void) {
    return quelm::guarded(cgissi::nas::kErrMemory, __func__, [] { return cgissi::nas::nas_playlists(true); });
}
