// The value cipher of login and encrypted secrets, the login's base64 and
// the NAS thumbnails' strict base64. Every buffer is exactly the size the
// call is given, so that a write past it is an overflow ASan reports.
//
// Input: key, plain text and a free text (tried as base64 and as hex),
// "\n"-separated; the first byte also picks the output sizes.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "nas/nas_internal.h"
#include "qm_login.h"

namespace {

constexpr std::size_t kLargestOutput = 300;

struct Buffer {
    explicit Buffer(std::size_t n) : size(n), bytes(new char[n == 0 ? 1 : n]) {}
    std::size_t size;
    std::unique_ptr<char[]> bytes;
};

void base64_round_trip(std::string_view plain, std::size_t size) {
    Buffer encoded(size);
    if (encode64(plain.data(), plain.size(), encoded.bytes.get(), encoded.size) == nullptr) return;
    const std::string text(encoded.bytes.get());
    fuzz::require(text.size() == (plain.size() + 2) / 3 * 4, "base64 of the wrong length");
    const std::optional<std::string> strict = cgissi::nas::base64_decode(text, plain.size());
    fuzz::require(strict && *strict == plain, "the strict decoder does not read back encode64");
    Buffer decoded(plain.size() + 1);
    if (decode64(text.c_str(), decoded.bytes.get(), decoded.size) != nullptr)
        fuzz::require(std::memcmp(decoded.bytes.get(), plain.data(), plain.size()) == 0,
                      "decode64 does not read back encode64");
}

void decode_any(const std::string &text, std::size_t size) {
    Buffer out(size);
    if (decode64(text.c_str(), out.bytes.get(), out.size) != nullptr)
        fuzz::require(out.bytes[out.size - 1] == '\0', "decode64 filled its last byte");
    const std::optional<std::string> strict = cgissi::nas::base64_decode(text, size);
    if (strict) fuzz::require(strict->size() <= size, "the strict decoder passed its limit");
    Buffer clear(size);
    if (decrypt_post_value(text.c_str(), text.c_str(), clear.bytes.get(), clear.size) != nullptr)
        fuzz::require(std::strlen(clear.bytes.get()) < clear.size, "a decrypted value without terminator");
}

void cipher(const std::string &key, const std::string &plain, std::size_t size) {
    Buffer hex(size);
    if (encrypt_post_buffer(key.c_str(), plain.c_str(), hex.bytes.get(), hex.size) != 1) return;
    fuzz::require(std::strlen(hex.bytes.get()) == 2 * plain.size(), "not two digits per character");
    Buffer clear(plain.size() + 1);
    fuzz::require(decrypt_post_value(key.c_str(), hex.bytes.get(), clear.bytes.get(), clear.size) != nullptr,
                  "the cipher's own text does not decrypt");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 4096) return 0;
    const std::size_t out_size = data[0] % kLargestOutput;
    std::string_view rest = fuzz::text_of(data + 1, size - 1);
    const std::string key(fuzz::take_until(rest, '\n'));
    const std::string plain(fuzz::take_until(rest, '\n'));
    const std::string text(rest);
    base64_round_trip(plain, out_size);
    if (text.find('\0') == std::string::npos) decode_any(text, out_size);
    if ((key + plain).find('\0') == std::string::npos) {
        cipher(key, plain, out_size);
        check_sha_sig(key.c_str(), plain.c_str(), key.c_str(), text.c_str());
    }
    return 0;
}
