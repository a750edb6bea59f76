// Validators of form input and the address formatters.

#include <cstdio>

#include "qm_util.h"
#include "util/text_scan.h"

namespace {

using quelm::util::scan_hex;
using quelm::util::scan_int;
using quelm::util::scan_literal;

constexpr int kMaxOctet = 255;
constexpr int kMaxPort = 65535;
constexpr std::uint32_t kMulticastBase = 0xE0000000u;  // 224.0.0.0

// Every byte of text satisfies accept; the empty text does.
template <typename Accept>
int check_all(const char *text, Accept accept) {
    if (text == nullptr) return 0;
    for (; *text != '\0'; ++text) {
        if (!accept(static_cast<signed char>(*text))) return 0;
    }
    return 1;
}

bool alphanum(signed char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}

bool octet(int v) { return v >= 0 && v <= kMaxOctet; }

// Reads "%d.%d.%d.%d" and, when fields is 5, ":%d" after it. Returns the
// number of fields read, as sscanf would.
int scan_address(const char *text, int *v, int fields) {
    static constexpr char kSeparators[] = {'\0', '.', '.', '.', ':'};
    const char *p = text;
    for (int i = 0; i < fields; ++i) {
        if (i > 0 && !scan_literal(p, kSeparators[i])) return i;
        if (!scan_int(p, v[i])) return i;
    }
    return fields;
}

bool octets(const int *v) { return octet(v[0]) && octet(v[1]) && octet(v[2]) && octet(v[3]); }

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int check_alphanum(char c) { return alphanum(static_cast<signed char>(c)) ? 1 : 0; }

extern "C" int check_name(const char *text) { return check_all(text, alphanum); }

extern "C" int check_internetname(const char *text) {
    return check_all(text, [](signed char c) { return alphanum(c) || c == '.' || c == ','; });
}

extern "C" int check_ascii(const char *text) {
    return check_all(text, [](signed char c) { return c >= 33 && c <= 126; });
}

extern "C" int check_ascii_with_spaces(const char *text) {
    return check_all(text, [](signed char c) { return c >= 32 && c <= 126; });
}

extern "C" int check_ipaddr_port(const char *text) {
    if (text == nullptr) return 0;
    int v[5] = {};
    int n = scan_address(text, v, 5);
    // With a readable port the port decides too; otherwise the plain
    // address form, whatever follows it.
    if (n == 5) return octets(v) && v[4] >= 0 && v[4] <= kMaxPort ? 1 : 0;
    if (n == 4) return octets(v) ? 1 : 0;
    return 0;
}

extern "C" int ipword(const char *text, uint32_t *out) {
    if (text == nullptr) return 0;
    int v[4] = {};
    if (scan_address(text, v, 4) != 4 || !octets(v)) return 0;
    *out = static_cast<uint32_t>(v[0]) << 24 | static_cast<uint32_t>(v[1]) << 16 |
           static_cast<uint32_t>(v[2]) << 8 | static_cast<uint32_t>(v[3]);
    return 1;
}

extern "C" int ipmask(uint32_t mask) {
    int bits = 32;
    uint32_t m = mask;
    // Trailing zero bits are the host part; everything above them must be ones.
    while (bits > 0 && (m & 1u) == 0) {
        m >>= 1;
        --bits;
    }
    if (bits == 0) return 0;
    uint32_t ones = bits == 32 ? 0xFFFFFFFFu : (1u << bits) - 1;
    return m == ones ? bits : 0;
}

extern "C" int iphost(uint32_t address, uint32_t mask) {
    uint32_t host = address & ~mask;
    if ((address & mask) == 0 || host == 0 || host == ~mask) return 0;
    return address < kMulticastBase ? 1 : 0;
}

extern "C" int macword(const char *text, unsigned char *out) {
    if (text == nullptr) return 0;
    uint32_t v[QM_MAC_LEN] = {};
    const char *p = text;
    for (int i = 0; i < QM_MAC_LEN; ++i) {
        if (i > 0 && !scan_literal(p, ':')) return 0;
        if (!scan_hex(p, v[i]) || v[i] > 0xFFu) return 0;
    }
    for (int i = 0; i < QM_MAC_LEN; ++i) out[i] = static_cast<unsigned char>(v[i]);
    // A group (multicast or broadcast) address is parsed but not accepted.
    return (out[0] & 1u) == 0 ? 1 : 0;
}

extern "C" char *ipstr(char *buffer, uint32_t address) {
    std::snprintf(buffer, QM_IPSTR_SIZE, "%u.%u.%u.%u", address >> 24, (address >> 16) & 0xFFu,
                  (address >> 8) & 0xFFu, address & 0xFFu);
    return buffer;
}

extern "C" char *macstr(char *buffer, const unsigned char *bytes) {
    std::snprintf(buffer, QM_MACSTR_SIZE, "%2.2X:%2.2X:%2.2X:%2.2X:%2.2X:%2.2X", bytes[0], bytes[1],
                  bytes[2], bytes[3], bytes[4], bytes[5]);
    return buffer;
}
