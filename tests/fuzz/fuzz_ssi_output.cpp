// ssiprintf's output modes and its chunked staging through the shared Ssi
// buffer. Plain mode gives the text back; the JavaScript mode decodes back
// to the text and neither string mode leaves a byte that could end the
// string or the script element; other modes print nothing.
//
// Input: the mode byte, then pieces separated by NUL, each printed with
// one ssiprintf("%s").
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "ssi.h"
#include "ssi_buffer.h"

namespace {

constexpr int kUnknownMode = 3;

// Reads back the JavaScript mode's escapes; false when an escape is not one
// the mode writes.
bool decode_js(std::string_view out, std::string &text) {
    for (std::size_t i = 0; i < out.size(); ++i) {
        if (out[i] != '\\') {
            text += out[i];
            continue;
        }
        const std::string_view rest = out.substr(i + 1);
        if (rest.starts_with("u003C") || rest.starts_with("u003E")) {
            text += rest[4] == 'C' ? '<' : '>';
            i += 5;
        } else if (rest.size() >= 3 && rest[0] == '0' && rest[1] >= '0' && rest[1] <= '7') {
            text += static_cast<char>((rest[1] - '0') * 8 + (rest[2] - '0'));
            i += 3;
        } else if (!rest.empty() && (rest[0] == 'f' || rest[0] == '"' || rest[0] == '\'' || rest[0] == '\\')) {
            text += rest[0] == 'f' ? '\f' : rest[0];
            i += 1;
        } else {
            return false;
        }
    }
    return true;
}

// No raw byte that ends the script element or breaks the line; in the
// JavaScript mode, no quote that ends the string (the JSON mode
// writes a quote as \\" for the pages' own decoder.)
void require_string_safe(std::string_view out, bool quotes) {
    for (std::size_t i = 0; i < out.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(out[i]);
        fuzz::require(c != '<' && c != '>' && !(c >= 7 && c <= 13), "a raw < > or line break in a string mode");
        if (c == '\\') {
            ++i;
            continue;
        }
        fuzz::require(!quotes || (c != '"' && c != '\''), "an unescaped quote in the JavaScript mode");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 1 << 16) return 0;
    const int mode = data[0] % 4;
    std::vector<std::string> pieces;
    std::string_view rest = fuzz::text_of(data + 1, size - 1);
    while (!rest.empty()) pieces.emplace_back(fuzz::take_until(rest, '\0'));

    std::string text;
    const std::string out = fuzz::captured([&] {
        SSI_Set_Mode(mode);
        for (const std::string &piece : pieces) {
            // ssiprintf formats at most SSI_FORMAT_SIZE - 1 bytes.
            text += piece.substr(0, SSI_FORMAT_SIZE - 1);
            ssiprintf("%s", piece.c_str());
            fuzz::require(Ssi[0] == '\0', "ssiprintf left text staged in Ssi");
        }
        SSI_Set_Mode(SSI_MODE_PLAIN);
    });
    if (mode == SSI_MODE_PLAIN) {
        fuzz::require(out == text, "plain mode changed the text");
    } else if (mode == kUnknownMode) {
        fuzz::require(out.empty(), "an unknown mode printed the text");
    } else {
        require_string_safe(out, mode == SSI_MODE_JS);
        std::string decoded;
        if (mode == SSI_MODE_JS)
            fuzz::require(decode_js(out, decoded) && decoded == text, "the JavaScript mode does not decode back");
    }
    return 0;
}
