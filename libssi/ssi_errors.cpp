// The error blocks a page render writes in place of what it could not do.
// compat: the texts are byte-exact (pages' scripts and support tools look
// for them); only the names inside are escaped, since a page's path comes
// from the request as the web server decoded it.
#include <string>
#include <string_view>

#include "cgi_output.h"
#include "quelm_html.h"
#include "ssi_render.h"

namespace cgissi::ssi {
namespace {

// A name as it may appear in the block: HTML-escaped.
class Shown {
public:
    explicit Shown(std::string_view name) : text_(quelm::html_escape(name)) {}
    const char *c_str() const { return text_.c_str(); }
    const std::string &text() const { return text_; }

private:
    std::string text_;
};

// The opening of the blocks that are the whole answer.
void page_head(const char *title) {
    cgi_out_printf("<HTML>\n<HEAD>\n<TITLE>%s</TITLE>\n"
                   "<meta http-equiv=Content-Type content=\"text/html; charset=iso-8859-1\">\n"
                   "</HEAD>\n<BODY><H2>%s</H2>\n",
                   title, title);
}

// The opening of the blocks about a page's own directives.
void unknown_head(const char *title, std::string_view file_name) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe requested server-side-includes filename, %s,\n", title,
                   Shown(file_name).c_str());
}

}  // namespace

void internal_error(const char *reason) {
    page_head("500 Internal Error");
    cgi_out_printf("Something unusual went wrong during a server-side-includes request:\n"
                   "<BLOCKQUOTE>\n%s\n</BLOCKQUOTE>\n</BODY></HTML>\n",
                   reason);
}

void page_not_found(std::string_view file_name) {
    page_head("404 Not Found");
    cgi_out_printf("The requested server-side-includes filename, %s,\ndoes not seem to exist.\n"
                   "</BODY></HTML>\n",
                   Shown(file_name).c_str());
}

namespace {

// The inline block about one directive's file: "<HR><H2>title</H2>",
// "The filename requested in <where>", then <outcome> and "<HR>".
void directive_file_block(const char *title, const std::string &where, const char *outcome) {
    cgi_out_printf("<HR><H2>%s</H2>\nThe filename requested in %s\n%s\n<HR>\n", title, where.c_str(), outcome);
}

}  // namespace

void not_permitted(std::string_view directive, std::string_view tag, std::string_view value) {
    directive_file_block("Not Permitted",
                         "the " + Shown(directive).text() + " " + Shown(tag).text() + "=" + Shown(value).text() +
                             " directive",
                         "may not be fetched.");
}

void file_not_found(std::string_view directive, std::string_view tag, std::string_view path) {
    directive_file_block("Not Found",
                         "a " + Shown(directive).text() + " " + Shown(tag).text() + " directive, " +
                             Shown(path).text() + ",",
                         "does not seem to exist.");
}

void unknown_directive(std::string_view file_name, std::string_view directive) {
    unknown_head("Unknown Directive", file_name);
    cgi_out_printf("tried to use an unknown directive, %s.\n<HR>\n", Shown(directive).c_str());
}

void unknown_tag(std::string_view file_name, std::string_view directive, std::string_view tag) {
    unknown_head("Unknown Tag", file_name);
    cgi_out_printf("tried to use the directive %s with an unknown tag, %s.\n<HR>\n", Shown(directive).c_str(),
                   Shown(tag).c_str());
}

void unknown_value(std::string_view file_name, std::string_view directive, std::string_view tag,
                   std::string_view value) {
    unknown_head("Unknown Value", file_name);
    cgi_out_printf("tried to use the directive %s %s with an unknown value, %s.\n<HR>\n", Shown(directive).c_str(),
                   Shown(tag).c_str(), Shown(value).c_str());
}

}  // namespace cgissi::ssi
