// Escaped value output: ssiprintf and its staging through the shared Ssi
// buffer.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cgi_output.h"
#include "ssi.h"

namespace cgissi::ssi {
namespace {

// Text as formatted, before escaping. Private to ssiprintf, so a producer's
// text in Ssi can itself be printed through "%s".
char format_buffer[SSI_FORMAT_SIZE];

// Last usable staging position; byte SSI_BUFFER_SIZE - 1 holds the
// terminator of a full chunk.
constexpr int kStageLimit = SSI_BUFFER_SIZE - 1;

void write_staged(int length) {
    Ssi[length] = '\0';
    cgi_out_write(Ssi, std::strlen(Ssi));
}

// Replacement of one byte in a JavaScript (mode 1) or JSON (mode 2) string;
// empty when the byte is copied unchanged.
//
// Two rows differ from what a JSON parser expects and are kept on purpose:
// mode 2 writes a newline as \013 and a double quote as \\" (three bytes).
// The pages' scripts that read these values undo exactly these sequences.
std::string_view escape_of(unsigned char byte, int mode) {
    switch (byte) {
    case 7: return "\\007";
    case 8: return "\\010";
    case 9: return "\\011";
    case 10: return mode == SSI_MODE_JSON ? "\\013" : "\\012";
    case 11: return "\\013";
    case 12: return "\\f";
    case 13: return "\\015";
    case '"': return mode == SSI_MODE_JSON ? "\\\\\"" : "";
    case '\'': return "\\'";
    case '\\': return "\\\\";
    default: return "";
    }
}

}  // namespace
}  // namespace cgissi::ssi

using namespace cgissi::ssi;

extern "C" {

int Ssi_mode = SSI_MODE_PLAIN;

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

int ssiprintf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    int produced = std::vsnprintf(format_buffer, sizeof format_buffer, format, args);
    va_end(args);
    if (produced < 0) return -1;

    const int mode = Ssi_mode;
    if (mode == SSI_MODE_PLAIN) {
        cgi_out_write(format_buffer, std::strlen(format_buffer));
        return produced;
    }
    if (mode != SSI_MODE_JS && mode != SSI_MODE_JSON) return produced;

    int pos = 0;
    for (const char *p = format_buffer; *p != '\0'; ++p) {
        std::string_view escaped = escape_of(static_cast<unsigned char>(*p), mode);
        if (escaped.empty()) {
            pos = ssisendbyte(pos, *p);
        } else {
            for (char c : escaped) pos = ssisendbyte(pos, c);
        }
    }
    Ssi[pos] = '\0';
    if (Ssi[0] != '\0') write_staged(pos);
    Ssi[0] = '\0';
    return produced;
}

}  // extern "C"
