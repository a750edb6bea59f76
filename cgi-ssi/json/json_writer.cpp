// JSON output with the byte layouts the pages and scripts read.
//
// compat: the answers keep the exact bytes clients have always parsed, and
// they are produced here only:
//   - keys are followed by " : " (blank, colon, blank) in data-model output
//     and by ": " in the login answer;
//   - members of a result tree are separated by ",", members of the
//     "generic.cgi" answer by ", ", and the "create" member of that answer
//     is written "name":"value" with no blank at all;
//   - inside a result tree, braces, separators and values pass through
//     ssiprintf (the escaping of the page's echo mode) while keys and the
//     double quotes around values go straight out, so a value is escaped
//     for its page and a key or quote never is;
//   - a key whose node holds no value is followed by nothing ("A" : ,);
//   - a secret keeps its leading commas and shows "********" for the rest,
//     which pages use to tell an empty secret list from a set one.
#include "json/json_writer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>

#include "cgi_output.h"
#include "ssi.h"

namespace cgissi::json {
namespace {

constexpr std::size_t kControlEscapeSize = sizeof "\\u0000";
// Small enough for the allocator's per-thread cache: most answers are short.
constexpr std::size_t kFirstBufferSize = 512;

// The bytes that strict JSON escaping replaces: '"', '\\' and control bytes.
constexpr std::array<bool, 256> kStrictEscaped = [] {
    std::array<bool, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) table[byte] = byte == '"' || byte == '\\' || byte < 0x20;
    return table;
}();

// Most bytes one byte becomes under strict escaping (\u00XX).
constexpr std::size_t kStrictGrowth = kControlEscapeSize - 1;
// Unbuffered keys and strings this small are escaped on the stack.
constexpr std::size_t kStackText = 512;

// Writes text escaped strictly at `at`, which has room for kStrictGrowth
// bytes per byte of text; returns the end of what it wrote.
char *put_escape_strict(char *at, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    // Copied as scanned: keys are mostly a few plain bytes.
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (!kStrictEscaped[byte]) {
            *at++ = c;
        } else if (byte < 0x20) {
            at = std::copy_n("\\u00", 4, at);
            *at++ = kHex[byte >> 4];
            *at++ = kHex[byte & 0xf];
        } else {
            *at++ = '\\';
            *at++ = c;
        }
    }
    return at;
}

// Writes a separator (a few bytes) at `at`; returns its end. (A loop or a
// call to memcpy costs more than the copy for these sizes.)
char *put_short(char *at, std::string_view text) {
    switch (text.size()) {
    case 3: at[2] = text[2]; [[fallthrough]];
    case 2: at[1] = text[1]; [[fallthrough]];
    case 1: at[0] = text[0]; [[fallthrough]];
    case 0: break;
    default: std::memcpy(at, text.data(), text.size()); break;
    }
    return at + text.size();
}

// Most bytes one byte becomes under the output modes' escaping.
constexpr std::size_t kOutputModeGrowth = SSI_ESCAPED_MAX / (SSI_FORMAT_SIZE - 1);

// Whether ssiprintf prints anything in the current output mode: the modes
// it knows do, any other prints nothing.
bool output_mode_prints() {
    return Ssi_mode == SSI_MODE_PLAIN || Ssi_mode == SSI_MODE_JS || Ssi_mode == SSI_MODE_JSON;
}

// Room that put_key needs for name.
std::size_t key_room(std::string_view name, const Layout &layout) {
    return kStrictGrowth * name.size() + 2 + layout.key_separator.size();
}

// "name" and the key separator at `at`; returns the end.
char *put_key(char *at, std::string_view name, const Layout &layout) {
    *at++ = '"';
    at = put_escape_strict(at, name);
    *at++ = '"';
    return put_short(at, layout.key_separator);
}

// The part of value an output-mode string takes (as ssiprintf cuts it) and
// the room put_output_string needs for it.
std::size_t output_taken(std::string_view value) { return std::min<std::size_t>(value.size(), SSI_FORMAT_SIZE - 1); }
std::size_t output_string_room(std::size_t taken) { return kOutputModeGrowth * taken + 2; }

// The first `taken` bytes of value escaped for the output mode, in double
// quotes, at `at`; returns the end.
char *put_output_string(char *at, std::string_view value, std::size_t taken) {
    *at++ = '"';
    at += ssi_escape_value(value.data(), taken, at);
    *at++ = '"';
    return at;
}

}  // namespace

std::string escape_strict(std::string_view text) {
    std::string out(kStrictGrowth * text.size(), '\0');
    out.resize(static_cast<std::size_t>(put_escape_strict(out.data(), text) - out.data()));
    return out;
}

void OutBuffer::grow(std::size_t n) {
    std::size_t capacity = capacity_ != 0 ? capacity_ : kFirstBufferSize;
    while (capacity - size_ < n) capacity *= 2;
    void *bigger = std::realloc(data_, capacity);
    if (bigger == nullptr) throw std::bad_alloc();
    data_ = static_cast<char *>(bigger);
    capacity_ = capacity;
}

std::string masked(std::string_view secret) {
    const std::size_t commas = secret.find_first_not_of(',');
    if (commas == std::string_view::npos) return std::string(secret);
    return std::string(secret.substr(0, commas)).append(kMask);
}

void Writer::write_out(std::string_view text) {
    if (buffer_ != nullptr) {
        buffer_->append(text);
    } else if (!text.empty()) {
        cgi_out_write(text.data(), text.size());
    }
}

void Writer::write_escaped(std::string_view text) {
    if (buffer_ != nullptr) {
        char *at = buffer_->room(kStrictGrowth * text.size());
        buffer_->commit(static_cast<std::size_t>(put_escape_strict(at, text) - at));
    } else if (kStrictGrowth * text.size() <= kStackText) {
        char escaped[kStackText];
        write_out({escaped, static_cast<std::size_t>(put_escape_strict(escaped, text) - escaped)});
    } else {
        write_out(escape_strict(text));
    }
}

void Writer::write_output_mode(std::string_view text) {
    if (buffer_ == nullptr) {
        // One ssiprintf call per text, which cuts it at SSI_FORMAT_SIZE - 1
        // bytes as every value printed through it has always been.
        ssiprintf("%.*s", static_cast<int>(text.size()), text.data());
        return;
    }
    const std::size_t taken = output_taken(text);
    buffer_->commit(ssi_escape_value(text.data(), taken, buffer_->room(kOutputModeGrowth * taken)));
}

void Writer::punctuation(std::string_view text) {
    if (buffer_ != nullptr) {
        char *at = buffer_->room(text.size());
        buffer_->commit(static_cast<std::size_t>(put_punctuation(at, text) - at));
    } else if (layout_.punctuation_through_output_mode) {
        write_output_mode(text);
    } else {
        write_out(text);
    }
}

char *Writer::put_punctuation(char *at, std::string_view text) const {
    if (!layout_.punctuation_through_output_mode) return put_short(at, text);
    if (!output_mode_prints()) return at;
    // Braces and commas are the same in every mode that prints, so they are
    // written as they are; Ssi is left as ssi_escape_value leaves it.
    if (Ssi_mode != SSI_MODE_PLAIN) Ssi[0] = '\0';
    return put_short(at, text);
}

void Writer::separate() {
    if (has_member_.empty()) return;
    if (has_member_.back() != '\0') punctuation(layout_.member_separator);
    has_member_.back() = '\1';
}

void Writer::begin_object() {
    punctuation("{");
    has_member_.push_back('\0');
}

void Writer::end_object() {
    if (!has_member_.empty()) has_member_.pop_back();
    punctuation("}");
}

void Writer::key(std::string_view name) {
    separate();
    if (buffer_ != nullptr) {
        char *at = buffer_->room(key_room(name, layout_));
        buffer_->commit(static_cast<std::size_t>(put_key(at, name, layout_) - at));
        return;
    }
    if (const std::size_t room = key_room(name, layout_); room <= kStackText) {
        // Put together on the stack and written in one piece.
        char text[kStackText];
        write_out({text, static_cast<std::size_t>(put_key(text, name, layout_) - text)});
        return;
    }
    write_out("\"");
    write_escaped(name);
    write_out("\"");
    write_out(layout_.key_separator);
}

void Writer::compact_member(std::string_view name, std::string_view value) {
    separate();
    write_out("\"");
    write_escaped(name);
    write_out("\":");
    string(value, Escape::strict);
}

void Writer::string(std::string_view value, Escape escape) {
    if (buffer_ != nullptr && escape == Escape::output_mode) {
        const std::size_t taken = output_taken(value);
        char *at = buffer_->room(output_string_room(taken));
        buffer_->commit(static_cast<std::size_t>(put_output_string(at, value, taken) - at));
        return;
    }
    write_out("\"");
    switch (escape) {
    case Escape::strict: write_escaped(value); break;
    case Escape::output_mode: write_output_mode(value); break;
    case Escape::verbatim: write_out(value); break;
    }
    write_out("\"");
}

void Writer::secret(std::string_view value, bool mask, Escape escape) {
    string(mask ? std::string_view(masked(value)) : value, escape);
}

void Writer::output_member(std::string_view name, std::string_view value, bool mask) {
    if (buffer_ == nullptr) {
        key(name);
        secret(value, mask, Escape::output_mode);
        return;
    }
    if (mask) {
        const std::string shown = masked(value);
        output_member(name, shown, false);
        return;
    }
    const bool separator = !has_member_.empty() && has_member_.back() != '\0';
    if (!has_member_.empty()) has_member_.back() = '\1';
    const std::size_t taken = output_taken(value);
    char *const start = buffer_->room(layout_.member_separator.size() + key_room(name, layout_) +
                                      output_string_room(taken));
    char *at = separator ? put_punctuation(start, layout_.member_separator) : start;
    at = put_key(at, name, layout_);
    at = put_output_string(at, value, taken);
    buffer_->commit(static_cast<std::size_t>(at - start));
}

void Writer::number(long value) { write_out(std::to_string(value)); }

void Writer::raw(std::string_view json) { write_out(json); }

}  // namespace cgissi::json
