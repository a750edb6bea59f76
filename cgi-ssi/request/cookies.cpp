// Cookie lookup in the request's Cookie header (the cgiCookie global).
#include <cstring>
#include <string_view>
#include <vector>

#include "cgic.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_text.h"
#include "request/request_internal.h"

namespace cgissi::request {
namespace {

// C's isspace set, as the header has always been read.
constexpr bool is_space(char c) { return quelm::is_c_space(c); }

std::string_view cookie_header() { return cgiCookie != nullptr ? std::string_view(cgiCookie) : std::string_view(); }

}  // namespace

bool find_cookie(std::string_view header, std::string_view name, std::string_view *value) {
    std::size_t pos = 0;
    for (;;) {
        std::string_view rest = header.substr(pos);
        if (rest.size() > name.size() && rest.starts_with(name) && rest[name.size()] == '=') {
            rest.remove_prefix(name.size() + 1);
            *value = rest.substr(0, rest.find(';'));
            return true;
        }
        std::size_t semicolon = rest.find(';');
        if (semicolon == std::string_view::npos) return false;
        pos += semicolon + 1;
        while (pos < header.size() && is_space(header[pos])) ++pos;
    }
}

}  // namespace cgissi::request

using namespace cgissi::request;

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" cgiFormResultType cgiCookieString(const char *name, char *result, int max) {
    std::string_view value;
    if (name == nullptr || !find_cookie(cookie_header(), name, &value)) {
        if (result != nullptr && max > 0) result[0] = '\0';
        return cgiFormNotFound;
    }
    if (max <= 0) return value.empty() ? cgiFormSuccess : cgiFormTruncated;
    std::size_t room = static_cast<std::size_t>(max) - 1;
    std::size_t n = value.size() < room ? value.size() : room;
    std::memcpy(result, value.data(), n);
    result[n] = '\0';
    return n < value.size() ? cgiFormTruncated : cgiFormSuccess;
}

extern "C" cgiFormResultType cgiCookieInteger(const char *name, int *result, int defaultV) {
    char buffer[kCookieIntegerSize];
    cgiFormResultType code = cgiCookieString(name, buffer, sizeof buffer);
    *result = code == cgiFormSuccess ? leading_int(buffer) : defaultV;
    return code;
}

extern "C" cgiFormResultType cgiCookies(char ***ptrToStringArray) {
    return quelm::guarded(cgiFormMemory, __func__, [&]() -> cgiFormResultType {
        // Names are the text before "=" of each ";"-separated cookie, leading
        // white space skipped; a cookie without "=" or without a name is no name.
        *ptrToStringArray = nullptr;
        std::vector<std::string_view> names;
        quelm::split(cookie_header(), ';', [&](std::string_view cookie) {
            while (!cookie.empty() && is_space(cookie.front())) cookie.remove_prefix(1);
            std::size_t equals = cookie.find('=');
            if (equals != std::string_view::npos && equals != 0) names.push_back(cookie.substr(0, equals));
        });
        return string_array(names, ptrToStringArray);
    });
}
