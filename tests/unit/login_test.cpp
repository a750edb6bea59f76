// The value cipher and base64 of qm_login.h at the bounds of the caller's
// buffers and with malformed input. The cipher's values, a blank that comes
// back as "~" included, are checked against an independent Python version
// through the executable (test_login.py).

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "qm_config.h"
#include "qm_login.h"
#include "test_support.h"

namespace {

// A buffer of `size` bytes followed by guard bytes that must stay.
struct Guarded {
    explicit Guarded(std::size_t n) : size(n), bytes(n + 16, '#') {}
    char *data() { return bytes.data(); }
    bool intact() const { return std::string(bytes.begin() + size, bytes.end()) == std::string(16, '#'); }
    std::size_t size;
    std::vector<char> bytes;
};

class LoginCrypt : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("QUELM_LOG_FILE", log_.c_str(), 1);
        QM_LOG_set(1);
    }
    void TearDown() override {
        QM_LOG_set(0);
        unsetenv("QUELM_LOG_FILE");
        std::filesystem::remove(log_);
    }
    std::string logged() const { return test_support::slurp(log_); }
    std::string log_ = "/tmp/login_test." + std::to_string(getpid()) + ".log";
};

TEST_F(LoginCrypt, EncryptFillsExactlyItsRoom) {
    struct Case { std::string key, plain; } cases[] = {
        {"A", "A"},                         // 65 + 65 - 94 = 36: "24"
        {"k3", "admin:secret"},             // key shorter than the text
        {"Zx81Qp0mN7", "pw"},               // key longer than the text
        {"aB3dE9", " !\"#$%&'()*+,-./0123456789:;<=>?@AZ[\\]^_`az{|}~"},
        {"", "admin"},                      // empty key: zero bytes
        {"zz", "\xC3\xA9\xFF\x80"},         // bytes above ASCII stay two digits
        {"abc", ""},
    };
    for (const Case &c : cases) {
        const std::size_t need = 2 * c.plain.size() + 1;
        Guarded exact(need);
        ASSERT_EQ(encrypt_post_buffer(c.key.c_str(), c.plain.c_str(), exact.data(), exact.size), 1) << c.plain;
        const std::string hex = exact.data();
        EXPECT_EQ(hex.size(), 2 * c.plain.size()) << c.plain;
        EXPECT_EQ(hex.find_first_not_of("0123456789ABCDEF"), std::string::npos) << c.plain;
        EXPECT_TRUE(exact.intact());
        // One byte short, and the old "index + 2" room, must both fail whole.
        for (std::size_t size : {need - 1, c.plain.size() + 2}) {
            if (size >= need) continue;
            Guarded small(size);
            EXPECT_EQ(encrypt_post_buffer(c.key.c_str(), c.plain.c_str(), small.data(), small.size), 0);
            EXPECT_TRUE(size == 0 || small.data()[0] == '\0');
            EXPECT_TRUE(small.intact()) << c.plain << " in " << size;
        }
    }
    char out[4];
    encrypt_post_buffer("A", "A", out, sizeof out);
    EXPECT_STREQ(out, "24");
    EXPECT_NE(logged().find("Error: not enough space to store encryption: have "), std::string::npos);
}

TEST_F(LoginCrypt, DecryptRefusesMalformedTextAndStaysInItsOutput) {
    struct Case { const char *hex; std::size_t size; const char *logged; } cases[] = {
        {"241", 64, "web_crypt:98 Bad signature"},
        {"244G", 64, "web_crypt:118 Error on 4G '71'"},
        {"G4", 64, "web_crypt:118 Error on G4 '71'"},
        {" 4", 64, "web_crypt:118 Error on  4 '32'"},
        {"-4", 64, "web_crypt:118 Error on -4 '45'"},
        {"41424344", 4, "not enough space to store decryption"},
        {"41", 1, "not enough space to store decryption"},
    };
    for (const Case &c : cases) {
        Guarded out(c.size);
        EXPECT_EQ(decrypt_post_value("key", c.hex, out.data(), out.size), nullptr) << c.hex;
        EXPECT_EQ(std::string(out.data(), out.size), std::string(out.size, '\0')) << c.hex;
        EXPECT_TRUE(out.intact()) << c.hex;
        EXPECT_NE(logged().find(c.logged), std::string::npos) << c.hex;
    }
    Guarded fits(5);
    EXPECT_EQ(decrypt_post_value("key", "41424344", fits.data(), fits.size), fits.data());
    EXPECT_TRUE(fits.intact());
    char lower[4], upper[4];  // hex digits in either case
    EXPECT_STREQ(decrypt_post_value("aB", "243f", lower, sizeof lower), decrypt_post_value("aB", "243F", upper, 4));
}

TEST_F(LoginCrypt, Base64Bounds) {
    // Three bytes make four digits. encode64 keeps them only with length + 1
    // below the size; decode64 needs 1 .. size - 1 bytes out.
    Guarded roomy(6), tight(5), fits(4), full(3);
    ASSERT_NE(encode64("A\xFF\n", 3, roomy.data(), roomy.size), nullptr);
    const std::string text = roomy.data();
    EXPECT_EQ(text.size(), 4u);
    EXPECT_EQ(encode64("A\xFF\n", 3, tight.data(), tight.size), nullptr);
    EXPECT_STREQ(decode64(text.c_str(), fits.data(), fits.size), "A\xFF\n");
    EXPECT_EQ(decode64(text.c_str(), full.data(), full.size), nullptr);
    for (Guarded *g : {&roomy, &tight, &fits, &full}) EXPECT_TRUE(g->intact());
    char out[64];
    for (const char *bad : {"", "!!!!", "QUJD\nREVG"}) EXPECT_EQ(decode64(bad, out, sizeof out), nullptr) << bad;
    EXPECT_STREQ(encode64("", 0, out, sizeof out), "");  // no bytes: nothing copied from an empty BIO
}

}  // namespace
