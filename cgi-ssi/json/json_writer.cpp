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
#include <cstdio>

#include "cgi_output.h"
#include "ssi.h"

namespace cgissi::json {
namespace {

constexpr std::size_t kControlEscapeSize = sizeof "\\u0000";
constexpr std::size_t kFirstBufferSize = 16 * 1024;

// Bytes that strict JSON escaping replaces.
constexpr bool strict_escaped(unsigned char byte) { return byte == '"' || byte == '\\' || byte < 0x20; }

// Appends text escaped strictly; Out has append(string_view) and append(char).
template <typename Out>
void append_escape_strict(Out &out, std::string_view text) {
    std::size_t plain = 0;  // start of the run not yet appended
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (!strict_escaped(byte)) continue;
        out.append(text.substr(plain, i - plain));
        plain = i + 1;
        if (byte < 0x20) {
            char escape[kControlEscapeSize];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out.append(std::string_view(escape));
        } else {
            out.append('\\');
            out.append(static_cast<char>(byte));
        }
    }
    out.append(text.substr(plain));
}

// std::string with the two appends OutBuffer has.
struct StringOut {
    std::string &text;
    void append(std::string_view more) { text.append(more); }
    void append(char c) { text += c; }
};

}  // namespace

std::string escape_strict(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    StringOut sink{out};
    append_escape_strict(sink, text);
    return out;
}

void OutBuffer::grow(std::size_t n) {
    std::size_t capacity = capacity_ != 0 ? capacity_ : kFirstBufferSize;
    while (capacity - size_ < n) capacity *= 2;
    auto bigger = std::make_unique_for_overwrite<char[]>(capacity);
    if (size_ != 0) std::memcpy(bigger.get(), data_.get(), size_);
    data_ = std::move(bigger);
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
        append_escape_strict(*buffer_, text);
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
    // Escaping makes at most six bytes of one.
    const std::size_t taken = std::min<std::size_t>(text.size(), SSI_FORMAT_SIZE - 1);
    buffer_->commit(ssi_escape_value(text.data(), taken, buffer_->room(taken * 6)));
}

void Writer::punctuation(std::string_view text) {
    if (layout_.punctuation_through_output_mode) {
        write_output_mode(text);
    } else {
        write_out(text);
    }
}

void Writer::separate() {
    if (has_member_.empty()) return;
    if (has_member_.back()) punctuation(layout_.member_separator);
    has_member_.back() = true;
}

void Writer::begin_object() {
    punctuation("{");
    has_member_.push_back(false);
}

void Writer::end_object() {
    if (!has_member_.empty()) has_member_.pop_back();
    punctuation("}");
}

void Writer::key(std::string_view name) {
    separate();
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

void Writer::number(long value) { write_out(std::to_string(value)); }

void Writer::raw(std::string_view json) { write_out(json); }

}  // namespace cgissi::json
