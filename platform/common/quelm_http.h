// HTTP status texts for the header blocks the gateway writes itself.
#pragma once

#include <cstddef>
#include <string_view>

namespace quelm {

// Reason phrase of an HTTP status; "Error" for one the gateway never sends.
constexpr const char *reason_phrase(int status) {
    switch (status) {
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Error";
    }
}

// Length of a leading "http://" or "https://"; 0 for any other scheme.
constexpr std::size_t http_scheme_length(std::string_view url) {
    if (url.starts_with("http://")) return 7;
    if (url.starts_with("https://")) return 8;
    return 0;
}

}  // namespace quelm
