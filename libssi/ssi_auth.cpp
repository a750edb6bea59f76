// Sections shown by authentication ("isAuth") or by a data-model value
// ("check", "unCheck").
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_session.h"
#include "qm_webauth.h"
#include "quelm_owned.h"
#include "ssi_render.h"

namespace cgissi::ssi {
namespace {

// Field sizes in bytes.
constexpr std::size_t kLevelSize = 64;           // isAuth level, block-user name
constexpr std::size_t kBlockKeySize = 32;        // key and block-user name after "&" in an isAuth value
constexpr std::size_t kCheckFieldSize = 64;      // check: expected value, include kind and path
constexpr std::size_t kSessionValueSize = 64;    // session USER, PASSWORD, REMOTE_ADDR
constexpr std::size_t kServicesSize = 256;       // session SERVICES
constexpr std::size_t kAuthorizationSize = 256;  // "Embedded username=... password=..."

// Text buffer of N characters and a spare terminator: the session and
// property readers do not terminate a value that fills N.
template <std::size_t N>
struct Text {
    char data[N + 1] = {};
    static constexpr int size = static_cast<int>(N);
};

const char *realm_env() { return cgiRequestVariable("QUELM_REALM"); }

// "<realm>_<level>", the key a services list must contain.
std::string realm_key(const char *level) {
    const char *realm = realm_env();
    return std::string(realm != nullptr ? realm : "") + "_" + level;
}

int session_info(const char *key, char *out, int size) {
    return QM_GetSessionInfo(QM_SessionToken, key, out, size);
}

// "level" or "level&blkpwd=name". Anything else leaves both empty.
void get_level_blkpwd(const char *value, Text<kLevelSize> &level, Text<kLevelSize> &block_user) {
    Text<kLevelSize> scanned_level;
    Text<kBlockKeySize> key;
    Text<kBlockKeySize> name;
    const int fields = std::sscanf(value, "%64[a-zA-Z_]&%32[a-zA-Z]=%32[a-zA-Z]", scanned_level.data, key.data,
                                   name.data);
    static_assert(kLevelSize == 64 && kBlockKeySize == 32, "scan widths above");
    if (fields == 3) {
        std::memcpy(level.data, scanned_level.data, sizeof level.data);
        if (std::strcmp(key.data, "blkpwd") == 0) std::memcpy(block_user.data, name.data, sizeof name.data);
    } else if (fields == 1) {
        std::memcpy(level.data, scanned_level.data, sizeof level.data);
    }
}

// The platform's verdict on the session's user: negative not authorised,
// 0 authorised for everything, positive subject to `services`.
int is_authentifed(const char *path, Text<kServicesSize> &services) {
    Text<kSessionValueSize> remote;
    Text<kSessionValueSize> user;
    Text<kSessionValueSize> password;
    session_info("REMOTE_ADDR", remote.data, remote.size);
    session_info("USER", user.data, user.size);
    session_info("PASSWORD", password.data, password.size);
    session_info("SERVICES", services.data, services.size);
    char authorization[kAuthorizationSize];
    std::snprintf(authorization, sizeof authorization, "Embedded username=\"%s\" password=\"%s\"", user.data,
                  password.data);
    return webauth_check_auth(0, 0, path, authorization, realm_env(), remote.data);
}

// Next index of a "1,3,7" instance list: false when no number is left;
// otherwise `pos` moves past the next "," (or to the end).
bool next_user_index(const char *&pos, int &index) {
    if (std::sscanf(pos, "%d", &index) != 1) return false;
    const char *comma = std::strchr(pos, ',');
    pos = comma != nullptr ? comma + 1 : pos + std::strlen(pos);
    return true;
}

// Logs the visitor in as the enabled, password-less user `block_user` whose
// services grant `level`. Returns 1 when one was found.
int is_user_authorized(const char *block_user, const char *level) {
    quelm::MallocString list(QM_DAT_getobjcount("User"));
    if (list == nullptr) return 0;
    const std::string key = realm_key(level);
    const char *pos = list.get();
    int index = 0;
    while (next_user_index(pos, index)) {
        const std::string object = "User_" + std::to_string(index);
        int enable = 0;
        int is_user = 0;
        Text<kLevelSize> username;
        Text<kLevelSize> password;
        Text<kLevelSize> services;
        GetPropertyIntValue(object.c_str(), "Enable", &enable);
        GetPropertyIntValue(object.c_str(), "User", &is_user);
        GetPropertyStrValue(object.c_str(), "Username", username.data, username.size);
        GetPropertyStrValue(object.c_str(), "Password", password.data, password.size);
        GetPropertyStrValue(object.c_str(), "Services", services.data, services.size);
        if (std::strstr(services.data, key.c_str()) == nullptr || std::strcmp(username.data, block_user) != 0 ||
            enable == 0 || is_user == 0 || password.data[0] != '\0')
            continue;
        QM_RemoveSessionInfo(QM_SessionToken, "USER");
        QM_RemoveSessionInfo(QM_SessionToken, "PASSWORD");
        QM_RemoveSessionInfo(QM_SessionToken, "SERVICES");
        QM_SetSessionInfo(QM_SessionToken, "USER", block_user);
        QM_SetSessionInfo(QM_SessionToken, "PASSWORD", "");
        QM_SetSessionInfo(QM_SessionToken, "SERVICES", services.data);
        return 1;
    }
    return 0;
}

}  // namespace

void do_auth(const Call &call) {
    Text<kLevelSize> level;
    Text<kLevelSize> block_user;
    get_level_blkpwd(call.value.c_str(), level, block_user);
    SectionState &s = call.page.sections;
    const bool no_realm = std::strcmp(level.data, "no_realm") == 0;
    const bool forbidden = std::strcmp(block_user.data, "forbidden") == 0;

    int result = -1;
    Text<kServicesSize> services;
    if (!no_realm) {
        result = is_authentifed(call.page.path_info.c_str(), services);
        if (result < 0) {
            s.is_auth = block_user.data[0] != '\0' && is_user_authorized(block_user.data, level.data) != 0 &&
                                !forbidden
                            ? 1
                            : 0;
            return;
        }
    }
    if (no_realm || result == 0) {
        s.is_auth = 1;
    } else {
        s.is_auth = std::strstr(services.data, realm_key(level.data).c_str()) != nullptr ? 1 : 0;
    }
    // "blkpwd=forbidden": only for visitors who logged in with a password.
    if (forbidden) {
        Text<kSessionValueSize> password;
        session_info("PASSWORD", password.data, password.size);
        if (password.data[0] == '\0') s.is_auth = 0;
    }
}

void do_check(const Call &call) {
    const std::size_t split = call.tag.rfind('_');
    if (split == std::string::npos) return;
    const std::string object = call.tag.substr(0, split);
    const std::string property = call.tag.substr(split + 1);
    {
        quelm::MallocString xml_path(QM_DAT_objname2xmlpath(object.c_str()));
        std::int32_t type = 0;
        if (xml_path == nullptr || QM_XML_gettype(xml_path.get(), &type) != 0) return;
    }

    Text<kCheckFieldSize> actual;
    GetPropertyStrValue(object.c_str(), property.c_str(), actual.data, actual.size);

    Text<kCheckFieldSize> expected;
    Text<kCheckFieldSize> kind;
    Text<kCheckFieldSize> include;
    static_assert(kCheckFieldSize == 64, "scan widths below");
    if (call.value.starts_with('&')) {
        std::sscanf(call.value.c_str(), "&%64[a-zA-Z]=%64[a-zA-Z0-9:._]", kind.data, include.data);
    } else {
        std::sscanf(call.value.c_str(), "%64[a-zA-Z0-9:.]&%64[a-zA-Z]=%64[a-zA-Z0-9:._]", expected.data, kind.data,
                    include.data);
    }

    const bool differ = std::strncmp(expected.data, actual.data, kCheckFieldSize) != 0;
    bool fires = false;
    if (call.directive.substr(0, 5) == "check") {
        fires = differ;
    } else if (call.directive.substr(0, 7) == "unCheck") {
        fires = !differ;
    }
    if (!fires) return;
    if (include.data[0] != '\0') {
        const std::string include_kind = kind.data;
        const std::string include_path = include.data;
        do_include(Call{call.page, call.virtual_name, call.file_name, call.file_status, "include", include_kind, include_path});
    }
    call.page.sections.is_check = 0;
}

}  // namespace cgissi::ssi
