// Text placed inside a quoted JavaScript string of an inline <script>.
//
// The value can neither end the string (quotes, backslash, line breaks,
// including U+2028 and U+2029) nor the script element ("</script>" needs a
// "<"), whatever bytes it holds; the browser reads back the same string.
#pragma once

#include <string>
#include <string_view>

namespace quelm {

inline void append_script_string(std::string &out, std::string_view text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    constexpr std::string_view kLineSeparator = "\xE2\x80\xA8";       // U+2028
    constexpr std::string_view kParagraphSeparator = "\xE2\x80\xA9";  // U+2029
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const std::string_view rest = text.substr(i);
        if (rest.starts_with(kLineSeparator) || rest.starts_with(kParagraphSeparator)) {
            out += rest[2] == kLineSeparator[2] ? "\\u2028" : "\\u2029";
            i += kLineSeparator.size() - 1;
        } else if (c == '\\' || c == '"' || c == '\'') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F || c == '<' || c == '>') {
            out += "\\u00";
            out += kDigits[c >> 4];
            out += kDigits[c & 0x0F];
        } else {
            out += static_cast<char>(c);
        }
    }
}

inline std::string script_string(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    append_script_string(out, text);
    return out;
}

}  // namespace quelm
