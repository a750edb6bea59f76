// Response header writers. Their bytes are kept exactly as they are on
// purpose: the gateway's pages and plugins depend on them.
#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>

#include "cgi_output.h"
#include "cgic.h"
#include "quelm_chars.h"
#include "quelm_escape.h"
#include "quelm_guard.h"
#include "request/variables.h"

namespace {

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

// Text that may stand in a header line: printable ASCII only, so that no
// line break (from a request value passed on) can add header lines.
bool is_header_text(const char *text) {
    const std::string_view view = text_or_empty(text);
    return std::all_of(view.begin(), view.end(), quelm::is_printable_ascii);
}

bool are_header_texts(std::initializer_list<const char *> texts) {
    return std::all_of(texts.begin(), texts.end(), is_header_text);
}

// No blank line goes out before the header block, not even before the first
// request of a process has been set up (firstCookie 0, e.g. after a failed
// upload): it would end the block at once, and the web server would answer
// 200 with the status line in the body.
void begin_header() {}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" void cgiHeaderContentLanguage(void) {
    const char *value = cgissi::request::variable(cgissi::request::Variable::HttpAcceptLanguage);
    if (value == nullptr) return;
    if (!is_header_text(value)) return;
    // compat: the header name in capitals, as pages have always been sent it.
    cgi_out_printf("CONTENT-LANGUAGE: %s\r\n", value);
}

extern "C" void cgiHeaderContentType(const char *mimeType) {
    begin_header();
    cgi_out_printf("Content-type: %s\r\n\r\n", text_or_empty(mimeType));
}

extern "C" void cgiHeaderStatus(int status, const char *statusMessage) {
    begin_header();
    cgi_out_printf("Status: %d %s\r\n\r\n", status, text_or_empty(statusMessage));
}

// The redirect is done by a script in the page, not by a Location header;
// the content type header writes the leading blank line when one is due.
// The target comes from the form or the referer: it is escaped so that it
// stays inside the script's string (ordinary URLs keep their bytes).
extern "C" void cgiHeaderLocation(const char *redirectUrl) {
    quelm::guarded(__func__, [&] {
        const std::string target = quelm::script_string(text_or_empty(redirectUrl));
        cgiHeaderContentType("text/html");
        cgi_out_printf("<HTML>\n");
        cgi_out_printf("<script>\r\ndocument.location.replace(\"%s\");\r\n</script>\r\n", target.c_str());
        cgi_out_printf("</HTML>\n");
    });
}

// Cookie lines do not end the header block and ignore firstCookie. A cookie
// whose texts are not all header text is not set.
extern "C" void cgiHeaderCookieSetString(const char *name, const char *value, int secondsToLive, const char *path,
                                         const char *domain) {
    if (!are_header_texts({name, value, path, domain})) return;
    cgi_out_printf("Set-Cookie: %s=%s; Domain=%s; Max-Age=%d; Path=%s; \r\n", text_or_empty(name),
                   text_or_empty(value), text_or_empty(domain), secondsToLive, text_or_empty(path));
}

extern "C" void cgiHeaderCookieSetInteger(const char *name, int value, int secondsToLive, const char *path,
                                          const char *domain) {
    if (!are_header_texts({name, path, domain})) return;
    cgi_out_printf("Set-Cookie: %s=%d; Domain=%s; Max-Age=%d; Path=%s; \r\n", text_or_empty(name), value,
                   text_or_empty(domain), secondsToLive, text_or_empty(path));
}
