// Number readers behind the validators and list helpers.
//
// They accept what scanf's %d and %x accept (leading white space, a sign,
// for %x an optional "0x"), so form values keep being judged as they always
// were, but without the C library's undefined overflow: a decimal value
// beyond int saturates and a hex value beyond 32 bits saturates, so an
// overlong number fails a range check instead of wrapping into range.
#pragma once

#include <climits>
#include <cstdint>
#include <string_view>

#include "quelm_chars.h"

namespace quelm::util {

// The character classes are the shared ones: nothing from 128 up is a
// digit, a letter or white space, and white space is C's isspace set.
using quelm::hex_value;
using quelm::is_digit;
constexpr bool is_space(char c) { return quelm::is_c_space(c); }

// %d. On success advances p past the number and returns true; on failure
// p is unspecified.
inline bool scan_int(const char *&p, int &out) {
    while (is_space(*p)) ++p;
    bool negative = false;
    if (*p == '-' || *p == '+') negative = *p++ == '-';
    if (!is_digit(*p)) return false;
    // Magnitude limit: INT_MAX, or INT_MAX + 1 for a negative value.
    const long long limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
    long long value = 0;
    for (; is_digit(*p); ++p) {
        value = value * 10 + (*p - '0');
        if (value > limit) value = limit;
    }
    out = static_cast<int>(negative ? -value : value);
    return true;
}

// %x into an unsigned value; a negative value is returned negated modulo
// 2^32 as scanf does, which no 0-255 range check accepts unless it is -0.
inline bool scan_hex(const char *&p, std::uint32_t &out) {
    while (is_space(*p)) ++p;
    bool negative = false;
    if (*p == '-' || *p == '+') negative = *p++ == '-';
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && hex_value(p[2]) >= 0) p += 2;
    if (hex_value(*p) < 0) return false;
    std::uint64_t value = 0;
    for (; hex_value(*p) >= 0; ++p) {
        value = value * 16 + static_cast<std::uint64_t>(hex_value(*p));
        if (value > UINT32_MAX) value = UINT32_MAX;
    }
    out = static_cast<std::uint32_t>(negative ? 0 - value : value);
    return true;
}

// A literal byte of a scanf format.
inline bool scan_literal(const char *&p, char c) {
    if (*p != c) return false;
    ++p;
    return true;
}

// The index new_list_index hands out for the comma-separated index list
// of a List object (empty when it has no instances).
int next_list_index(std::string_view indices);

// Smallest index given to an instance created through the web.
inline constexpr int kFirstWebIndex = 1001;

}  // namespace quelm::util
