// Web authentication against the data model's users.
#include "qm_webauth.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qm_config.h"
#include "quelm_guard.h"
#include "quelm_html.h"
#include "quelm_http.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace quelm::webauth {
namespace {

constexpr std::string_view kAuthPrefix = "Embedded username=\"";
constexpr std::string_view kAuthMiddle = "\" password=\"";
constexpr std::size_t kMaxInstanceList = 8192;  // "1,2,..." of the User list
constexpr std::size_t kMaxReason = 128;

struct Credentials {
    std::string_view username;
    std::string_view password;
};

// Embedded username="NAME" password="PASSWORD": the name ends at the first
// `" password="`, the password at the final `"`.
std::optional<Credentials> parse_authorization(std::string_view text) {
    if (text.size() > WEBAUTH_MAX_AUTHORIZATION || text.substr(0, kAuthPrefix.size()) != kAuthPrefix ||
        text.size() < kAuthPrefix.size() + kAuthMiddle.size() + 1 || text.back() != '"')
        return std::nullopt;
    text.remove_prefix(kAuthPrefix.size());
    text.remove_suffix(1);
    std::size_t middle = text.find(kAuthMiddle);
    if (middle == std::string_view::npos) return std::nullopt;
    Credentials c{text.substr(0, middle), text.substr(middle + kAuthMiddle.size())};
    if (c.username.empty() || c.username.size() > WEBAUTH_MAX_USERNAME || c.password.size() > WEBAUTH_MAX_PASSWORD)
        return std::nullopt;
    return c;
}

// Time depends on the longer length only, not on where the texts differ.
bool equal_constant_time(std::string_view a, std::string_view b) {
    std::size_t n = a.size() > b.size() ? a.size() : b.size();
    volatile unsigned char diff = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
        unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
        diff = static_cast<unsigned char>(diff | (x ^ y));
    }
    return diff == 0;
}

// A value from the configuration library, which the caller frees.
using Value = quelm::MallocString;

Value property(const std::string &object, const char *name) {
    return Value(QM_DAT_getobjproperty(object.c_str(), name));
}

bool non_zero(const Value &v) { return v != nullptr && std::atoi(v.get()) != 0; }

// Keeps the library open for the duration of a check without disturbing
// the process's own QM_Cfg_Init, and restores the shared error code.
class LibraryScope {
public:
    LibraryScope() : saved_error_(QM_err_get()) { QM_Cfg_Init(1); }
    ~LibraryScope() {
        QM_Cfg_Free();
        QM_err_set(saved_error_);
    }
    LibraryScope(const LibraryScope &) = delete;
    LibraryScope &operator=(const LibraryScope &) = delete;

private:
    int saved_error_;
};

int check(const Credentials &c, std::string_view realm) {
    Value list(QM_DAT_getobjcount("User"));
    if (list == nullptr) return -1;
    std::string_view numbers(list.get(), strnlen(list.get(), kMaxInstanceList));
    int result = -1;
    if (numbers.empty()) return result;
    // The first user whose name, password and realm match decides.
    quelm::split(numbers, ',', [&](std::string_view number) {
        std::string object = "User_" + std::string(number);
        Value username = property(object, "Username");
        if (username == nullptr || std::string_view(username.get()) != c.username) return true;
        if (!non_zero(property(object, "Enable")) || !non_zero(property(object, "User"))) return true;
        Value password = property(object, "Password");
        if (password == nullptr || !equal_constant_time(password.get(), c.password)) return true;
        if (realm.empty()) {
            result = 0;
            return false;
        }
        Value services = property(object, "Services");
        std::string_view granted = services != nullptr ? services.get() : "";
        if (granted.find(realm) == std::string_view::npos) return true;
        std::string admin_key = std::string(realm) + "_admin";
        result = granted.find(admin_key) != std::string_view::npos ? 0 : 1;
        return false;
    });
    return result;
}

}  // namespace
}  // namespace quelm::webauth

extern "C" {

int webauth_check_auth(int, int, const char *, const char *authorization, const char *realm, const char *) {
    using namespace quelm::webauth;
    if (authorization == nullptr) return -1;
    auto credentials =
        parse_authorization(std::string_view(authorization, strnlen(authorization, WEBAUTH_MAX_AUTHORIZATION + 1)));
    if (!credentials) return -1;
    return quelm::guarded(-1, __func__, [&] {
        LibraryScope scope;
        return check(*credentials, realm != nullptr ? realm : "");
    });
}

int webauth_send_http_error_message(int status, const char *reason, char *out, size_t size) {
    return quelm::guarded(-1, __func__, [&] {
        using namespace quelm::webauth;
        if (out == nullptr || size == 0) return -1;
        out[0] = '\0';
        if (status < 100 || status > 599) return -1;
        // The reason goes into a header line: no line breaks, bounded.
        char header_reason[kMaxReason];
        quelm::copy_cut(header_reason, sizeof header_reason,
                        reason != nullptr ? reason : quelm::reason_phrase(status));
        for (char *p = header_reason; *p != '\0'; ++p)
            if (*p == '\r' || *p == '\n') *p = ' ';
        const std::string body_reason = quelm::html_escape(header_reason);
        int n = std::snprintf(out, size,
                              "Status: %d %s\r\nContent-Type: text/html\r\n\r\n"
                              "<HTML><HEAD><TITLE>%d %s</TITLE></HEAD><BODY><H1>%d %s</H1></BODY></HTML>\n",
                              status, header_reason, status, body_reason.c_str(), status, body_reason.c_str());
        if (n < 0 || static_cast<std::size_t>(n) >= size) {
            out[0] = '\0';
            return -1;
        }
        return n;
    });
}

}  // extern "C"
