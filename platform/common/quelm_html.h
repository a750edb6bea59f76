// Text placed into HTML: the four bytes that can end an element, an
// attribute value or an entity become entities.
#pragma once

#include <string>
#include <string_view>

namespace quelm {

// The entity for one byte, or empty when the byte is written as it is.
constexpr std::string_view html_entity(char byte) {
    switch (byte) {
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '&': return "&amp;";
    case '"': return "&quot;";
    default: return {};
    }
}

inline std::string html_escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const std::string_view entity = html_entity(c);
        if (entity.empty()) {
            out.push_back(c);
        } else {
            out.append(entity);
        }
    }
    return out;
}

}  // namespace quelm
