// The value cipher of encrypted form values, base64 and the SHA-256
// signatures of the signed login (qm_login.h).
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "qm_config.h"
#include "qm_login.h"
#include "quelm_guard.h"
#include "quelm_text.h"

namespace cgissi::auth {
namespace {

// compat: pages and log parsers in the field know the decrypt errors by this file
// name and these line numbers.
constexpr const char *kSourceName = "web_crypt";
constexpr int kOddLengthLine = 98;
constexpr int kBadPairLine = 118;

// Cipher constants: values stay within the printable range 33..126 for
// printable input.
constexpr int kWrap = 94;
constexpr int kPrintableEnd = 127;
constexpr int kPrintableStart = 33;

constexpr std::size_t kHexDigitsPerChar = 2;
constexpr std::size_t kSha256Size = 32;

struct BioFree {
    void operator()(BIO *bio) const noexcept { BIO_free_all(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

// Key byte i of the cyclic key; an empty key is all zero bytes.
class CyclicKey {
  public:
    explicit CyclicKey(const char *key) : key_(key != nullptr ? key : "") {}
    int at(std::size_t i) const {
        if (key_.empty()) return 0;
        return static_cast<signed char>(key_[i % key_.size()]);
    }

  private:
    std::string_view key_;
};

// Base64 filter without line breaks, reading from or writing to memory.
Bio base64_filter(BIO *memory) {
    if (memory == nullptr) return nullptr;
    BIO *filter = BIO_new(BIO_f_base64());
    if (filter == nullptr) {
        BIO_free(memory);
        return nullptr;
    }
    BIO_set_flags(filter, BIO_FLAGS_BASE64_NO_NL);
    return Bio(BIO_push(filter, memory));
}

// Two upper-case hex digits per character.
std::string hex_encrypt(const char *key, std::string_view plain) {
    CyclicKey k(key);
    std::string cipher(plain.size(), '\0');
    for (std::size_t i = 0; i < plain.size(); ++i) {
        int v = static_cast<signed char>(plain[i]) + k.at(i);
        if (v >= kWrap) v -= kWrap;
        if (v >= kPrintableEnd) v -= kWrap;
        // Bytes outside ASCII can make v negative; its low byte keeps the
        // text at two digits per character.
        cipher[i] = static_cast<char>(static_cast<unsigned>(v) & 0xFFu);
    }
    return quelm::hex_encode(cipher, quelm::HexCase::upper);
}

}  // namespace
}  // namespace cgissi::auth

using namespace cgissi::auth;

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {

char *encode64(const void *input, size_t length, char *output, size_t size) {
    if (output == nullptr || size == 0) return nullptr;
    std::memset(output, 0, size);
    if (input == nullptr && length > 0) return nullptr;
    Bio bio = base64_filter(BIO_new(BIO_s_mem()));
    if (!bio) return nullptr;
    if (length > 0 && BIO_write(bio.get(), input, static_cast<int>(length)) != static_cast<int>(length)) {
        return nullptr;
    }
    if (BIO_flush(bio.get()) != 1) return nullptr;
    BUF_MEM *encoded = nullptr;
    BIO_get_mem_ptr(bio.get(), &encoded);
    if (encoded == nullptr || encoded->length + 1 >= size) return nullptr;
    // An empty input leaves the memory BIO without a buffer (data is null).
    if (encoded->length > 0) std::memcpy(output, encoded->data, encoded->length);
    return output;
}

char *decode64(const char *text, char *output, size_t size) {
    return quelm::guarded<char *>(nullptr, __func__, [&]() -> char * {
        if (output == nullptr || size == 0) return nullptr;
        std::memset(output, 0, size);
        if (text == nullptr) return nullptr;
        std::size_t length = std::strlen(text);
        if (length == 0) return nullptr;
        Bio bio = base64_filter(BIO_new_mem_buf(text, static_cast<int>(length)));
        if (!bio) return nullptr;
        // Decoded data is never longer than three quarters of the text.
        std::vector<char> decoded(length / 4 * 3 + 3);
        std::size_t got = 0;
        while (got < decoded.size()) {
            int n = BIO_read(bio.get(), decoded.data() + got, static_cast<int>(decoded.size() - got));
            if (n <= 0) break;
            got += static_cast<std::size_t>(n);
        }
        if (got < 1 || got > size - 1) return nullptr;
        std::memcpy(output, decoded.data(), got);
        return output;
    });
}

int encrypt_post_buffer(const char *key, const char *plain, char *output, size_t size) {
    return quelm::guarded(0, __func__, [&]() -> int {
        if (output == nullptr) return 0;
        std::string_view text = plain != nullptr ? plain : "";
        // Room for two digits per character and the terminator. (Older firmware
        // only checked index + 2 against the size and wrote past the buffer.)
        std::size_t chars = text.size();
        std::size_t fit = size > 0 ? (size - 1) / kHexDigitsPerChar : 0;
        if (size == 0 || chars > fit) {
            QM_LOG_print("Error: not enough space to store encryption: have %d, require %d", static_cast<int>(fit),
                         static_cast<int>(size));
            if (size > 0) output[0] = '\0';
            return 0;
        }
        std::string hex = hex_encrypt(key, text);
        std::memcpy(output, hex.c_str(), hex.size() + 1);
        return 1;
    });
}

char *decrypt_post_value(const char *key, const char *hex, char *output, size_t size) {
    if (output == nullptr || size == 0) return nullptr;
    std::memset(output, 0, size);
    std::string_view text = hex != nullptr ? hex : "";
    if (text.size() % kHexDigitsPerChar != 0) {
        QM_LOG_print("%s:%d Bad signature\n", kSourceName, kOddLengthLine);
        return nullptr;
    }
    std::size_t count = text.size() / kHexDigitsPerChar;
    if (count + 1 > size) {
        QM_LOG_print("Error: not enough space to store decryption: have %d, require %d", static_cast<int>(size),
                     static_cast<int>(count + 1));
        return nullptr;
    }
    CyclicKey k(key);
    for (std::size_t i = 0; i < count; ++i) {
        char pair[kHexDigitsPerChar + 1] = {text[2 * i], text[2 * i + 1], '\0'};
        int high = quelm::hex_value(pair[0]);
        int low = quelm::hex_value(pair[1]);
        if (high < 0 || low < 0) {
            char offending = high < 0 ? pair[0] : pair[1];
            QM_LOG_print("%s:%d Error on %s '%d'\n", kSourceName, kBadPairLine, pair, offending);
            std::memset(output, 0, size);
            return nullptr;
        }
        int v = high * 16 + low - k.at(i) + kWrap;
        if (v < kPrintableStart) v += kWrap;
        output[i] = static_cast<char>(static_cast<unsigned char>(v & 0xFF));
    }
    return output;
}

const char *get_sha_signature(const void *data, size_t length) {
    return quelm::guarded<const char *>("", __func__, [&]() -> const char * {
        static char signature[QM_SHA_SIGNATURE_LENGTH + 1];
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int digest_length = 0;
        static const unsigned char kNothing = 0;
        if (data == nullptr) {
            data = &kNothing;
            length = 0;
        }
        signature[0] = '\0';
        if (EVP_Digest(data, length, digest, &digest_length, EVP_sha256(), nullptr) != 1 ||
            digest_length != kSha256Size) {
            return signature;
        }
        const std::string_view bytes(reinterpret_cast<const char *>(digest), digest_length);
        const std::string hex = quelm::hex_encode(bytes);
        std::memcpy(signature, hex.c_str(), QM_SHA_SIGNATURE_LENGTH + 1);
        return signature;
    });
}

int check_sha_sig(const char *user, const char *password, const char *key, const char *signature) {
    return quelm::guarded(0, __func__, [&]() -> int {
        std::string text = std::string(user != nullptr ? user : "") + ":" + (password != nullptr ? password : "");
        char hex[QM_CRYPT_BUFFER_SIZE];
        if (encrypt_post_buffer(key, text.c_str(), hex, sizeof hex) == 0) {
            QM_LOG_print("Error: encrypt_post_buffer error");
            return 0;
        }
        char encoded[QM_CRYPT_BUFFER_SIZE];
        if (encode64(hex, std::strlen(hex), encoded, sizeof encoded) == nullptr) {
            // The cipher text, not the password itself, goes to the log.
            QM_LOG_print("Error: encrypting %s", hex);
            return 0;
        }
        const char *expected = get_sha_signature(encoded, std::strlen(encoded));
        if (signature == nullptr || std::strlen(signature) != QM_SHA_SIGNATURE_LENGTH) return 0;
        return CRYPTO_memcmp(expected, signature, QM_SHA_SIGNATURE_LENGTH) == 0 ? 1 : 0;
    });
}
}
