// Character classes of the gateway's text formats, by the exact set each
// one accepts. Bytes are taken as they come: nothing from 128 up belongs to
// any class, and no locale is consulted.
#pragma once

#include <climits>
#include <string_view>

namespace quelm {

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
constexpr bool is_ascii_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool is_ascii_alnum(char c) { return is_digit(c) || is_ascii_alpha(c); }
// 'A'-'Z' as 'a'-'z'; every other byte as it is (tolower in the "C" locale).
constexpr char ascii_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
// Whether a and b are the same bytes once both are folded by ascii_lower.
constexpr bool equal_ascii_no_case(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
    }
    return true;
}

// ' ' and '\t'.
constexpr bool is_space_or_tab(char c) { return c == ' ' || c == '\t'; }
// ' ', '\t', '\r' and '\n' (not '\v' or '\f').
constexpr bool is_space_tab_cr_lf(char c) { return is_space_or_tab(c) || c == '\r' || c == '\n'; }
// The six bytes of C's isspace in the "C" locale: ' ', '\t', '\n', '\v', '\f', '\r'.
constexpr bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Printable ASCII without the blank (33-126) and with it (32-126).
constexpr bool is_graphic_ascii(char c) { return c > ' ' && c <= '~'; }
constexpr bool is_printable_ascii(char c) { return c >= ' ' && c <= '~'; }

// The C0 controls (0-31) and DEL (127).
constexpr bool is_ascii_control(char c) { return (c >= '\0' && c < ' ') || c == '\x7f'; }

// 0-15 for a hex digit of either case, else -1.
constexpr int hex_value(char c) {
    if (is_digit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// strtol(text, &end, 10) as the "C" locale reads it, without the library's
// locale look-ups: leading C spaces, an optional sign, decimal digits;
// beyond the range of long, LONG_MAX or LONG_MIN. Without digits the value
// is 0 and *end is text.
constexpr long parse_long(const char *text, const char **end) {
    const char *p = text;
    while (is_c_space(*p)) ++p;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    if (!is_digit(*p)) {
        *end = text;
        return 0;
    }
    const unsigned long limit = negative ? static_cast<unsigned long>(LONG_MAX) + 1 : LONG_MAX;
    unsigned long magnitude = 0;
    bool overflow = false;
    for (; is_digit(*p); ++p) {
        const auto digit = static_cast<unsigned long>(*p - '0');
        if (overflow || magnitude > (limit - digit) / 10) {
            overflow = true;
        } else {
            magnitude = magnitude * 10 + digit;
        }
    }
    *end = p;
    if (overflow) return negative ? LONG_MIN : LONG_MAX;
    if (!negative) return static_cast<long>(magnitude);
    return magnitude == limit ? LONG_MIN : -static_cast<long>(magnitude);
}

}  // namespace quelm
