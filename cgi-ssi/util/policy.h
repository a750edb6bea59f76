// The access policy switch. By default the gateway applies the policy a
// device on a real LAN needs (same-origin state changes, admin-only
// maintenance, a lockout that locks, fresh session at login, whole-component
// token rights, secrets only encrypted). QUELM_COMPAT=1 in the responder's
// environment at start brings back the legacy policy that old pages were
// written for; nothing else changes with it.
#pragma once

#include <string_view>

namespace cgissi::policy {

// Reads QUELM_COMPAT once; called at process start, before the first
// request replaces the environment.
void pin();

// True when QUELM_COMPAT was "1" at start (or, before pin(), is "1" now).
bool compat_mode();

// The host-port of an http(s) URL ("h:8080" of "http://h:8080/a"), or
// empty when it is not one. Pure.
std::string_view host_port_of(std::string_view url);

// The same-origin test of a state change: Origin, or without it the
// Referer's origin, names the request's own Host ("http://" + host or
// "https://" + host). Pure: the caller passes the header values (null
// means absent).
bool same_origin(const char *origin, const char *referer, const char *host);

// same_origin() on this request's HTTP_ORIGIN, HTTP_REFERER and HTTP_HOST,
// logging a refusal.
bool request_is_same_origin();

// The page a browser is sent to when a redirect target would leave the
// gateway.
constexpr const char *kStartPage = "/index.htm";

// A redirect target that keeps the browser on host: a relative reference
// (no scheme, not "//"), or an http(s) URL whose host-port is host; never
// one holding a blank, a control byte or a backslash. Pure.
bool stays_home(std::string_view url, std::string_view host);

// url, or kStartPage when by default it would leave this request's host
// (with QUELM_COMPAT=1, url as given); logs a replacement.
const char *home_target(const char *url);

}  // namespace cgissi::policy
