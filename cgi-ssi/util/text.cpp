// In-place string helpers, field extractors for command output and status
// files, and the list text of the data model.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "qm_config.h"
#include "qm_util.h"
#include "quelm_chars.h"
#include "quelm_owned.h"
#include "quelm_text.h"
#include "util/text_scan.h"

namespace {

using quelm::util::hex_value;
using quelm::util::is_digit;

constexpr char kItemSep = QM_LIST_ITEM_SEP;
constexpr char kFieldSep = QM_LIST_FIELD_SEP;
// get_list_int_component reads the component into a buffer of this size.
constexpr std::size_t kIntComponentSize = 32;

constexpr bool is_blank(char c) { return quelm::is_space_or_tab(c); }

// Positions come in as const (strchr convention); the caller owns the text.
char *mutable_pos(const char *p) { return const_cast<char *>(p); }

// Bounded copy into a caller's buffer of size bytes: keeps what fits of
// size - 1 characters, terminated after every byte. A size of 0 leaves out
// untouched.
class Sink {
public:
    Sink(char *out, std::size_t size) : out_(out), cap_(size > 0 ? size - 1 : 0) {
        if (size > 0) out_[0] = '\0';
    }

    void put(char c) {
        if (len_ >= cap_) return;
        out_[len_++] = c;
        out_[len_] = '\0';
    }

private:
    char *out_;
    std::size_t cap_;
    std::size_t len_ = 0;
};

// Consumes the run of bytes accepted by take, copying what fits.
template <typename Take>
char *extract_while(const char *pos, char *out, std::size_t size, Take take) {
    Sink sink(out, size);
    for (; *pos != '\0' && take(*pos); ++pos) sink.put(*pos);
    return mutable_pos(pos);
}

template <typename Digit>
char *extract_number(const char *pos, int *out, unsigned base, Digit digit) {
    // Unsigned arithmetic: the value wraps instead of overflowing.
    unsigned value = 0;
    for (int d; (d = digit(*pos)) >= 0; ++pos) value = value * base + static_cast<unsigned>(d);
    *out = static_cast<int>(value);
    return mutable_pos(pos);
}

template <typename Change>
char *change_each(char *text, Change change) {
    for (char *p = text; *p != '\0'; ++p) *p = change(*p);
    return text;
}

}  // namespace

namespace quelm::util {

int next_list_index(std::string_view indices) {
    int largest = 0;
    quelm::split(indices, ',', [&](std::string_view field) {
        // Indices are plain decimal numbers; anything else counts as 0.
        while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
        int value = 0;
        for (char c : field) {
            if (!is_digit(c)) break;
            value = value > (INT_MAX - (c - '0')) / 10 ? INT_MAX : value * 10 + (c - '0');
        }
        largest = std::max(largest, value);
    });
    if (largest == INT_MAX) return -1;
    // Instances created through the web are numbered from 1001 on, clear of
    // those the platform numbers from 1; existing configurations depend on it.
    return largest >= kFirstWebIndex - 1 ? largest + 1 : kFirstWebIndex;
}

}  // namespace quelm::util

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" char *str_replace(char *text, char from, char to) {
    return change_each(text, [from, to](char c) { return c == from ? to : c; });
}

extern "C" char *str_lowercase(char *text) {
    return change_each(text, [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
}

extern "C" char *str_uppercase(char *text) {
    return change_each(text, [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c; });
}

extern "C" char *str_trim(char *text) {
    std::size_t lead = 0;
    while (is_blank(text[lead])) ++lead;
    std::size_t len = std::strlen(text + lead);
    std::memmove(text, text + lead, len + 1);
    // The first character is never looked at from the end.
    while (len > 1 && is_blank(text[len - 1])) --len;
    text[len] = '\0';
    return text;
}

extern "C" char *text_extract_int(const char *pos, int *out) {
    return extract_number(pos, out, 10, [](char c) { return is_digit(c) ? c - '0' : -1; });
}

extern "C" char *text_extract_hex(const char *pos, int *out) {
    return extract_number(pos, out, 16, hex_value);
}

extern "C" char *text_extract_ip(const char *pos, char *out, size_t size) {
    return extract_while(pos, out, size, [](char c) { return is_digit(c) || c == '.'; });
}

extern "C" char *text_extract_ipmask(const char *pos, char *out, size_t size) {
    return extract_while(pos, out, size, [](char c) { return is_digit(c) || c == '.' || c == '/'; });
}

extern "C" char *text_extract_mac(const char *pos, char *out, size_t size) {
    return extract_while(pos, out, size, [](char c) { return hex_value(c) >= 0 || c == ':'; });
}

extern "C" char *text_extract_string(const char *pos, char *out, size_t size) {
    return extract_while(pos, out, size, [](char c) { return !is_blank(c); });
}

extern "C" char *text_extract_stringuntilmark(const char *pos, char *out, size_t size, char mark) {
    return extract_while(pos, out, size, [mark](char c) { return c != mark && !is_blank(c); });
}

extern "C" char *text_extract_date(const char *pos, char *out, size_t size, int words) {
    Sink sink(out, size);
    while (*pos == ' ') ++pos;
    for (int w = 0; w < words; ++w) {
        if (w > 0) {
            // pos is at the blanks after the previous word; they become one
            // blank only when another word follows on this field.
            const char *next = pos;
            while (*next == ' ') ++next;
            if (*next == '\0' || *next == '\t') break;
            sink.put(' ');
            pos = next;
        }
        for (; *pos != '\0' && !is_blank(*pos); ++pos) sink.put(*pos);
        if (*pos != ' ') break;
    }
    return mutable_pos(pos);
}

extern "C" char *text_skip_endoffield(const char *pos) {
    while (*pos != '\0' && !is_blank(*pos)) ++pos;
    return mutable_pos(pos);
}

extern "C" char *text_skip_separator(const char *pos) {
    while (*pos == ' ') ++pos;
    if (*pos == '\t') ++pos;
    return mutable_pos(pos);
}

extern "C" char *text_skip_untilmark(const char *pos, char mark) {
    while (*pos != '\0' && *pos != mark) ++pos;
    return mutable_pos(pos);
}

extern "C" char *get_first_listitem(const char *text) {
    return text != nullptr && *text != '\0' ? mutable_pos(text) : nullptr;
}

extern "C" char *get_next_listitem(const char *item) {
    if (item == nullptr) return nullptr;
    const char *sep = std::strchr(item, kItemSep);
    if (sep == nullptr || sep[1] == '\0') return nullptr;
    return mutable_pos(sep + 1);
}

extern "C" char *get_list_str_component(const char *pos, char *out, size_t max) {
    if (pos == nullptr) {
        out[0] = '\0';
        return nullptr;
    }
    const auto in_component = [](char c) { return c != '\0' && c != kFieldSep && c != kItemSep; };
    std::size_t len = 0;
    for (; in_component(*pos); ++pos) {
        if (len < max) out[len++] = *pos;
    }
    out[len] = '\0';
    // The item separator ends the item and is left for get_next_listitem.
    if (*pos == kFieldSep) ++pos;
    return mutable_pos(pos);
}

extern "C" char *get_list_int_component(const char *pos, int *out, int fallback) {
    char text[kIntComponentSize];
    char *next = get_list_str_component(pos, text, sizeof text - 1);
    const char *p = text;
    if (!quelm::util::scan_int(p, *out)) *out = fallback;
    return next;
}

extern "C" int new_list_index(const char *object) {
    quelm::MallocString indices(QM_DAT_getobjcount(object));
    return quelm::util::next_list_index(indices ? std::string_view(indices.get()) : std::string_view());
}
