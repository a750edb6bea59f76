// The pure parts of the SSI page engine: directive text, page scanning,
// CGI_PATTERN matching and the MIME table. Bytes in, results out, no I/O,
// so that they can be tested and fuzzed on their own.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cgissi::ssi {

// Fixed limits of the parser, in bytes.
constexpr std::size_t kDirectiveBufferSize = 1024;  // directive text between "#" and "-->", with terminator
constexpr std::size_t kMaxAttributes = 200;         // further attributes of a directive are ignored

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

}  // namespace cgissi::ssi
