// Validators, extractors, list helpers and state-file readers of qm_util.h.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qm_util.h"
#include "util/text_scan.h"

namespace {

uint32_t ip(unsigned a, unsigned b, unsigned c, unsigned d) { return a << 24 | b << 16 | c << 8 | d; }

TEST(UtilValidate, CharacterClassesRejectHighBytes) {
    struct Case { int (*check)(const char *); const char *text; int valid; } cases[] = {
        {check_name, "", 1},           {check_name, "Az09-_", 1},         {check_name, "a.b", 0},
        {check_name, "caf\xC3\xA9", 0}, {check_name, nullptr, 0},          {check_internetname, "a-1.b,c_2", 1},
        {check_internetname, "a b", 0}, {check_ascii, "!~", 1},            {check_ascii, "a b", 0},
        {check_ascii, "\x7F", 0},        {check_ascii, "a\x80", 0},          {check_ascii_with_spaces, " a ~", 1},
        {check_ascii_with_spaces, "a\tb", 0}, {check_ascii_with_spaces, "\xA0", 0},
    };
    for (const Case &c : cases) EXPECT_EQ(c.check(c.text), c.valid) << (c.text ? c.text : "(null)");
    for (int b = 128; b < 256; ++b) EXPECT_EQ(check_alphanum(static_cast<char>(b)), 0) << b;
}

TEST(UtilValidate, IpaddrPort) {
    struct Case { const char *text; int valid; } cases[] = {
        {"1.2.3.4", 1},     {"1.2.3.4:0", 1},       {"1.2.3.4:65535", 1}, {"1.2.3.4:65536", 0}, {"1.2.3.4:-1", 0},
        {"1.2.3.4:abc", 1},  // an unreadable port leaves the plain address form
        {"0.0.0.0", 1},     {"255.255.255.255", 1}, {"256.1.1.1", 0},     {"1.2.3.-1", 0},      {"1.2.3.", 0},
        {"", 0},            {"4294967297.1.1.1", 0}, {"1.2.3.4:4294967297", 0},
    };
    for (const Case &c : cases) EXPECT_EQ(check_ipaddr_port(c.text), c.valid) << c.text;
}

TEST(UtilValidate, IpwordAndIpstrRoundTrip) {
    for (uint32_t a : {0u, ip(192, 168, 1, 1), ip(10, 0, 255, 7), 0xFFFFFFFFu}) {
        char text[QM_IPSTR_SIZE];
        uint32_t back = 0;
        ASSERT_EQ(ipword(ipstr(text, a), &back), 1) << text;
        EXPECT_EQ(back, a) << text;
    }
    for (const char *bad : {"1.2.3.256", "1.2.3", "x", "-1.2.3.4"}) {
        uint32_t out = 7;
        EXPECT_EQ(ipword(bad, &out), 0) << bad;
        EXPECT_EQ(out, 7u) << bad << ": out written only when valid";
    }
}

TEST(UtilValidate, MaskAndHost) {
    struct Mask { uint32_t mask; int bits; } masks[] = {{ip(255, 255, 255, 0), 24}, {ip(255, 0, 255, 0), 0}, {0, 0},
        {0xFFFFFFFFu, 32}, {0x80000000u, 1}, {0xFFFFFFFEu, 31}, {0x7FFFFFFFu, 0}, {1, 0}};
    for (const Mask &m : masks) EXPECT_EQ(ipmask(m.mask), m.bits) << std::hex << m.mask;

    struct Host { const char *desc; uint32_t address, mask; int valid; } hosts[] = {
        {"broadcast", ip(192, 168, 1, 255), ip(255, 255, 255, 0), 0},
        {"network", ip(192, 168, 1, 0), ip(255, 255, 255, 0), 0},  {"multicast", ip(224, 0, 0, 1), ip(255, 0, 0, 0), 0},
        {"plain host", ip(10, 0, 0, 1), ip(255, 0, 0, 0), 1},
        {"x.x.x.255 inside /8", ip(10, 0, 0, 255), ip(255, 0, 0, 0), 1},
        {"last unicast network", ip(223, 255, 255, 1), ip(255, 255, 255, 0), 1},
        {"zero network part", ip(0, 0, 0, 5), ip(255, 255, 255, 0), 0},
        {"/32 has no host part", ip(192, 168, 1, 1), 0xFFFFFFFFu, 0}, {"no mask", ip(192, 168, 1, 1), 0, 0},
    };
    for (const Host &h : hosts) EXPECT_EQ(iphost(h.address, h.mask), h.valid) << h.desc;
}

TEST(UtilValidate, MacwordStoresGroupAddressesButRejectsThem) {
    // bytes: empty: nothing stored
    struct Case { const char *text; int unicast; std::vector<unsigned char> bytes; } cases[] = {
        {"01:00:5E:00:00:01", 0, {0x01, 0x00, 0x5E, 0x00, 0x00, 0x01}},
        {"00:11:22:aa:BB:ff", 1, {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xFF}},
        {"0:1:2:3:4:5", 1, {0, 1, 2, 3, 4, 5}},
        {"00:11:22:33:44:100", 0, {}},
        {"00:11:22:33:44", 0, {}},
        {"00-11-22-33-44-55", 0, {}},
    };
    for (const Case &c : cases) {
        std::vector<unsigned char> out(QM_MAC_LEN, 0xEE);
        EXPECT_EQ(macword(c.text, out.data()), c.unicast) << c.text;
        EXPECT_EQ(out, c.bytes.empty() ? std::vector<unsigned char>(QM_MAC_LEN, 0xEE) : c.bytes) << c.text;
    }
    const unsigned char mac[QM_MAC_LEN] = {0x0a, 0xbc, 0x00, 0x01, 0xff, 0x10};
    char text[QM_MACSTR_SIZE];
    EXPECT_STREQ(macstr(text, mac), "0A:BC:00:01:FF:10");
}

TEST(UtilString, TrimAndCase) {
    struct Case { const char *in, *out; } trims[] = {
        {"  a b \t", "a b"}, {"\t \t", ""}, {"", ""}, {"x", "x"}, {" x", "x"}, {"x\t\t", "x"}};
    for (const Case &c : trims) {
        std::string s = c.in;
        EXPECT_STREQ(str_trim(s.data()), c.out) << '"' << c.in << '"';
    }
    std::string mixed = "Ab\xC4z\xE4-";
    EXPECT_STREQ(str_lowercase(mixed.data()), "ab\xC4z\xE4-");
    EXPECT_STREQ(str_uppercase(mixed.data()), "AB\xC4Z\xE4-");
    EXPECT_STREQ(str_replace(mixed.data(), 'B', '_'), "A_\xC4Z\xE4-");
}

using Extractor = char *(*)(const char *, char *, size_t);
char *until_eq(const char *p, char *o, size_t n) { return text_extract_stringuntilmark(p, o, n, '='); }
char *three_words(const char *p, char *o, size_t n) { return text_extract_date(p, o, n, 3); }
char *two_words(const char *p, char *o, size_t n) { return text_extract_date(p, o, n, 2); }

TEST(UtilExtract, FieldsAtBufferBoundaries) {
    // consumed: the whole field, however small the buffer
    struct Case {
        const char *desc; Extractor fn; const char *in; size_t size; const char *out; size_t consumed;
    } cases[] = {
        {"ip fits", text_extract_ip, "192.168.1.1 x", 12, "192.168.1.1", 11},
        {"ip one short", text_extract_ip, "192.168.1.1 x", 11, "192.168.1.", 11},
        {"ip size 1", text_extract_ip, "192.168.1.1", 1, "", 11},
        {"ipmask", text_extract_ipmask, "10.0.0.0/8\tx", 32, "10.0.0.0/8", 10},
        {"mac stops at g", text_extract_mac, "aa:BB:0f:g", 32, "aa:BB:0f:", 9},
        {"string at tab", text_extract_string, "abc\tdef", 32, "abc", 3},
        {"string keeps newline", text_extract_string, "ab\n c", 32, "ab\n", 3},
        {"until mark", until_eq, "key=val", 32, "key", 3}, {"until blank", until_eq, "key val", 2, "k", 3},
        {"date collapses blanks", three_words, "Jan  5 12:00\tf", 32, "Jan 5 12:00", 12},
        {"date word limit", two_words, "Jan  5 12:00", 32, "Jan 5", 6},
        {"date ends at tab", three_words, "  Jan 5  \tx", 32, "Jan 5", 7},
        {"date cut", three_words, "Jan  5 12:00", 6, "Jan 5", 12},
    };
    for (const Case &c : cases) {
        std::vector<char> out(c.size, 'X');  // heap, so that ASan sees a write past size
        char *next = c.fn(c.in, out.data(), c.size);
        EXPECT_STREQ(out.data(), c.out) << c.desc;
        EXPECT_EQ(static_cast<size_t>(next - c.in), c.consumed) << c.desc;
    }
}

TEST(UtilExtract, NumbersAndSkips) {
    int v = -1;
    const char *in = "0123x";
    EXPECT_EQ(text_extract_int(in, &v), in + 4);
    EXPECT_EQ(v, 123);
    in = "-5";
    EXPECT_EQ(text_extract_int(in, &v), in);
    EXPECT_EQ(v, 0) << "no sign";
    in = "99999999999999999999 ";  // wraps; must not trap under UBSan
    EXPECT_EQ(text_extract_int(in, &v), in + 20);
    in = "1aF g";
    EXPECT_EQ(text_extract_hex(in, &v), in + 3);
    EXPECT_EQ(v, 0x1AF);

    in = "   \t\tx";
    EXPECT_EQ(text_skip_separator(in), in + 4) << "only one tab";
    in = "abc def";
    EXPECT_EQ(text_skip_endoffield(in), in + 3);
    EXPECT_EQ(text_skip_untilmark(in, 'd'), in + 4);
    EXPECT_EQ(text_skip_untilmark(in, '#'), in + 7);
}

TEST(UtilList, WalkItemsAndComponents) {
    const char *list = "eth0\tup\t1500\veth1\tdown\t\v";
    std::vector<std::string> seen;
    for (char *item = get_first_listitem(list); item; item = get_next_listitem(item)) {
        char name[8], state[8];
        int mtu = 0;
        char *p = get_list_str_component(item, name, sizeof name - 1);
        p = get_list_str_component(p, state, sizeof state - 1);
        get_list_int_component(p, &mtu, -1);
        seen.push_back(std::string(name) + "/" + state + "/" + std::to_string(mtu));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"eth0/up/1500", "eth1/down/-1"}));
    EXPECT_EQ(get_first_listitem(""), nullptr);
    EXPECT_EQ(get_next_listitem(nullptr), nullptr);

    char out[4] = "zzz";
    EXPECT_EQ(get_list_str_component(nullptr, out, 3), nullptr);
    EXPECT_STREQ(out, "");
    const char *item = "abcdef\tx";
    EXPECT_EQ(get_list_str_component(item, out, 3), item + 7) << "rest of a long component skipped";
    EXPECT_STREQ(out, "abc");
    item = "ab\vcd";
    EXPECT_EQ(get_list_str_component(item, out, 3), item + 2) << "item separator not consumed";

    struct Int { const char *in; int value; } ints[] = {{" -7\tx", -7}, {"\tx", 99}, {"abc", 99}, {"12abc", 12},
                {"0000000000000000000000000000000" "5", 0}};  // only 31 characters are read
    for (const Int &c : ints) {
        int v = 0;
        get_list_int_component(c.in, &v, 99);
        EXPECT_EQ(v, c.value) << c.in;
    }
}

TEST(UtilList, NextIndexStartsAt1001) {
    struct Case { const char *indices; int next; } cases[] = {
        {"1,2,3", 1001}, {"1001,1004", 1005}, {"1004,1001", 1005}, {"", 1001},
        {"999", 1001},   {"1000", 1001},      {"5000,12", 5001},   {"2147483647", -1}};
    for (const Case &c : cases) EXPECT_EQ(quelm::util::next_list_index(c.indices), c.next) << c.indices;
}

// key null: get_filevar (the first line), else get_logvar (the value of "key=").
TEST(UtilVarFile, FirstLineAndKeyedValues) {
    struct Case {
        const char *desc; std::string content; const char *key; size_t size; std::string out; int code;
    } cases[] = {
        {"fits", "abc\n", nullptr, 4, "abc", QM_VAR_OK},
        {"exactly size is cut but ok", "abcd\n", nullptr, 4, "abc", QM_VAR_OK},
        {"longer than size", "abcde\n", nullptr, 4, "abc", QM_VAR_TRUNCATED},
        {"only one line end removed", "abc\r\n", nullptr, 8, "abc\r", QM_VAR_OK},
        {"carriage return alone", "abc\r", nullptr, 8, "abc", QM_VAR_OK},
        {"first line only", "one\ntwo\n", nullptr, 8, "one", QM_VAR_OK},
        {"empty file", "", nullptr, 8, "", QM_VAR_OK},
        {"line longer than Line", std::string(5000, 'a'), nullptr, 8192, std::string(QM_LINE_SIZE - 1, 'a'),
         QM_VAR_OK},
        {"= must follow the key", "ipv6=::1\nip=1.2.3.4\n", "ip", 32, "1.2.3.4", QM_VAR_OK},
        {"longer key only", "ipv6=::1\n", "ip", 32, "", QM_VAR_MISSING},
        {"blank before =", "ip =1\n", "ip", 32, "", QM_VAR_MISSING},
        {"first match wins", "ip=1\nip=2\n", "ip", 32, "1", QM_VAR_OK},
        {"last line loses a character", "ip=abc", "ip", 32, "ab", QM_VAR_OK},
        {"cut to size", "ip=abcdef\n", "ip", 4, "abc", QM_VAR_OK},
        {"empty value at end", "ip=", "ip", 32, "", QM_VAR_OK},
    };
    char dir[] = "/tmp/util_var.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/var", absent = std::string(dir) + "/absent";
    for (const Case &c : cases) {
        std::vector<char> out(c.size, 'X');
        std::ofstream(path, std::ios::binary | std::ios::trunc) << c.content;
        EXPECT_EQ(c.key ? get_logvar(path.c_str(), c.key, out.data(), c.size)
                        : get_filevar(path.c_str(), out.data(), c.size), c.code) << c.desc;
        EXPECT_EQ(out.data(), c.out) << c.desc;
    }
    char out[4] = "zz";
    EXPECT_EQ(get_logvar(absent.c_str(), "ip", out, sizeof out), QM_VAR_MISSING);
    EXPECT_EQ(get_filevar(absent.c_str(), out, sizeof out), QM_VAR_MISSING);
    EXPECT_STREQ(out, "");
    std::filesystem::remove_all(dir);
}

}  // namespace
