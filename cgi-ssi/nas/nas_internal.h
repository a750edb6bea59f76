// Shared pieces of the NAS service: the confined paths, the form helpers,
// the text encoders and the replies that several operations give.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qm_config.h"

// Every NAS message carries " <file>:<line>  " before its text.
#define NAS_LOG(...) cgissi::nas::log_at(__FILE__, __LINE__, __VA_ARGS__)

namespace cgissi::nas {

// Shared error codes of the service.
constexpr int kErrRefused = 8;
constexpr int kErrMemory = 10;
constexpr int kErrNotFound = 20;
constexpr int kErrMissing = 24;
constexpr int kErrExisted = 25;

constexpr std::size_t kDiskSize = 128;      // "disk" field, with terminator
constexpr std::size_t kPathMax = 4096;      // a full path
constexpr std::size_t kNameSize = 256;      // a single name, with terminator
constexpr std::size_t kPropertySize = 128;  // a Services_NAS value
constexpr std::size_t kThumbDataSize = 50000;  // "data": a base64 thumbnail, with terminator
constexpr const char *kMountDir = "/var/mnt";
// Thumbnails of a disk, in its root.
constexpr const char *kThumbDir = ".quelm";

void log_at(const char *file, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));

// ---- Paths (nas_paths.cpp) ----------------------------------------------
// Every path handed out here lies beneath /var/mnt/<disk> once resolved.

// The disk's root, canonical, or nothing when the name is not one plain
// component or the directory does not resolve to itself.
std::optional<std::string> disk_root(std::string_view disk);
// An existing entry under the disk (rel may be empty for the root), with
// links resolved, still beneath the root; nothing otherwise.
std::optional<std::string> resolve_existing(std::string_view disk, std::string_view rel);
// The entry named by rel, its parent resolved beneath the root and its last
// component a plain name that is not followed; nothing when rel is empty,
// ends in ".", ".." or "/", or the parent leaves the disk.
std::optional<std::string> resolve_entry(std::string_view disk, std::string_view rel);
// rel joined to name with "/" (no "/" when rel is empty).
std::string join(std::string_view rel, std::string_view name);
// A single name: not empty, not "." or "..", no "/".
bool is_plain_name(std::string_view name);
// Logs, sets error 20 and answers 404 for a path that would leave its disk.
void refuse_path(const char *what, std::string_view path);
// Logs, sets error 8 and answers 403 for a feature the policy keeps closed.
void refuse_access();
// Standard base64 with padding; nothing when the text is not base64 or
// decodes to more than limit bytes.
std::optional<std::string> base64_decode(std::string_view text, std::size_t limit);

// The value of key in PATH_INFO "/key/value/..." (rest: everything after
// "/key/"), or nothing.
std::optional<std::string> pathinfo_value(std::string_view path_info, std::string_view key, bool rest);

// ---- Request helpers (nas_dispatch.cpp) ----------------------------------
// The field's value without line breaks, or nothing when it is absent or
// empty; at most size - 1 bytes.
std::optional<std::string> form_text(const char *name, std::size_t size = kPathMax, bool allow_empty = false);
// Logs "Missing parameters", answers 400 and sets 24.
void missing(const char *name);
// A field by its name, with the size the service gives that name ("path"
// may be empty: the disk root).
std::optional<std::string> form_field(std::string_view name);
// The named fields in order; the first missing one is answered (missing())
// and nothing is returned.
template <std::size_t N>
std::optional<std::array<std::string, N>> required_fields(const std::array<const char *, N> &names) {
    std::array<std::string, N> values;
    for (std::size_t i = 0; i < N; ++i) {
        std::optional<std::string> value = form_field(names[i]);
        if (!value) {
            missing(names[i]);
            return std::nullopt;
        }
        values[i] = std::move(*value);
    }
    return values;
}
void reply_ok_page();
// Answers with the HTTP status (its header block only) and sets the shared
// error code.
void fail(int code, const char *message, int error);
// Renames unless the target exists (false, errno EEXIST, both kept).
bool rename_no_replace(const std::string &from, const std::string &to);
// Renames unless the target exists (then logs, sets 25 and keeps both).
void rename_unless_exists(const std::string &from, const std::string &to);
// The file under the disk that names itself exactly (no link, no ".."), or
// nothing after the refusal has been answered.
std::optional<std::string> exact_path(const std::string &disk, const std::string &file);

// ---- Encoders (nas_listing.cpp) ------------------------------------------
std::string xml_encode(std::string_view text);
std::string url_encode(std::string_view text, bool path_info);
// The extension after the last "." is an audio one (first_only: "mp3"),
// compared without case.
bool has_audio_extension(std::string_view name, bool first_only);

// ---- Operations --------------------------------------------------------------
void send_file(const char *disposition, const char *type, bool thumbnail);
void send_pathinfo(const char *path_info, const char *disposition, const char *type, bool check_extension);
void add_file(const std::string &temporary);
void rename_file();
void delete_file();
void add_thumb();
void send_folder(bool audio_only);
void send_folder_listing(std::string_view disk, std::string_view rel, bool audio_only);
// The thumbnail name of an existing file: MD5 of its gateway path, "-" and
// its size, in lower-case hex. 0, or -1 (error 10) when it cannot be examined.
int thumb_name(const std::string &disk, const std::string &file, std::string &name);
void send_exif();
void playlist_xml();
void playlist_m3u(bool path_info);
void playlist_add();
void playlist_rename();
void playlist_delete();
void playlist_move(int direction);
void playlist_add_item();

// ---- Playlist files (nas_playlist.cpp) ------------------------------------
// The whole playlist file, or nothing when it cannot be read.
std::optional<std::string> read_playlist(const std::string &path);
// The file of the named playlist of the disk, or nothing when it would
// leave the disk.
std::optional<std::string> playlist_file(const std::string &disk, const std::string &name);
bool has_extension_no_case(std::string_view name, std::string_view extension);

// ---- Playlist editing (nas_playlist_edit.cpp), pure ----------------------
// Non-empty lines of a playlist file, each without its line break; lines
// longer than the read limit are split as the reader meets them.
std::vector<std::string> playlist_lines(std::string_view content);
// The playlist after moving (direction -1 up, 1 down) or removing (0) the
// first entry equal to song, nb places; nothing when the song is absent.
std::optional<std::vector<std::string>> playlist_moved(const std::vector<std::string> &lines,
                                                      std::string_view song, int direction, int nb);
// Writes lines atomically over path (temporary in the same folder, then
// rename); false when the temporary cannot be written.
bool write_playlist(const std::string &path, const std::vector<std::string> &lines);

}  // namespace cgissi::nas
