// login.cgi: logs a data-model user ("User_<n>") into the current browser
// session, by signature (the password never travels) or by plain password,
// and lets a user change a password sent encrypted.
//
// A successful login writes "USER", "PASSWORD" and "SERVICES" into the
// session file; pages and the rights checks read them from there. Wrong
// logins count towards "MaxTry" of Services_IADConfigurator; while
// "TimeBlock" lies ahead logins fail unchecked (see util/policy.h for the
// legacy policy).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <strings.h>

#include "cgi_output.h"
#include "cgic.h"
#include "json/json_writer.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_config_records.h"
#include "qm_login.h"
#include "qm_session.h"
#include "qm_token.h"
#include "quelm_text.h"
#include "quelm_escape.h"
#include "quelm_guard.h"
#include "quelm_log.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "session/session_store.h"
#include "util/policy.h"

namespace cgissi::auth {
namespace {

// Form field buffers, terminator included. A value that does not fit counts
// as not supplied.
constexpr int kCustAuthSize = 64;
constexpr int kSeedSize = 1024;
constexpr int kLevelSize = 128;
constexpr int kRequestSize = 64;
constexpr int kLoginSize = 64;
constexpr int kPasswordSize = 64;
constexpr int kTokenFieldSize = QM_TOKEN_FIELD_SIZE;
constexpr int kRedirectSize = 4;

// Copies of user records while the signatures are checked.
constexpr std::size_t kRecordBufferSize = 1024;
// Session lookups of "USER"; one spare zero byte follows.
constexpr int kSessionUserSize = 64;
constexpr std::size_t kSuffixLength = 8;  // "Username", "Password", "Services"
constexpr std::size_t kUserPrefixLength = 5;  // "User_"

constexpr const char *kIad = "Services_IADConfigurator";
constexpr const char *kNoRealm = "no_realm";
constexpr const char *kDefaultLogin = "admin";
constexpr const char *kAuthenticationRequest = "authentication";
constexpr const char *kVendorLibrary = "/lib/webauth_vendor.so";
constexpr const char *kVendorFunction = "webauth_check";
constexpr int kVendorAccept = 1;
constexpr int kModeChangePassword = 0;
constexpr int kModeLogin = 1;
// compat: the password and login messages name the design's function that
// made them, whichever helper now writes them.
constexpr const char *kUpdateSessionUser = "update_session_user";

// HTTP status of a login that cannot be served: the request has no session.
constexpr int kNoSessionStatus = 403;

using PlatformText = quelm::MallocString;

using Records = quelm::ConfigRecords;

class Library {
  public:
    explicit Library(const std::string &path) : handle_(::dlopen(path.c_str(), RTLD_LAZY)) {}
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() {
        if (handle_ != nullptr) ::dlclose(handle_);
    }
    void *get() const { return handle_; }

  private:
    void *handle_;
};

using VendorCheck = int (*)(int, const char *, const char *, const char *);

const char *realm() { return QM_SessionRealm != nullptr ? QM_SessionRealm : ""; }

bool has_line_break(const char *s) { return s != nullptr && std::strpbrk(s, "\r\n") != nullptr; }

// A form field that is there, not empty and fits its buffer.
bool form_value(const char *name, char *out, int size) {
    return cgiFormString(name, out, size) == cgiFormSuccess;
}

// Constant time over the longer text once the lengths agree.
bool same_secret(const char *a, const char *b) {
    std::size_t la = std::strlen(a), lb = std::strlen(b);
    return la == lb && CRYPTO_memcmp(a, b, la) == 0;
}

bool property(const std::string &object, const char *name, std::string &out) {
    PlatformText value(QM_DAT_getobjproperty(object.c_str(), name));
    if (!value) return false;
    out = value.get();
    return true;
}

int int_property(const std::string &object, const char *name) {
    int value = 0;
    GetPropertyIntValue(object.c_str(), name, &value);
    return value;
}

void copy_bounded(char *out, std::size_t size, const char *value) {
    quelm::copy_cut(out, size, value != nullptr ? value : "");
}

void remove_login() {
    QM_RemoveSessionInfo(QM_SessionToken, "USER");
    QM_RemoveSessionInfo(QM_SessionToken, "PASSWORD");
    QM_RemoveSessionInfo(QM_SessionToken, "SERVICES");
}

// Writes the three login entries. A value with a line break would add
// entries of its own to the session file; it is refused, and so is a write
// the store does not take. Nothing of a refused login stays behind.
bool store_login(const char *login, const char *password, const char *services) {
    if (has_line_break(login) || has_line_break(password) || has_line_break(services)) {
        quelm::log::print(LOG_ERR, "%s %d: refused a login value with a line break", kUpdateSessionUser,
                          __LINE__);
        remove_login();
        return false;
    }
    bool stored = QM_SetSessionInfo(QM_SessionToken, "USER", login) == 1 &&
                  QM_SetSessionInfo(QM_SessionToken, "PASSWORD", password) == 1 &&
                  QM_SetSessionInfo(QM_SessionToken, "SERVICES", services) == 1;
    if (!stored) remove_login();
    return stored;
}

// A password posted by the password page: base64 of the cipher text keyed
// by the form's "token" field. False when it is not such a text.
bool decrypt_posted_password(const char *posted, char *out, std::size_t size) {
    char key[kTokenFieldSize] = {};
    cgiFormString("token", key, sizeof key);
    char hex[QM_CRYPT_BUFFER_SIZE];
    if (decode64(posted, hex, sizeof hex) == nullptr) return false;
    return decrypt_post_value(key, hex, out, size) != nullptr;
}

// The logged-in user changes the password (mode 0); given already matched.
int change_password(const char *services, const char *object) {
    char posted[kPasswordSize];
    if (!form_value("newpassword1", posted, sizeof posted)) return 0;
    char fresh[QM_CRYPT_BUFFER_SIZE];
    if (!decrypt_posted_password(posted, fresh, sizeof fresh)) {
        QM_LOG_print("%s %d: new password of %s is not an encrypted value", kUpdateSessionUser, __LINE__, object);
        return 0;
    }
    if (has_line_break(posted) || has_line_break(services) || has_line_break(fresh)) {
        quelm::log::print(LOG_ERR, "%s %d: refused a password with a line break", kUpdateSessionUser, __LINE__);
        return 0;
    }
    if (QM_HasSession() != 0) {
        // The session keeps the password as the page sent it (encrypted).
        QM_RemoveSessionInfo(QM_SessionToken, "PASSWORD");
        QM_SetSessionInfo(QM_SessionToken, "PASSWORD", posted);
        QM_SetSessionInfo(QM_SessionToken, "SERVICES", services);
    }
    if (SetPropertyStrValue(object, "Password", fresh) != 0) {
        QM_LOG_print("%s %d: failed to set %s_Password", kUpdateSessionUser, __LINE__, object);
        return 0;
    }
    QM_FILE_commit(0);
    return 1;
}

int call_vendor_extension(int number, const char *login, const char *stored, const char *given) {
    Library library(quelm::root_path(kVendorLibrary));
    if (library.get() == nullptr) return -ENOENT;
    ::dlerror();
    auto check = reinterpret_cast<VendorCheck>(::dlsym(library.get(), kVendorFunction));
    if (check == nullptr) {
        const char *error = ::dlerror();
        // compat: the trailing newline of the message is the design's.
        quelm::log::print(LOG_ERR, "Failed to extract handle to webauth_check : %s\n", error != nullptr ? error : "");
        return -ENOENT;
    }
    int answer = check(number, login, stored, given);
    quelm::log::print(LOG_DEBUG, "Got %d for external vendor function", answer);
    return answer;
}

int update_session_user(const char *login, const char *given, const char *stored, const char *services, int number,
                        int mode, const char *object) {
    if (QM_HasSession() != 0) {
        char user[kSessionUserSize + 1] = {};
        // Another user logging into this session first drops the previous one.
        if (QM_GetSessionInfo(QM_SessionToken, "USER", user, kSessionUserSize) == 1 && user[0] != '\0' &&
            std::strcmp(user, login) != 0) {
            remove_login();
        }
    }
    if (mode == kModeLogin && call_vendor_extension(number, login, stored, given) == kVendorAccept) {
        return store_login(login, given, services) ? 1 : 0;
    }
    char decrypted[QM_CRYPT_BUFFER_SIZE] = {};
    if (mode == kModeChangePassword) {
        if (!decrypt_posted_password(given, decrypted, sizeof decrypted)) return 0;
        given = decrypted;
    }
    if (!same_secret(given, stored)) return 0;
    if (mode == kModeLogin) {
        remove_login();
        return store_login(login, given, services) ? 1 : 0;
    }
    return change_password(services, object);
}

std::string user_object(int number) { return "User_" + std::to_string(number); }

// The "User" instances whose Enable and User are set and whose Services
// hold word as one of its ","-separated items, as the data model's path
// query selects them; their records in order.
Records signature_candidates(const char *level) {
    std::string filter = "User_*[Enable=1][User=1][Services?=web_";
    filter.append(realm());
    if (std::strcmp(level, kNoRealm) != 0) filter.append("_").append(level);
    filter.append("]");
    return Records(QM_DAT_getobjdata(filter.c_str(), 0));
}

// A failed login counts towards MaxTry; reaching it sets TimeBlock. The
// legacy policy blocks only on the exact count (a count past it never blocks
// again); by default every MaxTry failures start a new block.
void count_failed_login() {
    int max_try = int_property(kIad, "MaxTry");
    int try_delay = int_property(kIad, "TryDelay");
    int number_try = int_property(kIad, "NumberTry") + 1;
    const bool compat = cgissi::policy::compat_mode();
    if (compat ? number_try == max_try : max_try > 0 && number_try >= max_try) {
        char block[32];
        std::snprintf(block, sizeof block, "%ld", static_cast<long>(std::time(nullptr)) + try_delay);
        SetPropertyStrValue(kIad, "TimeBlock", block);
        if (!compat) number_try = 0;
    }
    SetPropertyIntValue(kIad, "NumberTry", number_try);
    QM_FILE_commit(0);
}

// By default no login is checked while TimeBlock lies ahead; the legacy
// policy leaves that to the web authentication library.
bool logins_blocked() {
    if (cgissi::policy::compat_mode()) return false;
    std::string block;
    if (!property(kIad, "TimeBlock", block)) return false;
    const long until = std::strtol(block.c_str(), nullptr, 10);
    if (until <= static_cast<long>(std::time(nullptr))) return false;
    quelm::log::print(LOG_WARNING, "login from %s refused without a check: logins are blocked until %ld",
                      cgiRemoteAddr, until);
    return true;
}

int parse_config_auth_signature(const char *seed, const char *level, int mode) {
    // The session token is the signature's key: no session, no signed login.
    if (QM_HasSession() == 0) return 0;
    Records records = signature_candidates(level);
    char user[kRecordBufferSize] = {};
    char password[kRecordBufferSize] = {};
    char services[kRecordBufferSize] = {};
    const QM_DAT_record *matched = nullptr;
    for (const QM_DAT_record *r = records.get(); r != nullptr; r = r->next) {
        std::string_view name = r->name != nullptr ? r->name : "";
        if (name.size() != kSuffixLength) {
            if (name.ends_with("Username")) copy_bounded(user, sizeof user, r->value);
            else if (name.ends_with("Password")) copy_bounded(password, sizeof password, r->value);
            else if (name.ends_with("Services")) copy_bounded(services, sizeof services, r->value);
        }
        if (user[0] == '\0' || password[0] == '\0' || services[0] == '\0') continue;
        if (check_sha_sig(user, password, QM_SessionToken, seed) == 1) {
            matched = r;
            break;
        }
        QM_LOG_print("Signature failed");
        user[0] = password[0] = services[0] = '\0';
        count_failed_login();
    }
    if (matched == nullptr) return 0;
    int number = static_cast<int>(std::strtol(matched->name + kUserPrefixLength, nullptr, 10));
    std::string object = user_object(number);
    int result = update_session_user(user, password, password, services, number, mode, object.c_str());
    SetPropertyIntValue(kIad, "NumberTry", 0);
    QM_FILE_commit(0);
    return result;
}

int retrieve_password(const char *login, const char *password, const char *level, int mode) {
    PlatformText list(QM_DAT_getobjcount("User"));
    if (!list) return 0;
    std::string level_word;
    if (level != nullptr && std::strcmp(level, kNoRealm) != 0) level_word.append(realm()).append("_").append(level);
    int result = 0;
    int number = 0;
    const char *rest = list.get();
    do {
        rest = next_item(rest, &number);
        if (number == 0) break;
        std::string object = user_object(number);
        std::string services, username, stored;
        if (int_property(object, "Enable") == 0 || int_property(object, "User") == 0) continue;
        if (!property(object, "Services", services) || services.find(realm()) == std::string::npos) continue;
        if (!property(object, "Username", username) || username != login) continue;
        if (!level_word.empty() && services.find(level_word) == std::string::npos) continue;
        property(object, "Password", stored);
        result = update_session_user(login, password, stored.c_str(), services.c_str(), number, mode,
                                     object.c_str());
    } while (rest != nullptr);
    return result;
}

// status 0 writes the answer as pages have always got it; any other status
// puts a header block of its own before those same bytes.
void redirect_html(const char *url, bool failed, int status = 0) {
    if (status != 0) cgi_out_status_header(status, "text/html");
    // compat: the first line names no header; the pages' scripts have always
    // got it this way.
    cgi_out_printf("text/html\r\n\r\n<HTML>\n");
    // The target is request text (the referrer): it is escaped for the
    // script string it lands in.
    url = cgissi::policy::home_target(url);
    cgi_out_printf("<script>\r\ndocument.location.replace(\"%s%s\");\r\n</script>\r\n",
                   quelm::script_string(url != nullptr ? url : "").c_str(), failed ? "?pwd=ko" : "");
    cgi_out_printf("</HTML>\n");
    cgi_out_flush();
}

void redirect_json(bool failed, int status = 0) {
    if (status != 0) cgi_out_status_header(status, "text/plain");
    cgi_out_printf("text/plain\r\n\r\n");
    json::Writer answer(json::kLoginLayout);
    answer.begin_object();
    answer.key("result");
    answer.string(failed ? "Invalid Username or password" : "OK", json::Escape::strict);
    answer.key("codeError");
    answer.number(failed ? -1 : 0);
    answer.end_object();
    answer.raw("\r\n");
    cgi_out_flush();
}

void redirect(int ok, const char *referrer, int status = 0) {
    char target[kRedirectSize];
    // Read with one byte less than the buffer: "no" asks for the JSON answer
    // and anything of three characters or more (pages send "yes") falls back
    // to the referring page.
    if (cgiFormString("redirect", target, kRedirectSize - 1) != cgiFormSuccess) {
        if (ok != 0) QM_err_set(0);
        redirect_html(referrer, ok == 0, status);
    } else if (strcasecmp(target, "no") == 0) {
        redirect_json(ok == 0, status);
    } else {
        redirect_html(target, ok == 0, status);
    }
}

// HTTP_REFERER without its query; the variable itself is cut too, so that
// the request layer sees the same page.
std::string referring_page() {
    const char *value = std::getenv("HTTP_REFERER");
    if (value == nullptr) return "";
    std::string page = value;
    std::size_t query = page.find('?');
    if (query != std::string::npos) {
        page.resize(query);
        setenv("HTTP_REFERER", page.c_str(), 1);
    }
    return page;
}

// ".../password.htm" gives ".../passwordOK.htm".
std::string success_page(const std::string &referrer) {
    std::size_t dot = referrer.rfind('.');
    return referrer.substr(0, dot) + "OK.htm";
}

// By default a successful login moves the session to a fresh token and
// sends its cookie (after the request loop's, which it overrides), so a
// token planted or seen before the login is worth nothing. The legacy
// policy keeps the token.
void renew_session_at_login(int result) {
    if (result != 1 || cgissi::policy::compat_mode()) return;
    if (!cgissi::session::renew_session()) return;
    cgi_out_printf("Set-Cookie: %s=%s;  Path=/; SameSite=Strict; \r\n", QM_SessionName, QM_SessionToken);
}

void signed_login(const std::string &referrer) {
    char seed[kSeedSize];
    char level[kLevelSize];
    int result = 0;
    if (!logins_blocked() && form_value("seed", seed, sizeof seed) && form_value("level", level, sizeof level)) {
        result = parse_config_auth_signature(seed, level, kModeLogin);
    }
    quelm::log::print(result == 1 ? LOG_INFO : LOG_WARNING, "signed login from %s %s", cgiRemoteAddr,
                      result == 1 ? "accepted" : "refused: no user's signature matched, or a field is missing");
    renew_session_at_login(result);
    redirect(result, referrer.c_str());
}

void plain_login(const std::string &referrer) {
    char login[kLoginSize];
    char password[kPasswordSize];
    char level[kLevelSize];
    int result = 0;
    if (form_value("login", login, sizeof login) && form_value("password", password, sizeof password) &&
        form_value("level", level, sizeof level) && QM_HasSession() != 0 && !logins_blocked()) {
        result = retrieve_password(login, password, level, kModeLogin);
        // The legacy policy counts signature failures only.
        if (result != 1 && !cgissi::policy::compat_mode()) count_failed_login();
    }
    quelm::log::print(result == 1 ? LOG_INFO : LOG_WARNING, "login of user '%s' from %s %s",
                      form_value("login", login, sizeof login) ? login : "", cgiRemoteAddr,
                      result == 1 ? "accepted" : "refused (unknown user, wrong password or level, or missing field)");
    renew_session_at_login(result);
    redirect(result, referrer.c_str());
}

// By default only the signed-in user changes his own password: the
// session's USER must be that login. The legacy policy asks only for the
// current password.
bool signed_in_as(const char *login) {
    if (cgissi::policy::compat_mode()) return true;
    char user[kSessionUserSize + 1] = {};
    const bool same = QM_HasSession() != 0 &&
                      QM_GetSessionInfo(QM_SessionToken, "USER", user, kSessionUserSize) == 1 &&
                      std::strcmp(user, login) == 0;
    if (!same) quelm::log::print(LOG_WARNING, "password change of '%s' from %s refused: not signed in as that user",
                                 login, cgiRemoteAddr);
    return same;
}

void password_change(const std::string &referrer) {
    char current[kPasswordSize];
    if (!form_value("currentpassword", current, sizeof current)) return;
    char login[kLoginSize];
    if (!form_value("login", login, sizeof login)) copy_bounded(login, sizeof login, kDefaultLogin);
    if (!signed_in_as(login) || logins_blocked()) {
        redirect_html(referrer.c_str(), true);
        return;
    }
    const int result = retrieve_password(login, current, nullptr, kModeChangePassword);
    // The legacy policy does not count wrong current passwords.
    if (result != 1 && !cgissi::policy::compat_mode()) count_failed_login();
    if (result == 1) {
        redirect_html(success_page(referrer).c_str(), false);
    } else {
        redirect_html(referrer.c_str(), true);
    }
}

// Signed and plain logins write into the session, so without one they can
// only fail; the answer says so with a status (the session was refused by
// the request loop, which logged why).
void refuse_without_session(const std::string &referrer) {
    QM_LOG_print("%s %d: login refused: the request has no session", __func__, __LINE__);
    redirect(0, referrer.c_str(), kNoSessionStatus);
}

void serve_login(const std::string &referrer) {
    char cust_auth[kCustAuthSize];
    char request[kRequestSize];
    const bool custom = form_value("cust_auth", cust_auth, sizeof cust_auth);
    const bool has_request = custom && form_value("request", request, sizeof request);
    const bool change = has_request && std::strcmp(request, kAuthenticationRequest) != 0;
    // A password change needs no session: it proves the current password.
    if (!change && QM_HasSession() == 0) {
        refuse_without_session(referrer);
    } else if (!custom) {
        signed_login(referrer);
    } else if (change) {
        password_change(referrer);
    } else if (has_request) {
        plain_login(referrer);
    }
}

}  // namespace
}  // namespace cgissi::auth

extern "C" int login_cgi(int, char **) {
    return quelm::guarded(0, __func__, [] {
        using namespace cgissi::auth;
        QM_err_set(0);
        std::string referrer = referring_page();
        if (cgiInitResources(nullptr) != 0) {
            // The design's answer to a refused body is empty; it gets a
            // header block so that the browser gets a valid answer.
            cgi_out_status_header(cgiRefusedStatus(), "text/html");
            return 0;
        }
        set_cgierror(QM_err_get());
        serve_login(referrer);
        cgiFreeResources();
        return 0;
    });
}
