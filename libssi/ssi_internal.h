// Internals of the SSI page engine shared by its files and its tests.
//
// The parsing pieces here are pure: bytes in, results out, no I/O, so that
// they can be tested and fuzzed on their own.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cgissi::ssi {

// Fixed limits of the engine, in bytes unless stated.
constexpr std::size_t kDirectiveBufferSize = 1024;  // directive text between "#" and "-->", with terminator
constexpr std::size_t kMaxAttributes = 200;         // further attributes of a directive are ignored
constexpr std::size_t kPathLimit = 1000;            // resolved include paths, with terminator
constexpr std::size_t kTimeFormatSize = 100;        // "config timefmt", with terminator
constexpr std::size_t kTimeBufferSize = 500;        // one formatted date
constexpr int kMaxIncludeDepth = 16;                // nested includes below the page itself
constexpr std::size_t kLevelSize = 64;              // isAuth level, block-user name
constexpr std::size_t kCheckFieldSize = 64;         // check: expected value, include kind and path
constexpr std::size_t kSessionValueSize = 64;       // session USER, PASSWORD, REMOTE_ADDR
constexpr std::size_t kServicesSize = 256;          // session SERVICES
constexpr std::size_t kAuthorizationSize = 256;     // "Embedded username=... password=..."

// ---- Directive text ----------------------------------------------------

struct Attribute {
    std::string_view name;
    std::string_view value;  // without its surrounding double quotes
};

struct Directive {
    std::string_view name;
    std::vector<Attribute> attributes;  // at most kMaxAttributes
};

// Splits the text between "#" and "-->" into the directive name and its
// name=value attributes; views point into `text`, which stops at its first
// NUL. A double quote opens a quoted run up to the next double quote, and
// the byte right after that closing quote always ends the token (it is
// dropped). Returns false when a quote is never closed: the directive is
// then not one and its text is shown as it is.
bool parse_directive(std::string_view text, Directive &out);

enum class DirectiveKind {
    config,
    include,
    echo,
    fsize,
    flastmod,
    exec,
    is_auth,
    is_not_auth,
    end_auth,
    check,
    end_check,
    un_check,
    unknown
};
DirectiveKind directive_kind(std::string_view name);

// ---- Page scanning -----------------------------------------------------

// Receives the runs of a page in order. directive() gets the page from the
// "<!--" of the directive on and the text between "#" and "-->" (at most
// kDirectiveBufferSize - 1 bytes); it returns false when that text is not a
// directive after all, and the whole "<!--#...-->" is then passed on as
// text. Concatenating every text run and every accepted directive gives
// back the page.
class PageSink {
public:
    virtual ~PageSink() = default;
    virtual void text(std::string_view run) = 0;
    virtual bool directive(std::string_view from_open, std::string_view inner) = 0;
};

// Never reads outside `page`, which needs no terminator.
void scan_page(std::string_view page, PageSink &sink);

// Section tags recognised at every "<!--#", blank included:
// "<!--#isNotAuth " 0, "<!--#isAuth " 1, "<!--#endAuth " -1.
// Returns true and sets `section` when `from_open` begins with one.
bool section_tag(std::string_view from_open, int &section);

// ---- Paths -------------------------------------------------------------

// CGI_PATTERN matching: alternatives separated by "|"; "?" one character,
// "*" a run without "/", "**" any run. Polynomial in both lengths.
bool match(std::string_view pattern, std::string_view text);

// Content type of a page by the text after the last "." of its name;
// "text/plain" when no row matches.
const char *mime_type(std::string_view file_name);
std::size_t mime_table_size();

// ---- Engine state --------------------------------------------------------

// Section state shared by a page and everything it includes; kept for the
// life of the process (a page must close its sections).
struct SectionState {
    int auth_section = -1;  // -1 outside, 1 in isAuth, 0 in isNotAuth
    int is_auth = 0;        // last isAuth found the visitor authorised
    int is_check = 1;       // 0 inside a check section that fired
};
SectionState &sections();

// Auth-hidden: in an isAuth section without authorisation, or in an
// isNotAuth section with it.
bool auth_hidden(const SectionState &s);
// Page text is written.
bool text_visible(const SectionState &s);
// config, include, echo, fsize, flastmod and exec run. Inside a fired check
// section an unauthenticated visitor still gets directives executed while
// text is dropped; pages in the field rely on this.
bool directives_run(const SectionState &s);

// Handler arguments: the page being read and the directive's attribute.
struct Call {
    const std::string &virtual_name;  // URI of the page being read
    const std::string &file_name;     // its file-system path
    std::string_view directive;
    const std::string &tag;           // attribute name
    const std::string &value;         // attribute value
};

void do_include(const Call &call);
void do_auth(const Call &call);
void do_check(const Call &call);

// The request's PATH_INFO (or its stand-in derived from the document root).
const std::string &request_path_info();

// Inline error blocks.
void not_permitted(std::string_view directive, std::string_view tag, std::string_view value);

}  // namespace cgissi::ssi
