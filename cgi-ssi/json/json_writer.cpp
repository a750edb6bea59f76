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

#include <cstdio>

#include "cgi_output.h"
#include "ssi.h"

namespace cgissi::json {
namespace {

void write_out(std::string_view text) {
    if (!text.empty()) cgi_out_write(text.data(), text.size());
}

void write_output_mode(std::string_view text) {
    // One ssiprintf call per text, which cuts it at SSI_FORMAT_SIZE - 1
    // bytes as every value printed through it has always been.
    ssiprintf("%.*s", static_cast<int>(text.size()), text.data());
}

constexpr std::size_t kControlEscapeSize = sizeof "\\u0000";

}  // namespace

std::string escape_strict(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escape[kControlEscapeSize];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out;
}

std::string masked(std::string_view secret) {
    const std::size_t commas = secret.find_first_not_of(',');
    if (commas == std::string_view::npos) return std::string(secret);
    return std::string(secret.substr(0, commas)).append(kMask);
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
    write_out(escape_strict(name));
    write_out("\"");
    write_out(layout_.key_separator);
}

void Writer::compact_member(std::string_view name, std::string_view value) {
    separate();
    write_out("\"");
    write_out(escape_strict(name));
    write_out("\":");
    string(value, Escape::strict);
}

void Writer::string(std::string_view value, Escape escape) {
    write_out("\"");
    switch (escape) {
    case Escape::strict: write_out(escape_strict(value)); break;
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
