// The SSI page renderer: serves the page named by the web server, copying
// its text to the response and executing its "<!--#...-->" directives.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "core/handlers.h"
#include "libssi/ssi_internal.h"
#include "libssi/ssi_symbols.h"
#include "qm_config.h"
#include "quelm_log.h"
#include "ssi.h"

namespace cgissi::ssi {
namespace {

constexpr const char *kDefaultTimeFormat = "%a %b %e %T %Z %Y";
constexpr int kSizeBytes = 0;
constexpr int kSizeAbbrev = 1;
constexpr std::size_t kCommandChunk = 4096;

// ---- Process state -------------------------------------------------------

char timefmt[kTimeFormatSize] = "";
int sizefmt = kSizeBytes;
SectionState section_state;
std::string path_info;   // virtual name of the requested page
int include_depth = 0;   // includes open below the requested page

// ---- Owned handles ---------------------------------------------------------

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// A whole file mapped read-only. An empty file has no mapping and reads as
// empty text; the text is not terminated.
class Mapping {
public:
    Mapping(int fd, std::size_t size) {
        if (size == 0) return;
        void *addr = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        if (addr == MAP_FAILED) return;
        addr_ = addr;
        size_ = size;
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping() {
        if (addr_ != nullptr) ::munmap(addr_, size_);
    }

    bool mapped() const { return addr_ != nullptr; }
    std::string_view text() const { return {static_cast<const char *>(addr_), size_}; }

private:
    void *addr_ = nullptr;
    std::size_t size_ = 0;
};

// Pages are opened without blocking so that a FIFO among them cannot stall
// the responder.
UniqueFd open_page(const std::string &path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

int length_of(std::string_view s) { return static_cast<int>(s.size()); }

// ---- Error blocks ----------------------------------------------------------
// The texts are byte-exact: pages' scripts and support tools look for them.

void internal_error(const char *reason) {
    const char *title = "500 Internal Error";
    cgi_out_printf("<HTML>\n<HEAD>\n<TITLE>%s</TITLE>\n"
                   "<meta http-equiv=Content-Type content=\"text/html; charset=iso-8859-1\">\n"
                   "</HEAD>\n<BODY><H2>%s</H2>\n"
                   "Something unusual went wrong during a server-side-includes request:\n"
                   "<BLOCKQUOTE>\n%s\n</BLOCKQUOTE>\n</BODY></HTML>\n",
                   title, title, reason);
}

void page_not_found(const std::string &file_name) {
    const char *title = "404 Not Found";
    cgi_out_printf("<HTML>\n<HEAD>\n<TITLE>%s</TITLE>\n"
                   "<meta http-equiv=Content-Type content=\"text/html; charset=iso-8859-1\">\n"
                   "</HEAD>\n<BODY><H2>%s</H2>\n"
                   "The requested server-side-includes filename, %s,\ndoes not seem to exist.\n"
                   "</BODY></HTML>\n",
                   title, title, file_name.c_str());
}

void file_not_found(std::string_view directive, std::string_view tag, std::string_view path) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe filename requested in a %.*s %.*s directive, %.*s,\n"
                   "does not seem to exist.\n<HR>\n",
                   "Not Found", length_of(directive), directive.data(), length_of(tag), tag.data(),
                   length_of(path), path.data());
}

void unknown_directive(const std::string &file_name, std::string_view directive) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe requested server-side-includes filename, %s,\n"
                   "tried to use an unknown directive, %.*s.\n<HR>\n",
                   "Unknown Directive", file_name.c_str(), length_of(directive), directive.data());
}

void unknown_tag(const std::string &file_name, std::string_view directive, std::string_view tag) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe requested server-side-includes filename, %s,\n"
                   "tried to use the directive %.*s with an unknown tag, %.*s.\n<HR>\n",
                   "Unknown Tag", file_name.c_str(), length_of(directive), directive.data(), length_of(tag),
                   tag.data());
}

void unknown_value(const std::string &file_name, std::string_view directive, std::string_view tag,
                   std::string_view value) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe requested server-side-includes filename, %s,\n"
                   "tried to use the directive %.*s %.*s with an unknown value, %.*s.\n<HR>\n",
                   "Unknown Value", file_name.c_str(), length_of(directive), directive.data(), length_of(tag),
                   tag.data(), length_of(value), value.data());
}

// ---- Paths -----------------------------------------------------------------

// CGI_PATTERN as the process first saw it.
const std::optional<std::string> &cgi_pattern() {
    static const std::optional<std::string> pattern = []() -> std::optional<std::string> {
        const char *value = std::getenv("CGI_PATTERN");
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    }();
    return pattern;
}

bool has_parent_step(std::string_view path) { return path.find("../") != std::string_view::npos; }

// True when the engine may read `path` as a page: no "../", and not a CGI
// program by CGI_PATTERN.
bool check_filename(std::string_view path) {
    if (has_parent_step(path)) return false;
    const std::optional<std::string> &pattern = cgi_pattern();
    if (!pattern) return true;
    return !match(*pattern, path);
}

// Directory part of `path` through its last "/"; a name without "/" is
// taken as a directory of its own (the name and a "/").
std::string directory_of(const std::string &path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return path + "/";
    return path.substr(0, slash + 1);
}

// Resolves an include, fsize or flastmod attribute to a file path of at
// most kPathLimit - 1 characters.
std::optional<std::string> get_filename(const std::string &virtual_name, const std::string &file_name,
                                        std::string_view directive, const std::string &tag,
                                        const std::string &value) {
    if (tag == "virtual") {
        if (has_parent_step(value)) {
            not_permitted(directive, tag, value);
            return std::nullopt;
        }
        const char *root = std::getenv("DOCUMENT_ROOT");
        if (root != nullptr && root[0] != '\0') {
            std::string_view relative = value;
            relative.remove_prefix(std::min(relative.find_first_not_of('/'), relative.size()));
            const std::size_t root_length = std::strlen(root);
            if (value.size() + root_length > kPathLimit || root_length + relative.size() >= kPathLimit) {
                QM_LOG_print("Error %s:%d -> can't concatenate doc_root and val, not enough size", "ssi_engine.cpp",
                             __LINE__);
                return std::nullopt;
            }
            return std::string(root) + std::string(relative);
        }
        // Without a root the page's own path locates the site.
        if (file_name.size() < virtual_name.size() ||
            file_name.compare(file_name.size() - virtual_name.size(), virtual_name.size(), virtual_name) != 0)
            return std::nullopt;
        const std::size_t base = file_name.size() - virtual_name.size();
        if (base + value.size() >= kPathLimit) return std::nullopt;
        return file_name.substr(0, base) + value;
    }
    if (tag == "file") {
        if (value.starts_with('/') || has_parent_step(value)) {
            not_permitted(directive, tag, value);
            return std::nullopt;
        }
        if (value.size() + file_name.size() + 1 >= kPathLimit) return std::nullopt;
        return directory_of(file_name) + value;
    }
    unknown_tag(file_name, directive, tag);
    return std::nullopt;
}

// ---- Output ----------------------------------------------------------------

// Page text, when the sections let it through.
void emit(std::string_view run) {
    if (!run.empty() && text_visible(section_state)) cgi_out_write(run.data(), run.size());
}

void print_time(std::time_t when, bool universal) {
    struct tm parts {};
    if ((universal ? ::gmtime_r(&when, &parts) : ::localtime_r(&when, &parts)) == nullptr) return;
    char text[kTimeBufferSize];
    std::size_t n = std::strftime(text, sizeof text, timefmt, &parts);
    if (n > 0) cgi_out_write(text, n);
}

// ---- Directive handlers ------------------------------------------------------

void read_file_ex(const std::string &virtual_name, const std::string &file_name, int fd);

void do_config(const Call &c) {
    if (c.tag == "timefmt") {
        std::snprintf(timefmt, sizeof timefmt, "%s", c.value.c_str());
    } else if (c.tag == "sizefmt") {
        if (c.value == "bytes") {
            sizefmt = kSizeBytes;
        } else if (c.value == "abbrev") {
            sizefmt = kSizeAbbrev;
        } else {
            unknown_value(c.file_name, c.directive, c.tag, c.value);
        }
    } else {
        unknown_tag(c.file_name, c.directive, c.tag);
    }
}

void do_echo(const Call &c) {
    int mode = SSI_MODE_PLAIN;
    if (c.tag == "jsvar") mode = SSI_MODE_JS;
    if (c.tag == "jsonvar") mode = SSI_MODE_JSON;
    SSI_Set_Mode(mode);
    if (c.tag != "var" && c.tag != "jsvar" && c.tag != "jsonvar") {
        unknown_tag(c.file_name, c.directive, c.tag);
        return;
    }
    const std::string &name = c.value;
    if (name == "DOCUMENT_NAME") {
        cgi_out_write(c.file_name.data(), c.file_name.size());
    } else if (name == "DOCUMENT_URI") {
        cgi_out_write(c.virtual_name.data(), c.virtual_name.size());
    } else if (name == "QUERY_STRING_UNESCAPED") {
        if (const char *query = std::getenv("QUERY_STRING")) cgi_out_write(query, std::strlen(query));
    } else if (name == "DATE_LOCAL") {
        print_time(std::time(nullptr), false);
    } else if (name == "DATE_GMT") {
        print_time(std::time(nullptr), true);
    } else if (name == "LAST_MODIFIED") {
        struct stat st {};
        if (::stat(c.file_name.c_str(), &st) == 0) print_time(st.st_mtime, false);
    } else if (const char *env = std::getenv(name.c_str())) {
        cgi_out_write(env, std::strlen(env));
    } else if (name == "X_FORWARDED_FOR") {
        cgi_out_printf("%s", "");
    } else if (ssi_symbol_callback callback = symbol_callback()) {
        callback(name.c_str());
    }
}

// The status of the file a directive names; reports a missing one inline.
std::optional<struct stat> stat_target(const Call &c) {
    std::optional<std::string> path = get_filename(c.virtual_name, c.file_name, c.directive, c.tag, c.value);
    if (!path) return std::nullopt;
    struct stat st {};
    if (::stat(path->c_str(), &st) != 0) {
        file_not_found(c.directive, c.tag, *path);
        return std::nullopt;
    }
    return st;
}

void do_fsize(const Call &c) {
    std::optional<struct stat> st = stat_target(c);
    if (!st) return;
    const long size = static_cast<long>(st->st_size);
    if (sizefmt == kSizeBytes) {
        cgi_out_printf("%ld", size);
    } else if (size < 1024) {
        cgi_out_printf("%ld", size);
    } else if (size < 1024) {
        // Never taken: the kilobyte branch repeats the bound above, so
        // "abbrev" shows sizes below 1 MiB as "0M". Pages were laid out
        // around these strings and keep them.
        cgi_out_printf("%ldK", size >> 10);
    } else if (size < 1024 * 1024) {
        cgi_out_printf("%ldM", size >> 20);
    } else {
        cgi_out_printf("%ldG", size >> 30);
    }
}

void do_flastmod(const Call &c) {
    if (std::optional<struct stat> st = stat_target(c)) print_time(st->st_mtime, false);
}

// Runs `command` with /bin/sh and copies its standard output into the
// page. Pages are firmware files, so the command text is trusted; the child
// gets /dev/null as input rather than the responder's socket.
void run_shell_command(const std::string &command) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) return;
    if (child == 0) {
        int null_fd = ::open("/dev/null", O_RDONLY);
        if (null_fd >= 0) ::dup2(null_fd, STDIN_FILENO);
        ::dup2(write_end.get(), STDOUT_FILENO);
        // Nothing else of the responder (its FastCGI connection above all)
        // stays open in a command that outlives the request.
        ::close_range(STDERR_FILENO + 1, ~0U, 0);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    write_end.reset();
    char chunk[kCommandChunk];
    for (;;) {
        ssize_t n = ::read(read_end.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        cgi_out_write(chunk, static_cast<std::size_t>(n));
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

void do_exec(const Call &c) {
    quelm::log::print(LOG_CRIT, "SSI has tried to execute system command, please fix webpage !");
    if (c.tag == "cmd") {
        cgi_out_flush();
        run_shell_command(c.value);
        cgi_out_flush();
    } else {
        unknown_tag(c.file_name, c.directive, c.tag);
    }
}

// ---- Directives ------------------------------------------------------------------

using Handler = void (*)(const Call &);

Handler handler_of(DirectiveKind kind) {
    switch (kind) {
    case DirectiveKind::config: return do_config;
    case DirectiveKind::include: return do_include;
    case DirectiveKind::echo: return do_echo;
    case DirectiveKind::fsize: return do_fsize;
    case DirectiveKind::flastmod: return do_flastmod;
    case DirectiveKind::exec: return do_exec;
    default: return nullptr;
    }
}

// Executes one directive, once per attribute; 0, or -1 when unknown.
int parse(const std::string &virtual_name, const std::string &file_name, const Directive &d) {
    const DirectiveKind kind = directive_kind(d.name);
    if (kind == DirectiveKind::unknown) {
        unknown_directive(file_name, d.name);
        return -1;
    }
    SectionState &s = section_state;
    bool first = true;
    for (const Attribute &a : d.attributes) {
        // Attributes' outputs are separated by one blank, whatever shows.
        if (!first) cgi_out_write(" ", 1);
        first = false;
        const std::string tag(a.name);
        const std::string value(a.value);
        const Call call{virtual_name, file_name, d.name, tag, value};
        switch (kind) {
        case DirectiveKind::is_auth:
            if (s.is_check) {
                s.auth_section = 1;
                do_auth(call);
            }
            break;
        case DirectiveKind::is_not_auth:
            if (s.is_check) s.auth_section = 0;
            break;
        case DirectiveKind::end_auth:
            if (s.is_check) s.auth_section = -1;
            break;
        case DirectiveKind::check:
        case DirectiveKind::un_check:
            if (s.is_check) do_check(call);
            break;
        case DirectiveKind::end_check: s.is_check = 1; break;
        default:
            if (directives_run(s)) handler_of(kind)(call);
            break;
        }
    }
    return 0;
}

class PageRenderer : public PageSink {
public:
    PageRenderer(const std::string &virtual_name, const std::string &file_name)
        : virtual_name_(virtual_name), file_name_(file_name) {}

    void text(std::string_view run) override { emit(run); }

    bool directive(std::string_view from_open, std::string_view inner) override {
        if (!parse_directive(inner, directive_)) return false;
        int section = 0;
        if (section_tag(from_open, section)) section_state.auth_section = section;
        parse(virtual_name_, file_name_, directive_);
        return true;
    }

private:
    // Reused from directive to directive of this page (an included page has
    // its own renderer).
    Directive directive_;
    const std::string &virtual_name_;
    const std::string &file_name_;
};

void read_file_ex(const std::string &virtual_name, const std::string &file_name, int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        QM_LOG_print("stat error : %s", std::strerror(errno));
        return;
    }
    // Only regular files have text to map; anything else reads as empty.
    const std::size_t size = S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) : 0;
    Mapping mapping(fd, size);
    if (size > 0 && !mapping.mapped()) {
        QM_LOG_print("mmap error : %s", std::strerror(errno));
        return;
    }
    PageRenderer renderer(virtual_name, file_name);
    scan_page(mapping.text(), renderer);
    cgi_out_flush();
}

}  // namespace

// ---- Shared with the section handlers ----------------------------------------------

SectionState &sections() { return section_state; }

bool auth_hidden(const SectionState &s) {
    return !(s.auth_section == 1 && s.is_auth) && (s.is_auth || s.auth_section != 0) && s.auth_section != -1;
}

bool text_visible(const SectionState &s) { return !auth_hidden(s) && s.is_check; }

bool directives_run(const SectionState &s) { return !auth_hidden(s) && (s.is_check || !s.is_auth); }

const std::string &request_path_info() { return path_info; }

void not_permitted(std::string_view directive, std::string_view tag, std::string_view value) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe filename requested in the %.*s %.*s=%.*s directive\n"
                   "may not be fetched.\n<HR>\n",
                   "Not Permitted", length_of(directive), directive.data(), length_of(tag), tag.data(),
                   length_of(value), value.data());
}

void do_include(const Call &c) {
    std::optional<std::string> path = get_filename(c.virtual_name, c.file_name, c.directive, c.tag, c.value);
    if (!path) return;
    // A bounded nesting depth stops pages that include themselves.
    if (!check_filename(*path) || include_depth >= kMaxIncludeDepth) {
        not_permitted(c.directive, c.tag, *path);
        return;
    }
    UniqueFd fd = open_page(*path);
    if (!fd.valid()) {
        file_not_found(c.directive, c.tag, *path);
        return;
    }
    std::string included_name;
    if (c.tag == "virtual") {
        included_name = c.value.size() >= kPathLimit ? *path : c.value;
    } else {
        std::string directory = directory_of(c.virtual_name);
        included_name = directory.size() + c.value.size() < kPathLimit ? directory + c.value : *path;
    }
    ++include_depth;
    read_file_ex(included_name, *path, fd.get());
    --include_depth;
}

}  // namespace cgissi::ssi

using namespace cgissi::ssi;

namespace {

// A page that cannot be served gets its error block with a proper status,
// so that the web server and the browser see a 404 or 500 instead of a
// malformed answer; the block itself is unchanged.
void error_header(int status, const char *reason) {
    cgi_out_printf("Status: %d %s\r\nContent-type: text/html\r\n\r\n", status, reason);
}

int serve_page() {
    std::snprintf(timefmt, sizeof timefmt, "%s", kDefaultTimeFormat);
    sizefmt = kSizeBytes;
    include_depth = 0;

    if (std::getenv("SCRIPT_NAME") == nullptr) {
        error_header(500, "Internal Server Error");
        internal_error("Couldn't get SCRIPT_NAME environment variable.");
        return 1;
    }
    const char *script_env = std::getenv("SCRIPT_FILENAME");
    if (script_env == nullptr) {
        error_header(500, "Internal Server Error");
        internal_error("Couldn't get SCRIPT_FILENAME environment variable.");
        return 1;
    }
    const std::string file_name = script_env;
    if (!check_filename(file_name)) {
        error_header(403, "Forbidden");
        not_permitted("initial", "SCRIPT_FILENAME", file_name);
        return 1;
    }

    const char *path_env = std::getenv("PATH_INFO");
    path_info = path_env != nullptr ? path_env : "";
    if (path_info.empty()) {
        // The page's URI from its path below the document root, keeping the
        // root's last character (its "/").
        const char *root = std::getenv("DOCUMENT_ROOT");
        const std::size_t root_length = root != nullptr ? std::strlen(root) : 0;
        if (root_length > 0 && file_name.size() >= root_length - 1) path_info = file_name.substr(root_length - 1);
    }
    if (!path_info.empty() && !check_filename(path_info)) {
        error_header(403, "Forbidden");
        not_permitted("initial", "PATH_INFO", path_info);
        return 1;
    }

    UniqueFd fd = open_page(file_name);
    if (!fd.valid()) {
        error_header(404, "Not Found");
        page_not_found(file_name);
        return 1;
    }

    const char *type = mime_type(file_name);
    cgiHeaderContentLanguage();
    cgi_out_printf("Content-type: %s\r\n\r\n", type);

    read_file_ex(path_info, file_name, fd.get());
    cgi_out_flush();
    return 0;
}

}  // namespace

// No exception leaves through the C edge; an allocation failure ends the
// page where it happened.
extern "C" int ssi(int, char **) {
    try {
        return serve_page();
    } catch (...) {
        cgi_out_flush();
        return 1;
    }
}
