// Playlist contents: reading the lines, moving and removing an entry, and
// writing a playlist so that a crash leaves the old or the new one whole.
#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "nas/nas_internal.h"
#include "quelm_owned.h"

namespace cgissi::nas {
namespace {

// A line is read with at most this many characters, its break included.
constexpr std::size_t kLineRead = 4095;
constexpr int kPlaylistMode = 0666;

}  // namespace

std::vector<std::string> playlist_lines(std::string_view content) {
    std::vector<std::string> lines;
    while (!content.empty()) {
        std::size_t length = std::min(content.find('\n'), content.size() - 1) + 1;
        length = std::min(length, kLineRead);
        // compat: the last character read is taken for the line break and
        // dropped, also when a long line was cut or the file ends without one.
        if (length > 1) lines.emplace_back(content.substr(0, length - 1));
        content.remove_prefix(length);
    }
    return lines;
}

std::optional<std::vector<std::string>> playlist_moved(const std::vector<std::string> &lines, std::string_view song,
                                                      int direction, int nb) {
    const auto found = std::find(lines.begin(), lines.end(), song);
    if (found == lines.end()) return std::nullopt;
    const long p = found - lines.begin();
    const long c = static_cast<long>(lines.size());
    if (direction != 0 && c < 2) return lines;
    long t = direction > 0 ? p + nb : p - nb;
    // Past the last place wraps to the top, before the first to the end;
    // any further the song is dropped.
    if (direction > 0 && t == c) t = 0;
    if (direction < 0 && t == -1) t = c;
    std::vector<std::string> out;
    out.reserve(lines.size());
    if (direction > 0 && t == 0) out.emplace_back(song);
    for (long i = 0; i < c; ++i) {
        if (direction < 0 && i == t) out.emplace_back(song);
        if (i != p) out.push_back(lines[static_cast<std::size_t>(i)]);
        if (direction > 0 && t != 0 && i == t) out.emplace_back(song);
    }
    if (direction < 0 && t == c) out.emplace_back(song);
    return out;
}

bool write_playlist(const std::string &path, const std::vector<std::string> &lines) {
    const std::string temporary = path + ".tmp";
    std::string content;
    for (const std::string &line : lines) content.append(line).push_back('\n');
    ::unlink(temporary.c_str());
    quelm::UniqueFd out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPlaylistMode));
    if (!out) return false;
    const bool written = ::write(out.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
                         ::fsync(out.get()) == 0;
    out.reset();
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace cgissi::nas
