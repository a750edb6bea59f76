#include "util/policy.h"

#include <cstdlib>
#include <cstring>

#include "quelm_http.h"
#include "quelm_log.h"
#include "request/variables.h"

namespace cgissi::policy {
namespace {

constexpr const char *kCompatVariable = "QUELM_COMPAT";

// Process-wide: the environment of later requests is the web server's
// parameters, so the switch is the one seen at start.
struct Pinned {
    bool pinned = false;
    bool compat = false;
};

Pinned &pinned() {
    static Pinned p;
    return p;
}

bool compat_from_environment() {
    const char *value = std::getenv(kCompatVariable);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

}  // namespace

void pin() {
    pinned().compat = compat_from_environment();
    pinned().pinned = true;
}

bool compat_mode() { return pinned().pinned ? pinned().compat : compat_from_environment(); }

std::string_view host_port_of(std::string_view url) {
    const std::size_t start = quelm::http_scheme_length(url);
    if (start == 0) return {};
    const std::string_view rest = url.substr(start);
    return rest.substr(0, rest.find_first_of("/?#"));
}

bool same_origin(const char *origin, const char *referer, const char *host) {
    if (host == nullptr || host[0] == '\0') return false;
    if (origin != nullptr && origin[0] != '\0') {
        // An Origin is scheme and host-port, nothing after them.
        const std::string_view given = origin;
        return (given.starts_with("http://") && given.substr(7) == host) ||
               (given.starts_with("https://") && given.substr(8) == host);
    }
    return referer != nullptr && host_port_of(referer) == host;
}

bool request_is_same_origin() {
    const char *origin = request::variable(request::Variable::HttpOrigin);
    const char *referer = request::variable(request::Variable::HttpReferer);
    const char *host = request::variable(request::Variable::HttpHost);
    if (same_origin(origin, referer, host)) return true;
    quelm::log::print(LOG_WARNING, "state change refused: origin '%s' (referer '%s') is not host '%s'",
                      origin != nullptr ? origin : "", referer != nullptr ? referer : "", host != nullptr ? host : "");
    return false;
}

bool stays_home(std::string_view url, std::string_view host) {
    // Browsers drop blanks and control bytes and read a backslash as "/":
    // any of them could turn a path into "//other-host".
    for (char c : url) {
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '\\') return false;
    }
    if (url.starts_with("//")) return false;
    const std::size_t colon = url.find(':');
    const std::size_t path_mark = url.find_first_of("/?#");
    if (colon == std::string_view::npos || (path_mark != std::string_view::npos && path_mark < colon)) return true;
    // A scheme: only an http(s) URL naming this host stays.
    return !host.empty() && host_port_of(url) == host;
}

const char *home_target(const char *url) {
    if (url == nullptr || compat_mode()) return url;
    const char *host = request::variable(request::Variable::HttpHost);
    if (stays_home(url, host != nullptr ? host : "")) return url;
    quelm::log::print(LOG_WARNING, "redirect to '%s' leaves the gateway: sent to %s instead", url, kStartPage);
    return kStartPage;
}

}  // namespace cgissi::policy
