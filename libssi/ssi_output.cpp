// Escaped value output: ssiprintf and its staging through the shared Ssi
// buffer.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cgi_output.h"
#include "quelm_guard.h"
#include "ssi.h"
#include "ssi_render.h"

// Process-wide because the C interface makes them so: value producers and
// plugins write into Ssi (ssi_buffer.h), and plugins read and set Ssi_mode
// (ssi.h) across calls.
extern "C" {
char Ssi[SSI_BUFFER_SIZE];
int Ssi_mode = SSI_MODE_PLAIN;
}

namespace cgissi::ssi {
namespace {

// Last usable staging position; byte SSI_BUFFER_SIZE - 1 holds the
// terminator of a full chunk.
constexpr int kStageLimit = SSI_BUFFER_SIZE - 1;

void write_staged(int length) {
    Ssi[length] = '\0';
    cgi_out_write(Ssi, std::strlen(Ssi));
}

// Replacement of one byte in a JavaScript (mode 1) or JSON (mode 2) string;
// empty when the byte is copied unchanged. "<" and ">" are written as
// \u003C and \u003E in both modes, the same string value for either reader,
// so that no value can close the script element it stands in.
std::string_view escape_of(unsigned char byte, int mode) {
    switch (byte) {
    case 7: return "\\007";
    case 8: return "\\010";
    case 9: return "\\011";
    // compat: mode 2 writes a newline as \013; the pages' scripts that read
    // these values undo exactly this sequence.
    case 10: return mode == SSI_MODE_JSON ? "\\013" : "\\012";
    case 11: return "\\013";
    case 12: return "\\f";
    case 13: return "\\015";
    // compat: mode 2 writes a double quote as the three bytes \\", which the
    // same scripts undo.
    case '"': return mode == SSI_MODE_JSON ? "\\\\\"" : "\\\"";
    case '\'': return "\\'";
    case '\\': return "\\\\";
    case '<': return "\\u003C";
    case '>': return "\\u003E";
    default: return "";
    }
}

// Whether escape_of has a replacement for the byte (in either mode).
constexpr bool escaped_byte(unsigned char byte) {
    return (byte >= 7 && byte <= 13) || byte == '"' || byte == '\'' || byte == '\\' || byte == '<' || byte == '>';
}

constexpr std::array<bool, 256> kEscaped = [] {
    std::array<bool, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) table[byte] = escaped_byte(static_cast<unsigned char>(byte));
    return table;
}();

// The bytes not copied as they are: those to escape, and NUL.
constexpr std::array<bool, 256> kStopsRun = [] {
    std::array<bool, 256> table = kEscaped;
    table[0] = true;
    return table;
}();

// Stages `text` escaped for `mode` (1 or 2) and writes it; Ssi is left
// empty.
void write_escaped(std::string_view text, int mode) {
    int pos = 0;
    for (char c : text) {
        std::string_view escaped = escape_of(static_cast<unsigned char>(c), mode);
        if (escaped.empty()) {
            pos = ssisendbyte(pos, c);
        } else {
            for (char e : escaped) pos = ssisendbyte(pos, e);
        }
    }
    Ssi[pos] = '\0';
    if (Ssi[0] != '\0') write_staged(pos);
    Ssi[0] = '\0';
}

}  // namespace

void write_value(std::string_view text) {
    const int mode = Ssi_mode;
    if (mode == SSI_MODE_PLAIN) {
        cgi_out_write(text.data(), text.size());
    } else if (mode == SSI_MODE_JS || mode == SSI_MODE_JSON) {
        write_escaped(text, mode);
    }
    // compat: any other mode suppresses the value; plugins use it to print
    // nothing.
}

}  // namespace cgissi::ssi

using namespace cgissi::ssi;

// The mode accessors and ssisendbyte neither allocate nor call anything
// that throws; ssiprintf's output path goes through the C-edge guard.
extern "C" {

void SSI_Set_Mode(int mode) { Ssi_mode = mode; }

int SSI_Get_Mode(void) { return Ssi_mode; }

int ssisendbyte(int pos, char byte) {
    if (pos < 0) pos = 0;
    if (pos >= kStageLimit) {
        write_staged(kStageLimit);
        pos = 0;
    }
    Ssi[pos] = byte;
    return pos + 1;
}

size_t ssi_escape_value(const char *text, size_t len, char *out) {
    if (text == nullptr || out == nullptr) return 0;
    const std::size_t taken = std::min<std::size_t>(len, SSI_FORMAT_SIZE - 1);
    const int mode = Ssi_mode;
    if (mode != SSI_MODE_PLAIN && mode != SSI_MODE_JS && mode != SSI_MODE_JSON) return 0;  // compat: as write_value
    // Like "%.*s", the text ends at its first NUL.
    if (mode == SSI_MODE_PLAIN) {
        const std::size_t length = ::strnlen(text, taken);
        std::memcpy(out, text, length);
        return length;
    }
    // Copied as scanned (values are mostly a few plain bytes) up to the NUL
    // that ends the text.
    char *to = out;
    for (const char *at = text, *end = text + taken; at != end; ++at) {
        const auto byte = static_cast<unsigned char>(*at);
        if (!kStopsRun[byte]) {
            *to++ = *at;
            continue;
        }
        if (byte == 0) break;
        const std::string_view escaped = escape_of(byte, mode);
        to = std::copy(escaped.begin(), escaped.end(), to);
    }
    Ssi[0] = '\0';
    return static_cast<size_t>(to - out);
}

int ssiprintf(const char *format, ...) {
    // The text as formatted, before escaping: apart from Ssi, so that a
    // producer's text in Ssi can itself be printed through "%s".
    char format_buffer[SSI_FORMAT_SIZE];
    va_list args;
    va_start(args, format);
    const int produced = std::vsnprintf(format_buffer, sizeof format_buffer, format, args);
    va_end(args);
    if (produced < 0) return -1;
    return quelm::guarded(-1, __func__, [&] {
        write_value(std::string_view(format_buffer, std::strlen(format_buffer)));
        return produced;
    });
}

}  // extern "C"
