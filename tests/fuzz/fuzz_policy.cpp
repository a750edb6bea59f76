// The Host and referer checks: the same-origin test, redirect targets that
// must stay home, the guarded CGIs' referer test, and the Host rules of
// the session layer against the factory model.
//
// Input: origin, referer, host and a redirect target, "\n"-separated.
#include <strings.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "qm_config.h"
#include "qm_session.h"
#include "request/post_protection.h"
#include "util/policy.h"

namespace {

using namespace cgissi;

// Gateway names the Host rules compare with, read back from the model.
struct GatewayNames {
    std::string hostname, aliases, domain, lan_address, ipv6;
};
GatewayNames names;

std::string property(const char *object, const char *name) {
    char *value = QM_DAT_getobjproperty(object, name);
    std::string out = value != nullptr ? value : "";
    std::free(value);
    return out;
}

bool ends_host(std::string_view rest) { return rest.empty() || rest.find_first_of("/?#") == 0; }

bool names_host(std::string_view url, std::string_view host) {
    for (std::string_view scheme : {"http://", "https://"}) {
        if (url.starts_with(scheme) && url.substr(scheme.size()).starts_with(host) &&
            ends_host(url.substr(scheme.size() + host.size())))
            return true;
    }
    return false;
}

void check_origin(const std::string &origin, const std::string &referer, const std::string &host) {
    if (policy::same_origin(origin.c_str(), nullptr, host.c_str()))
        fuzz::require(origin == "http://" + host || origin == "https://" + host, "a foreign Origin passed");
    if (policy::same_origin(nullptr, referer.c_str(), host.c_str()))
        fuzz::require(names_host(referer, host), "a foreign referer passed the origin test");
}

void check_redirect(const std::string &url, const std::string &host) {
    if (!policy::stays_home(url, host)) return;
    for (char c : url)
        fuzz::require(static_cast<unsigned char>(c) > ' ' && c != '\x7f' && c != '\\', "a blank or control byte stays");
    fuzz::require(!url.starts_with("//"), "a \"//host\" target stays home");
    const std::size_t colon = url.find(':');
    const std::size_t mark = url.find_first_of("/?#");
    if (colon != std::string::npos && (mark == std::string::npos || colon < mark))
        fuzz::require(names_host(url, host), "a target with a scheme left the host");
}

void check_referer(const std::string &referer, const std::string &host) {
    request::RefererCheck check{"POST", referer.c_str(), host.c_str(), std::string("/www")};
    int asked = 0;
    request::referer_allowed(check, [&](const std::string &candidate) {
        ++asked;
        fuzz::require(candidate.starts_with("/www"), "a candidate page outside the web root");
        return candidate.ends_with(".htm");
    });
    fuzz::require(asked <= request::kPathTries, "more candidate pages than tries");
}

bool iequals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool after_address(std::string_view host, std::string_view address) {
    if (address.empty() || host.size() < address.size() || !iequals(host.substr(0, address.size()), address))
        return false;
    return host.size() == address.size() || host[address.size()] == ':' || host[address.size()] == ']';
}

// A Host the session layer accepts is one of the gateway's names, or
// starts with one of its addresses that the end, ":" or "]" follows.
void check_host_rules(const std::string &host) {
    ::setenv("HTTP_HOST", host.c_str(), 1);
    if (QM_GetHostSession() != 1) return;
    std::string_view bare = host;
    if (bare.starts_with('[')) {
        bare.remove_prefix(1);
    } else {
        bare = bare.substr(0, bare.find(':'));
    }
    bool alias = false;
    std::string_view list = names.aliases;
    while (!alias) {
        alias = list.substr(0, list.find(',')) == bare;
        if (list.find(',') == std::string_view::npos) break;
        list.remove_prefix(list.find(',') + 1);
    }
    fuzz::require(alias || iequals(bare, names.hostname) || iequals(bare, names.aliases) ||
                      bare == names.hostname + "." + names.domain || after_address(bare, names.lan_address) ||
                      after_address(bare, names.ipv6),
                  "a Host that is not the gateway was accepted");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::gateway_root();
    QM_DAT_setobjproperty("Device", "Aliases", "box,gw.lan", 1);
    QM_DAT_setobjproperty("LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1", 1);
    ::unsetenv("QUELM_REALM");
    names = {property("Device", "Hostname"), property("Device", "Aliases"), property("Device", "Domain"),
             property("LANDevice_1_IPInterface_1", "IPAddress"),
             property("LANDevice_1_IPv6Status", "CurrentIPAddress")};
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > 4096) return 0;
    std::string_view rest = fuzz::text_of(data, size);
    const std::string origin(fuzz::take_until(rest, '\n'));
    const std::string referer(fuzz::take_until(rest, '\n'));
    const std::string host(fuzz::take_until(rest, '\n'));
    const std::string url(rest);
    if ((origin + referer + host + url).find('\0') != std::string::npos) return 0;
    check_origin(origin, referer, host);
    check_redirect(url, host);
    check_referer(referer, host);
    check_host_rules(host);
    return 0;
}
