// The Cookie header's accessors and the response header writers that pass
// request text on (Content-Language, cookies, the script redirect).
//
// Input: the Cookie header up to the first "\n", a cookie name up to the
// next, then a text that the header writers get as a value.
#include <cstring>
#include <string>
#include <vector>

#include "cgic.h"
#include "fuzz_support.h"
#include "request/request_internal.h"

namespace {

using cgissi::request::find_cookie;

// Small, so that truncation is common.
constexpr int kCookieResultSize = 8;

void read_cookies(const std::string &header, const std::string &name) {
    std::string_view value;
    if (find_cookie(header, name, &value)) {
        fuzz::require(value.data() >= header.data() && value.data() + value.size() <= header.data() + header.size(),
                      "a cookie value outside its header");
        fuzz::require(value.find(';') == std::string_view::npos, "a cookie value holding ';'");
    }
    cgiCookie = header.c_str();
    char result[kCookieResultSize];
    std::memset(result, 'x', sizeof result);
    cgiCookieString(name.c_str(), result, sizeof result);
    fuzz::require(std::memchr(result, '\0', sizeof result) != nullptr, "cgiCookieString left its result unterminated");
    int number = 0;
    cgiCookieInteger(name.c_str(), &number, 7);
    char **names = nullptr;
    if (cgiCookies(&names) == cgiFormSuccess) {
        for (char **p = names; *p != nullptr; ++p)
            fuzz::require(**p != '\0' && std::strchr(*p, ';') == nullptr, "a cookie name empty or holding ';'");
        cgiStringArrayFree(names);
    }
    cgiCookie = "";
}

// Header lines are whole: no CR or LF inside a line, every line ends CR LF.
void require_whole_lines(std::string_view head) {
    while (!head.empty()) {
        const std::size_t end = head.find("\r\n");
        fuzz::require(end != std::string_view::npos, "a header line without CR LF");
        const std::string_view line = head.substr(0, end);
        fuzz::require(line.find_first_of("\r\n") == std::string_view::npos, "a line break inside a header line");
        head.remove_prefix(end + 2);
    }
}

void write_headers(const std::string &value) {
    ::setenv("HTTP_ACCEPT_LANGUAGE", value.c_str(), 1);
    require_whole_lines(fuzz::captured([] { cgiHeaderContentLanguage(); }));
    require_whole_lines(fuzz::captured([&] { cgiHeaderCookieSetString("n", value.c_str(), 60, "/", "d"); }));
    require_whole_lines(fuzz::captured([&] { cgiHeaderCookieSetInteger(value.c_str(), 1, 60, value.c_str(), "d"); }));
    const std::string page = fuzz::captured([&] { cgiHeaderLocation(value.c_str()); });
    // The target stands in a script string: it must not end the string or
    // the script element.
    const std::size_t open = page.find("replace(\"");
    const std::size_t close = page.rfind("\");");
    fuzz::require(open != std::string::npos && close != std::string::npos && close >= open + 9,
                  "the redirect script lost its string");
    const std::string_view target = std::string_view(page).substr(open + 9, close - open - 9);
    fuzz::require(target.find_first_of("<>\r\n") == std::string_view::npos, "a raw < > or line break in the target");
    for (std::size_t i = 0; i < target.size(); ++i) {
        if (target[i] == '\\') {
            ++i;
            continue;
        }
        fuzz::require(target[i] != '"', "an unescaped quote ends the redirect string");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    cgiSetupConstants();
    firstCookie = 1;  // no leading blank line: the header block starts at once
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > 1 << 14) return 0;
    std::string_view rest = fuzz::text_of(data, size);
    const std::string header(fuzz::take_until(rest, '\n'));
    const std::string name(fuzz::take_until(rest, '\n'));
    const std::string value(rest);
    read_cookies(header, name);
    if (value.find('\0') == std::string::npos) write_headers(value);
    return 0;
}
