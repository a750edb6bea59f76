#include "core/dispatch.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <cstdlib>
#include <strings.h>
#include <string>
#include <string_view>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "cgi_output.h"
#include "cgic.h"
#include "core/handlers.h"
#include "qm_config.h"
#include "qm_session.h"
#include "quelm_guard.h"
#include "quelm_log.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "session/session_store.h"
#include "ssi.h"
#include "qm_token.h"
#include "request/variables.h"
#include "util/policy.h"

namespace cgissi {
namespace {

struct BuiltinCgi {
    char name[kBuiltinNameSize];
    int (*handler)(int, char **);
};

// Searched in this order; the first row's name is what the page renderer
// is started as.
constexpr BuiltinCgi kBuiltins[kBuiltinCount] = {
    {"ssi", ::ssi},
    {"reboot.cgi", reboot_cgi},
    {"firmupgd.cgi", firmware_user_cgi},
    {"nas.cgi", nas_cgi},
    {"generic.cgi", generic_cgi},
    {"firmware.cgi", firmware_cgi},
    {"login.cgi", login_cgi},
    {"import.cgi", import_cgi},
    {"export.cgi", export_cgi},
    {"_info.xml", info_xml_cgi},
};

constexpr std::string_view kSessionNameTemplate = "QM_%s_ID";
constexpr std::size_t kStackLine = 256;  // header lines put together on the stack
constexpr int kNotFoundStatus = 404;      // no built-in and no plugin of that name
constexpr int kSessionLimitStatus = 503;  // no room for a new session

// Identity under which the system log is reopened after a plugin call.
char default_name[kBuiltinNameSize * 8] = "";

std::string_view base_name(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool session_extension(std::string_view ext) {
    return ext == ".htm" || ext == ".html" || ext == ".xml" || ext == ".cgi" || ext == ".js";
}

// Builds the cookie name for the realm. A realm too long for the name keeps
// the previous request's cookie name (kept on purpose: pages of a misconfigured
// server keep working with the last good name).
void set_session_name(const char *realm) {
    const std::size_t length = std::strlen(realm);
    if (kSessionNameTemplate.size() + length - 2 < QM_SESSION_NAME_SIZE) {
        // "QM_%s_ID", put together by hand: this runs for every request.
        char *at = QM_SessionName;
        at = std::copy_n("QM_", 3, at);
        at = std::copy_n(realm, length, at);
        at = std::copy_n("_ID", 3, at);
        *at = '\0';
    } else {
        // compat: "Warnig" as log readers in the field match it.
        QM_LOG_print("Warnig: sizeof realm '%s' set to HttpServer[%s] is too big, please change it !", realm,
                     QM_HttpServerId);
    }
}

// Writes the pieces to the answer as one piece of text, put together on the
// stack when they fit (a cookie line always does, unless a plugin set a
// token of its own).
void write_pieces(std::initializer_list<std::string_view> pieces) {
    std::size_t size = 0;
    for (std::string_view piece : pieces) size += piece.size();
    char small[kStackLine];
    std::string large;
    char *text = small;
    if (size > sizeof small) {
        large.resize(size);
        text = large.data();
    }
    char *at = text;
    for (std::string_view piece : pieces) at = std::copy(piece.begin(), piece.end(), at);
    cgi_out_write(text, size);
}

// Attaches or creates the browser session and writes its cookie line.
// Returns false when no session could be created (the request ends).
bool attach_session() {
    cgiCookie = request::variable_text(request::Variable::HttpCookie);
    cgiUserAgent = request::variable_text(request::Variable::HttpUserAgent);
    cgiRemoteAddr = request::variable_text(request::Variable::RemoteAddr);

    char value[kCookieValueSize];
    int result = cgiCookieString(QM_SessionName, value, sizeof value);
    // A value cut to the buffer is no token of ours: a fresh session.
    if (result == cgiFormTruncated) result = cgiFormNotFound;
    if (result == cgiFormSuccess && QM_InitSession(value) == 0) result = cgiFormNotFound;
    if (result == cgiFormNotFound && QM_CreateSession() == -1) return false;
    // compat: pages and proxies in the field expect this spacing. Not
    // HttpOnly: the pages' signed login reads the token.
    write_pieces({"Set-Cookie: ", QM_SessionName, "=", QM_SessionToken != nullptr ? QM_SessionToken : "",
                  ";  Path=/; ", policy::compat_mode() ? "" : "SameSite=Strict; ", "\r\n"});
    return true;
}

// CGIs whose every request changes state (or hands out the configuration).
constexpr std::string_view kStateChangingCgis[] = {
    "login.cgi", "reboot.cgi", "firmware.cgi", "firmupgd.cgi", "import.cgi", "export.cgi",
};
// generic.cgi fields that change the configuration.
constexpr std::string_view kGenericWriteFields[] = {
    "write", "storeonly", "writes", "create", "clear", "delete", "remove", "reset",
};

// nas.cgi fields that change a disk.
constexpr std::string_view kNasWriteFields[] = {
    "iNasAddFile",        "iNasRenameFile",         "iNasDeleteFile",           "iNasAddThumb",
    "iNasAddPlaylist",    "iNasRenamePlaylist",     "iNasDeletePlaylist",       "iNasAddPlaylistItem",
    "iNasMoveUpPlaylistItem", "iNasMoveDownPlaylistItem", "iNasDeletePlaylistItem",
};

template <std::size_t N>
bool has_field(std::string_view query, const std::string_view (&fields)[N]) {
    bool found = false;
    quelm::split(query, '&', [&](std::string_view item) {
        const std::string_view name = item.substr(0, item.find('='));
        for (std::string_view field : fields) found = found || name == field;
        return !found;
    });
    return found;
}

// CGIs that reboot, flash or hand over the configuration.
constexpr std::string_view kMaintenanceCgis[] = {
    "reboot.cgi", "firmware.cgi", "firmupgd.cgi", "import.cgi", "export.cgi",
};
// Maintenance by default needs an admin's session; the legacy policy
// serves it to anyone its referer test lets through.
bool maintenance_refused(std::string_view cgi) {
    if (policy::compat_mode()) return false;
    for (std::string_view name : kMaintenanceCgis) {
        if (name != cgi) continue;
        if (session::admin_session()) return false;
        quelm::log::print(LOG_WARNING, "%.*s refused to %s: the session is not signed in as an admin",
                          static_cast<int>(cgi.size()), cgi.data(), cgiRemoteAddr != nullptr ? cgiRemoteAddr : "");
        return true;
    }
    return false;
}

// A request that must come from a page of the gateway itself: any POST to
// a built-in CGI, a GET to a CGI that changes state, a generic.cgi GET
// that writes. The page renderer and _info.xml only read.
bool changes_state(std::string_view cgi) {
    if (cgi == "ssi" || cgi == "_info.xml") return false;
    const char *method = request::variable(request::Variable::RequestMethod);
    if (method != nullptr && strcasecmp(method, "GET") != 0 && strcasecmp(method, "HEAD") != 0) return true;
    for (std::string_view name : kStateChangingCgis) {
        if (name == cgi) return true;
    }
    const char *query = request::variable(request::Variable::QueryString);
    if (query == nullptr) return false;
    if (cgi == "generic.cgi") return has_field(query, kGenericWriteFields);
    return cgi == "nas.cgi" && has_field(query, kNasWriteFields);
}

// The session limit is reached: the visitor gets a short page saying so.
void answer_session_limit() {
    cgi_out_status_header(kSessionLimitStatus, "text/html");
    cgi_out_printf("<HTML><BODY>Too many open sessions: please try again later.</BODY></HTML>\n");
    cgi_out_flush();
}

// The built-in row of that name, searched in table order; null when none.
const BuiltinCgi *find_builtin(const char *name) {
    for (const BuiltinCgi &candidate : kBuiltins) {
        if (std::strcmp(candidate.name, name) == 0) return &candidate;
    }
    return nullptr;
}

// Session step of a request: cookie name, limit, flush, then the visitor's
// session when the page kind and the Host call for one. False when the
// request ends here (no room for a new session; the visitor is told).
bool set_up_session(std::string_view ext) {
    bool want_session = srv_skip_session() == 0 && session_extension(ext);

    if (QM_SessionRealm != nullptr) {
        set_session_name(QM_SessionRealm);
    } else {
        QM_SessionRealm = "";
        want_session = false;
        QM_SessionName[0] = '\0';
    }

    session::read_session_limit();
    session::flush_sessions_if_due();

    if (want_session && QM_GetHostSession() != 0) {
        if (!attach_session()) {
            answer_session_limit();
            return false;
        }
    } else if (want_session) {
        const char *host = request::variable(request::Variable::HttpHost);
        quelm::log::print(LOG_WARNING,
                          "no session for this request: host '%s' is not a name of the gateway (Device_Hostname, "
                          "Device_Aliases, the LAN address)",
                          host != nullptr ? host : "");
    }
    return true;
}

// One request: names, session, then the built-in or plugin that answers it.
int serve_request(plugin_registry_handle *registry, int argc, char **argv) {
    // Session and token of the previous request are not this one's.
    session::begin_request();
    remove_last_token_name();
    set_ssi_do_plugin(do_plugin);

    char script_name[sizeof default_name];
    quelm::copy_cut(script_name, sizeof script_name, base_name(argc > 0 && argv[0] != nullptr ? argv[0] : ""));
    quelm::copy_cut(default_name, sizeof default_name, script_name);

    const char *page_env = request::variable(request::Variable::ScriptFilename);
    std::string_view page = page_env != nullptr ? page_env : "";
    std::size_t dot = page.rfind('.');
    if (dot == std::string_view::npos) return -1;
    std::string_view ext = page.substr(dot);

    if (ext == ".cgi") {
        std::size_t slash = page.rfind('/');
        if (slash == std::string_view::npos) {
            // compat: "Mistmatch" as log readers in the field match it.
            QM_LOG_print("Mistmatch plugin_name: %.*s", static_cast<int>(page.size()), page.data());
            return -1;
        }
        quelm::copy_cut(script_name, sizeof script_name, page.substr(slash + 1));
    }

    quelm::log::open(script_name);

    if (call_shared_plugin_no_session(registry, script_name) != 0) {
        return try_call_shared_plugin(script_name, argc, argv);
    }

    if (!set_up_session(ext)) return -1;

    const BuiltinCgi *row = find_builtin(script_name);

    if (row == nullptr) {
        quelm::log::close();
        int result = try_call_shared_plugin(script_name, argc, argv);
        if (result == -1) cgi_out_status_header(kNotFoundStatus, "text/html");
        quelm::log::open(default_name);
        remove_last_token_name();
        QM_clean_session();
        return result;
    }

    quelm::log::close();
    quelm::log::open(script_name);
    QM_LOG_set(1);
    cgiSecureInit(row->name);
    const bool cross_site = !policy::compat_mode() && changes_state(row->name) && !policy::request_is_same_origin();
    if (cross_site || maintenance_refused(row->name) || cgiSecurePostAllowed() == 0) {
        cgiSecurePostAbort();
        return 0;
    }
    return row->handler(argc, argv) != 0 ? -1 : 0;
}

}  // namespace

int init_cgi(plugin_registry_handle *registry) {
    QM_Cfg_Init(1);
    QM_LOG_set(1);
    return init_call_shared_plugin(registry);
}

}  // namespace cgissi

using namespace cgissi;

extern "C" int try_call_shared_plugin(const char *name, int argc, char **argv) {
    return quelm::guarded(-1, __func__, [&] {
        int result = call_shared_genericplugin("plugin", name, argc, argv);
        quelm::log::open(name);
        if (result == -1) {
            QM_LOG_print("CGI %s not found\n", name);
        } else if (result != 0) {
            QM_LOG_print("CGI external plugins error for function <%s> : %d", name, result);
        }
        quelm::log::close();
        return result;
    });
}

extern "C" int main_CGI(plugin_registry_handle *registry, int argc, char **argv) {
    return quelm::guarded(-1, __func__, [&] { return serve_request(registry, argc, argv); });
}
