// Small text helpers shared by every layer: bounded copies, splitting a
// list, hex.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "quelm_chars.h"

namespace quelm {

// Copies text into out (size bytes), cut to fit and always terminated: what
// snprintf(out, size, "%s", text) writes, without the formatter. Nothing is
// written when size is 0.
inline void copy_cut(char *out, std::size_t size, std::string_view text) {
    if (size == 0) return;
    const std::size_t n = std::min(text.size(), size - 1);
    std::memmove(out, text.data(), n);
    out[n] = '\0';
}

// Calls each(item) for every item of `list` separated by `delimiter`, empty
// items included ("a,,b" gives "a", "", "b"; "" gives one empty item).
// Stops early and returns false when each returns false; callbacks that
// return nothing visit every item.
template <class Each>
bool split(std::string_view list, char delimiter, Each &&each) {
    for (;;) {
        const std::size_t end = list.find(delimiter);
        const std::string_view item = list.substr(0, end);
        if constexpr (std::is_same_v<decltype(each(item)), bool>) {
            if (!each(item)) return false;
        } else {
            each(item);
        }
        if (end == std::string_view::npos) return true;
        list.remove_prefix(end + 1);
    }
}

enum class HexCase { lower, upper };

// Two hex digits per byte.
inline std::string hex_encode(std::string_view bytes, HexCase letter_case = HexCase::lower) {
    const char *digits = letter_case == HexCase::lower ? "0123456789abcdef" : "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 0x0f]);
    }
    return out;
}

// Decodes pairs of hex digits (either case) into bytes. False, with `out`
// unspecified, for an odd length or a byte that is not a hex digit.
inline bool hex_decode(std::string_view hex, std::string &out) {
    if (hex.size() % 2 != 0) return false;
    out.clear();
    out.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = hex_value(hex[i]);
        const int low = hex_value(hex[i + 1]);
        if (high < 0 || low < 0) return false;
        out.push_back(static_cast<char>(high * 16 + low));
    }
    return true;
}

}  // namespace quelm
