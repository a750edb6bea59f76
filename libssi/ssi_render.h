// Rendering one SSI page: the state of a render, the gates of its sections
// and the directive handlers that act on it.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "quelm_folder_watch.h"
#include "quelm_owned.h"
#include "ssi_parse.h"

namespace cgissi::ssi {

// Fixed limits of a render.
constexpr std::size_t kTimeFormatSize = 100;  // "config timefmt" in bytes, with terminator
constexpr int kMaxIncludeDepth = 16;          // nested includes below the page itself
constexpr int kMaxIncludes = 256;             // includes of one page render, at any depth

// Sections of a page and everything it includes.
struct SectionState {
    int auth_section = -1;  // -1 outside, 1 in isAuth, 0 in isNotAuth
    int is_auth = 0;        // last isAuth found the visitor authorised
    int is_check = 1;       // 0 inside a check section that fired
};

// Page text is written.
bool text_visible(const SectionState &s);
// config, include, echo, fsize, flastmod and exec run.
// compat: inside a fired check section an unauthenticated visitor still
// gets directives executed while text is dropped; pages in the field rely
// on this.
bool directives_run(const SectionState &s);

enum class SizeFormat { bytes, abbrev };

// What one page render (one ssi() call) computes: created with the render
// and dropped with it, so nothing of one visitor's page reaches the next.
struct RenderContext {
    SectionState sections;
    std::string path_info;  // the request's PATH_INFO, or its stand-in from the document root
    char time_format[kTimeFormatSize] = {};
    SizeFormat size_format = SizeFormat::bytes;
    int include_depth = 0;  // includes open below the requested page
    int include_count = 0;  // includes opened so far
};

// Handler arguments: the render, the page being read and the directive's
// attribute.
struct Call {
    RenderContext &page;
    const std::string &virtual_name;  // URI of the page being read
    const std::string &file_name;     // its file-system path
    const struct stat &file_status;   // that file's status, taken when it was opened
    std::string_view directive;
    const std::string &tag;           // attribute name
    const std::string &value;         // attribute value
};

// A page file to render. Pages up to kKeptPageLimit bytes are kept between
// requests, text and directives already cut apart: while a status call
// finds the file unchanged (and its last change had settled when it was
// read), the kept page is rendered and the file is not opened again.
constexpr std::size_t kKeptPageLimit = 16 * 1024;
struct ScannedPage;
class PageSource {
public:
    explicit PageSource(const std::string &path);
    // False when the file could not be opened.
    bool ok() const { return kept_ != nullptr || fd_; }
    // Copies the page to the response, executing its directives.
    void render(RenderContext &page, const std::string &virtual_name, const std::string &file_name);

private:
    struct stat status_ {};
    quelm::FolderStamp stamp_{};  // the page's folder before it was opened
    std::shared_ptr<const ScannedPage> kept_;
    quelm::UniqueFd fd_;
};

// Directive handlers, called once per attribute.
void do_config(const Call &call);
void do_echo(const Call &call);
void do_exec(const Call &call);
void do_include(const Call &call);
void do_fsize(const Call &call);
void do_flastmod(const Call &call);
void do_auth(const Call &call);
void do_check(const Call &call);

// True when the engine may read `path` as a page: no "../", and not a CGI
// program by CGI_PATTERN.
bool check_filename(std::string_view path);

// The status of the file an include, fsize or flastmod attribute names;
// a refused or missing file is reported inline and gives nothing.
std::optional<struct stat> stat_target(const Call &call);

// Writes page text (dates, sizes, environment values) in the output mode
// of the current echo: as it is in the plain mode, escaped in the string
// modes.
void write_value(std::string_view text);

// ---- Inline error blocks -------------------------------------------------
// Every name they print is HTML-escaped.

void internal_error(const char *reason);
void page_not_found(std::string_view file_name);
void not_permitted(std::string_view directive, std::string_view tag, std::string_view value);
void file_not_found(std::string_view directive, std::string_view tag, std::string_view path);
void unknown_directive(std::string_view file_name, std::string_view directive);
void unknown_tag(std::string_view file_name, std::string_view directive, std::string_view tag);
void unknown_value(std::string_view file_name, std::string_view directive, std::string_view tag,
                   std::string_view value);

}  // namespace cgissi::ssi
