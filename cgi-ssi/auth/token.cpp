// Access tokens (qm_token.h): files "/var/tmp/CGI_Token_<token>" whose
// modification time is their expiry. Pages create them while rendering;
// data-model requests present them in the "token" form field.
//
// A token from the request becomes part of a path only once it is exactly
// six letters or digits, what mkstemp puts in place of "XXXXXX"; so no file
// outside the token directory is read, renewed or removed on its behalf.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_config.h"
#include "qm_token.h"
#include "util/policy.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_kept_file.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "session/token_name.h"

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {
char *last_token_name = nullptr;
int last_token_lifetime = 0;
int token_ssi_autolearn = 0;
int token_shadow_password = 1;
}

namespace cgissi::auth {
namespace {

constexpr const char *kTokenDir = "/var/tmp";
constexpr std::string_view kTokenPathPrefix = "/var/tmp/CGI_Token_";
constexpr std::string_view kTokenFilePrefix = "CGI_Token_";
constexpr const char *kTokenTemplate = "/var/tmp/CGI_Token_XXXXXX";
constexpr const char *kCopySuffix = "~";

constexpr int kDefaultLifetime = 900;   // seconds
constexpr std::size_t kTokenTextLimit = QM_TOKEN_LINE_SIZE;  // text length + 1 must stay below
constexpr int kTokenFieldSize = QM_TOKEN_FIELD_SIZE;
constexpr int kLifetimeLineSize = 64;   // line 1: at most 63 characters

constexpr const char *kNoTokenMessage = "You must provide a token to access the values of CLI get or post.";
constexpr const char *kInvalidMessage = "Token is invalid or your session has expired. Please refresh the page.";
constexpr const char *kExpiredMessage = "Your session has expired. Please refresh the page.";
constexpr const char *kUnreadableMessage = "Unknown error. Please refresh the page.";

using File = quelm::UniqueFile;
using Dir = quelm::UniqueDir;
using cgissi::session::valid_token;
static_assert(QM_TOKEN_LENGTH == cgissi::session::kTokenLength);

bool is_token_path(const char *path) {
    if (path == nullptr) return false;
    std::string_view p = path;
    return p.starts_with(kTokenPathPrefix) &&
           valid_token(p.substr(std::min(p.size(), kTokenPathPrefix.size())));
}

// Decimal number as "%d" reads it, clamped to int; fallback when none.
int parse_int(const char *text, int fallback) {
    const char *end = nullptr;
    const long value = quelm::parse_long(text, &end);
    if (end == text) return fallback;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

// Opens a file of the token directory without following a link there.
File open_token_file(const std::string &mapped, int flags, const char *mode) {
    int fd = ::open(mapped.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return nullptr;
    std::FILE *f = ::fdopen(fd, mode);
    if (f == nullptr) ::close(fd);
    return File(f);
}

// Copies the file's access and expiry times onto the open stream's file, so
// that rewriting a token does not cut its lifetime short.
void keep_times(std::FILE *f, const struct stat &st) {
    std::fflush(f);
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::futimens(::fileno(f), times);
}

void record(token_context *context, const char *message) {
    quelm::copy_cut(context->message, sizeof context->message, message);
    std::size_t used = ::strnlen(context->error_text, sizeof context->error_text - 1);
    quelm::copy_cut(context->error_text + used, sizeof context->error_text - used, message);
}

// The bytes of an open token file that its first two lines can take: as
// many as two fgets calls with these buffer sizes could read, and no more
// than `file_size`, the size its status gave (once that much is read, no
// further call looks for the end).
std::string read_token_text(int fd, std::size_t file_size, std::size_t first_size, std::size_t second_size) {
    const std::size_t wanted = std::min((first_size - 1) + (second_size - 1), std::max<std::size_t>(file_size, 1));
    std::string text(wanted, '\0');
    std::size_t got = 0;
    while (got < wanted) {
        const ssize_t n = ::read(fd, text.data() + got, wanted - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    return text;
}

// The first two lines of a token file's text as two fgets calls with these
// buffer sizes would read them: a line up to its newline, cut at the
// buffer's size. False when the text has not even one character; a missing
// second line leaves `second` as it is.
bool token_lines(std::string_view text, char *first, std::size_t first_size, char *second,
                 std::size_t second_size) {
    auto take_line = [&](char *out, std::size_t size) {
        if (text.empty()) return false;
        const std::size_t limit = std::min(size - 1, text.size());
        const std::size_t newline = text.substr(0, limit).find('\n');
        const std::size_t n = newline != std::string_view::npos ? newline + 1 : limit;
        std::memcpy(out, text.data(), n);
        out[n] = '\0';
        text.remove_prefix(n);
        return true;
    };
    if (!take_line(first, first_size)) return false;
    take_line(second, second_size);
    return true;
}

// The token file checked last, kept while a status call finds it unchanged
// (a page's calls to generic.cgi all carry the page's token).
quelm::KeptFile &kept_token() {
    static quelm::KeptFile kept;
    return kept;
}

void hold_token(const char *path, int lifetime) {
    std::free(last_token_name);
    last_token_name = ::strdup(path);
    last_token_lifetime = lifetime;
}

}  // namespace
}  // namespace cgissi::auth

using namespace cgissi::auth;

extern "C" {

int create_token(const char *text) {
    return quelm::guarded(-1, __func__, [&, function = __func__]() -> int {
        if (text == nullptr) text = "";
        if (std::strlen(text) + 1 >= kTokenTextLimit) {
            // compat: the trailing newline of the message is the design's.
            QM_LOG_print("%s %d : token is too big\n", function, __LINE__);
            return -1;
        }
        std::string mapped = quelm::root_path(kTokenTemplate);
        int fd = ::mkostemp(mapped.data(), O_CLOEXEC);
        if (fd < 0) {
            int error = errno;
            // compat: the trailing newline of the message is the design's.
            QM_LOG_print("mkstemp failed with %d : %s\n", error, std::strerror(error));
            return -1;
        }
        std::string token = mapped.substr(mapped.size() - QM_TOKEN_LENGTH);
        std::string path = std::string(kTokenPathPrefix) + token;

        int lifetime = kDefaultLifetime;
        const char *rights = text;
        if (const char *blank = std::strchr(text, ' ')) {
            std::string number(text, static_cast<std::size_t>(blank - text));
            lifetime = parse_int(number.c_str(), kDefaultLifetime);
            if (lifetime == 0) lifetime = kDefaultLifetime;
            rights = blank + 1;
        }

        std::FILE *raw = ::fdopen(fd, "w");
        if (raw == nullptr) ::close(fd);
        File file(raw);
        bool written = file && std::fprintf(file.get(), "%d\n%s\n", lifetime, rights) > 0;
        if (!written || std::fclose(file.release()) != 0) {
            QM_LOG_print("%s %d : failed to write %s", function, __LINE__, path.c_str());
            ::unlink(mapped.c_str());
            return -1;
        }
        refresh_token_timestamp(path.c_str(), lifetime);
        cgi_out_printf("\"%s\"", token.c_str());

        // The first token of a page is the one that "create=" and autolearn
        // extend.
        if (last_token_name == nullptr) {
            hold_token(path.c_str(), lifetime);
        } else {
            QM_LOG_print("%s %d: error, two or more tokens created !", function, __LINE__);
        }
        flush_tokens();
        return 0;
    });
}

int extend_token_create(const char *text) {
    return quelm::guarded(-1, __func__, [&, function = __func__]() -> int {
        if (last_token_name == nullptr) {
            QM_LOG_print("%s %d: last_token_name is NULL", function, __LINE__);
            return -1;
        }
        std::string mapped = quelm::root_path(last_token_name);
        File file = is_token_path(last_token_name) ? open_token_file(mapped, O_WRONLY | O_APPEND, "a") : nullptr;
        struct stat st {};
        if (!file || ::fstat(::fileno(file.get()), &st) != 0) {
            QM_LOG_print("%s %d: failed to open %s", function, __LINE__, last_token_name);
            return -1;
        }
        std::fprintf(file.get(), "%s\n", text != nullptr ? text : "");
        keep_times(file.get(), st);
        cgi_out_printf("\"\"");
        return 0;
    });
}

int extend_token(const char *path, const char *name) {
    return quelm::guarded(0, __func__, [&, function = __func__]() -> int {
        if (!is_token_path(path) || name == nullptr || std::strpbrk(name, "\r\n") != nullptr) {
            QM_LOG_print("%s %d: refused to extend %s", function, __LINE__, path != nullptr ? path : "(null)");
            return 0;
        }
        std::string mapped = quelm::root_path(path);
        std::string copy = mapped + kCopySuffix;
        File in = open_token_file(mapped, O_RDONLY, "r");
        struct stat st {};
        if (!in || ::fstat(::fileno(in.get()), &st) != 0) {
            QM_LOG_print("%s %d: failed to open %s", function, __LINE__, path);
            return 0;
        }
        File out = open_token_file(copy, O_WRONLY | O_CREAT | O_TRUNC, "w");
        if (!out) {
            QM_LOG_print("%s %d: failed to open %s%s", function, __LINE__, path, kCopySuffix);
            return 0;
        }
        // Whole lines: a rights line longer than a read buffer must not split
        // into a further line, which would read as a "create=" line.
        quelm::MallocString line;
        std::size_t capacity = 0;
        int number = 0;
        bool rights_done = false;
        for (;;) {
            char *buffer = line.release();
            ssize_t length = ::getline(&buffer, &capacity, in.get());
            line.reset(buffer);
            if (length < 0) break;
            ++number;
            if (number == 2) {
                std::string_view rights(buffer, static_cast<std::size_t>(length));
                if (!rights.empty() && rights.back() == '\n') rights.remove_suffix(1);
                std::fprintf(out.get(), "%.*s,%s\n", static_cast<int>(rights.size()), rights.data(), name);
                rights_done = true;
            } else {
                std::fwrite(buffer, 1, static_cast<std::size_t>(length), out.get());
            }
        }
        if (!rights_done) std::fprintf(out.get(), ",%s\n", name);
        keep_times(out.get(), st);
        if (std::ferror(out.get()) != 0 || std::fclose(out.release()) != 0 ||
            ::rename(copy.c_str(), mapped.c_str()) != 0) {
            QM_LOG_print("%s %d: failed to rewrite %s", function, __LINE__, path);
            ::unlink(copy.c_str());
        }
        return 0;
    });
}

int refresh_token_timestamp(const char *path, int lifetime) {
    return quelm::guarded(-1, __func__, [&, function = __func__]() -> int {
        if (path == nullptr || *path == '\0') return -1;
        std::time_t now = std::time(nullptr);
        const struct timespec times[2] = {{now, 0}, {now + lifetime, 0}};
        if (!is_token_path(path) ||
            ::utimensat(AT_FDCWD, quelm::root_path(path).c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            QM_LOG_print("%s %d: failed to update tokenfile timestamp", function, __LINE__);
            return -1;
        }
        return 0;
    });
}

int get_token_rights(token_context *context) {
    return quelm::guarded(static_cast<int>(QM_TOKEN_UNREADABLE), __func__, [&]() -> int {
        if (context == nullptr) return QM_TOKEN_MISSING;
        context->rights[0] = '\0';
        char token[kTokenFieldSize] = {};
        if (cgiFormString("token", token, sizeof token) == cgiFormNotFound) {
            record(context, kNoTokenMessage);
            return QM_TOKEN_MISSING;
        }
        if (!valid_token(token)) {
            record(context, kInvalidMessage);
            return QM_TOKEN_UNKNOWN;
        }
        // Built in place: this runs for every request of the data-model API.
        char path[kTokenPathPrefix.size() + sizeof token];
        std::memcpy(path, kTokenPathPrefix.data(), kTokenPathPrefix.size());
        std::memcpy(path + kTokenPathPrefix.size(), token, sizeof token);  // token is terminated
        const quelm::RootPath mapped(path);
        // The kept text of this token file while its own status (not a
        // link's target) is unchanged; otherwise the file is opened first
        // (never through a link, never waiting on a FIFO), so that one
        // status call serves the expiry and the type; what cannot be opened
        // is looked at with a status call through links.
        quelm::KeptFile &kept = kept_token();
        struct stat st {};
        const bool unchanged = kept.unchanged(mapped.c_str(), st, false);
        quelm::UniqueFd fd;
        quelm::FolderStamp stamp;
        if (!unchanged) {
            stamp = quelm::folder_stamp(mapped.view());
            fd.reset(::open(mapped.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
            if (!fd || ::fstat(fd.get(), &st) != 0) {
                fd.reset();
                if (::stat(mapped.c_str(), &st) != 0) {
                    record(context, kExpiredMessage);
                    return QM_TOKEN_UNKNOWN;
                }
            }
        }
        // The modification time is the expiry: the token is still good in that
        // very second.
        if (std::time(nullptr) - st.st_mtime >= 1) {
            record(context, kExpiredMessage);
            ::unlink(mapped.c_str());
            return QM_TOKEN_EXPIRED;
        }
        std::string text;
        if (!unchanged && fd && S_ISREG(st.st_mode)) {
            text = read_token_text(fd.get(), static_cast<std::size_t>(st.st_size), kLifetimeLineSize,
                                   sizeof context->rights);
            // Opened without following links: the name itself, in the folder stamped.
            kept = quelm::settled(st) ? quelm::KeptFile{std::string(mapped.view()), st, text, stamp} : quelm::KeptFile{};
        }
        char lifetime_line[kLifetimeLineSize] = {};
        if ((!unchanged && (!fd || !S_ISREG(st.st_mode))) ||
            !token_lines(unchanged ? kept.bytes : text, lifetime_line, sizeof lifetime_line, context->rights,
                         sizeof context->rights)) {
            record(context, kUnreadableMessage);
            return QM_TOKEN_UNREADABLE;
        }
        std::size_t length = std::strlen(context->rights);
        if (length > 0 && context->rights[length - 1] == '\n') context->rights[length - 1] = '\0';

        int lifetime = parse_int(lifetime_line, 0);
        // A token already stamped with this second's expiry (its previous
        // request came in the same second) is not written again.
        const std::time_t now = std::time(nullptr);
        if (st.st_mtim.tv_sec != now + lifetime || st.st_mtim.tv_nsec != 0) {
            refresh_token_timestamp(path, lifetime);
        }
        hold_token(path, lifetime);
        return QM_TOKEN_VALID;
    });
}

namespace {

// A right grants the path when it is a leading run of the path's whole
// "_"-separated components ("Device" grants "Device_Hostname", not
// "LANDevice_1"); a filter's bracket also ends a component. The legacy
// policy grants any path that holds the right anywhere.
bool right_matches(std::string_view right, std::string_view path) {
    if (cgissi::policy::compat_mode()) return path.find(right) != std::string_view::npos;
    if (!path.starts_with(right)) return false;
    return path.size() == right.size() || path[right.size()] == '_' || path[right.size()] == '[' ||
           path[right.size()] == '{';
}

}  // namespace

int has_right(const char *rights, const char *object) {
    return quelm::guarded(0, __func__, [&]() -> int {
        if (rights == nullptr || object == nullptr) return 0;
        std::string_view all = rights;
        if (all == "all") return 1;
        std::string_view path = object;
        // Empty items (",Wifi", "a,,b") grant nothing: they would match every
        // path.
        const bool granted = !quelm::split(all, ',', [&](std::string_view item) {
            return item.empty() || !right_matches(item, path);
        });
        return granted ? 1 : 0;
    });
}

void flush_tokens(void) {
    quelm::guarded(__func__, [&] {
        Dir dir(::opendir(quelm::root_path(kTokenDir).c_str()));
        if (!dir) {
            QM_LOG_print("failed to check %s", kTokenDir);
            return;
        }
        std::time_t now = std::time(nullptr);
        while (const struct dirent *entry = ::readdir(dir.get())) {
            std::string_view name = entry->d_name;
            if (name.empty() || name[0] == '.' || !name.starts_with(kTokenFilePrefix)) continue;
            std::string path = std::string(kTokenDir) + "/" + entry->d_name;
            std::string mapped = quelm::root_path(path);
            struct stat st {};
            if (::lstat(mapped.c_str(), &st) == 0 && now - st.st_mtime > 0) {
                QM_LOG_print("Removing %s", path.c_str());
                ::unlink(mapped.c_str());
            }
        }
    });
}

void remove_current_token(void) {
    quelm::guarded(__func__, [&] {
        if (is_token_path(last_token_name)) ::unlink(quelm::root_path(last_token_name).c_str());
    });
}

void remove_last_token_name(void) {
    std::free(last_token_name);
    last_token_name = nullptr;
}

char *next_item(const char *list, int *out) {
    if (list == nullptr || out == nullptr) return nullptr;
    char *end = nullptr;
    long value = std::strtol(list, &end, 10);
    if (end == list) return nullptr;
    *out = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    const char *comma = std::strchr(end, ',');
    return comma != nullptr ? const_cast<char *>(comma + 1) : nullptr;
}
}
