// POST protection hooks around the built-in CGIs.
//
// A guarded CGI is served only when the browser's referer names a page that
// exists in the gateway's web tree, on the host the request was sent to: a
// guard against other sites posting to the disruptive CGIs. The test does
// not depend on the method.
#include "request/post_protection.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <strings.h>
#include <sys/stat.h>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "quelm_text.h"
#include "quelm_guard.h"
#include "quelm_http.h"
#include "quelm_root.h"

namespace cgissi::request {
namespace {

constexpr std::size_t kCgiNameSize = 32;
constexpr std::array<std::string_view, 10> kUnguarded = {
    "ssi", "nas.cgi", "webcam.cgi", "utils.cgi", "generic.cgi",
    "firmware.cgi", "login.cgi", "export.cgi", "import.cgi", "_info.xml",
};
// The page renderer writes no refusal of its own.
constexpr std::string_view kSilentRefusal = "ssi";
constexpr const char *kRefusalStatus = "404 Not Found";

// The built-in CGI of the current request, set by cgiSecureInit.
char current_cgi[kCgiNameSize] = "";

// Where the referer's path starts, behind scheme and host; npos (logged)
// when the referer does not name the request's host.
std::size_t path_start(std::string_view referer, const char *host_variable) {
    std::size_t cursor = quelm::http_scheme_length(referer);
    if (cursor == 0) {
        QM_LOG_print("Unsupported protocol in referer %.*s", static_cast<int>(referer.size()), referer.data());
        return std::string_view::npos;
    }
    std::string_view host = host_variable != nullptr ? host_variable : "";
    host = host.substr(0, host.find(':'));
    if (host.empty()) {
        QM_LOG_print("HTTP_HOST is not defined");
        return std::string_view::npos;
    }
    // compat: a referer that holds the host anywhere behind the scheme (a
    // longer domain, its path) passes; the stricter origin test is separate.
    if (!referer.substr(cursor).starts_with(host)) {
        cursor = referer.find(host, cursor);
        if (cursor == std::string_view::npos) {
            QM_LOG_print("Referer %.*s does not match with host %.*s", static_cast<int>(referer.size()),
                         referer.data(), static_cast<int>(host.size()), host.data());
            return std::string_view::npos;
        }
    }
    cursor += host.size();
    if (cursor < referer.size() && referer[cursor] == ':') {
        cursor = std::min(referer.find('/', cursor), referer.size());
    }
    return cursor;
}

// The web root, logged when it is missing or empty.
std::optional<std::string_view> web_root_of(const RefererCheck &check) {
    if (!check.web_root) {
        // compat: function name and line as field logs have always shown them.
        QM_LOG_print("WebConfigurator_RootDir is not defined %s %d", "cgiSecurePostAllowed", 198);
        return std::nullopt;
    }
    if (check.web_root->empty()) {
        QM_LOG_print("WebConfigurator_RootDir is empty %s %d", "cgiSecurePostAllowed", 206);
        return std::nullopt;
    }
    return std::string_view(*check.web_root);
}

// Web root + the referer's path, then with its first and second segment
// dropped: /www/a/b/c.htm, /www/b/c.htm, /www/c.htm.
bool existing_page(std::string_view root, std::string_view path,
                   const std::function<bool(const std::string &)> &file_exists) {
    std::size_t cursor = 0;
    for (int attempts = 0; attempts < kPathTries;) {
        if (file_exists(std::string(root).append(path.substr(cursor)))) return true;
        while (cursor < path.size() && path[cursor] == '/') ++cursor;
        while (cursor < path.size() && path[cursor] != '/') ++cursor;
        attempts = cursor < path.size() ? attempts + 1 : kPathTries;
    }
    return false;
}

}  // namespace

bool unguarded(std::string_view cgi_name) {
    for (std::string_view name : kUnguarded) {
        if (name == cgi_name) return true;
    }
    return false;
}

bool referer_allowed(const RefererCheck &check, const std::function<bool(const std::string &)> &file_exists) {
    const bool is_get = check.method != nullptr && strcasecmp(check.method, "get") == 0;
    if (check.referer == nullptr || check.referer[0] == '\0') {
        QM_LOG_print("HTTP_REFERER is not defined (%s)", is_get ? "get" : "post");
        return false;
    }
    const std::string_view referer = check.referer;
    const std::size_t cursor = path_start(referer, check.host);
    if (cursor == std::string_view::npos) return false;
    const std::size_t path_end = std::min(referer.find('?', cursor), referer.size());
    if (cursor == path_end) {
        QM_LOG_print("Referer URL is empty");
        return false;
    }
    const std::optional<std::string_view> root = web_root_of(check);
    if (!root) return false;
    const std::string_view path = referer.substr(cursor, path_end - cursor);
    if (root->size() + path.size() + 1 > kCandidateSize) {
        QM_LOG_print("Filename corresponding to URL %s is too long", check.referer);
        return false;
    }
    if (existing_page(*root, path, file_exists)) return true;
    QM_LOG_print("Cannot extract existing file name from URL %s", check.referer);
    return false;
}

}  // namespace cgissi::request

using namespace cgissi::request;

namespace {

std::optional<std::string> read_web_root() {
    char root[kWebRootSize + 1] = {};  // one more than read: always terminated
    if (GetPropertyStrValue("WebConfigurator", "RootDir", root, kWebRootSize) != 0) return std::nullopt;
    return std::string(root);
}

// The web root is a gateway path: the candidate is looked up under the root.
bool gateway_file_exists(const std::string &path) {
    struct stat status {};
    return ::stat(quelm::root_path(path).c_str(), &status) == 0;
}

}  // namespace

extern "C" {

void cgiSecureInit(const char *cgi_name) {
    quelm::guarded(__func__, [&] {
        quelm::copy_cut(current_cgi, sizeof current_cgi, cgi_name != nullptr ? cgi_name : "");
    });
}

int cgiSecurePostAllowed(void) {
    return quelm::guarded(0, __func__, [&] {
        if (unguarded(current_cgi)) return 1;
        RefererCheck check{std::getenv("REQUEST_METHOD"), std::getenv("HTTP_REFERER"), std::getenv("HTTP_HOST"),
                           read_web_root()};
        return referer_allowed(check, gateway_file_exists) ? 1 : 0;
    });
}

int cgiSecurePostAbort(void) {
    return quelm::guarded(0, __func__, [&] {
        if (current_cgi == kSilentRefusal) return 0;
        // compat: "\n" line ends and this exact page, as browsers and pages of
        // the field have always received it; the refusal looks like a missing page.
        cgi_out_printf("Status: %s\nContent-type: text/html\n\n<HTML><HEAD><TITLE>%s</TITLE><META "
                       "HTTP-EQUIV=\"refresh\" CONTENT=\"0;/index.htm\"></HEAD>\n<BODY><H2>%s</H2>\n\n</BODY></HTML>\n",
                       kRefusalStatus, kRefusalStatus, kRefusalStatus);
        return 0;
    });
}

// Every field may be read.
int cgiSecurePostVar(const char *) {
    return quelm::guarded(1, __func__, [] { return 1; });
}
}
