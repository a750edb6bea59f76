// The names that sessions and access tokens share: what mkstemp puts in
// place of "XXXXXX". A token from a request becomes part of a path only
// once it is exactly that, so no file outside the store is ever named.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "quelm_chars.h"

namespace cgissi::session {

constexpr std::size_t kTokenLength = 6;

// Exactly six ASCII letters or digits.
constexpr bool valid_token(std::string_view token) {
    return token.size() == kTokenLength && std::all_of(token.begin(), token.end(), quelm::is_ascii_alnum);
}

}  // namespace cgissi::session
