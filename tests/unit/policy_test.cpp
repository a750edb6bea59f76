// The access policy's pure tests: same origin and redirect targets.

#include <gtest/gtest.h>

#include "util/policy.h"

namespace {

using cgissi::policy::same_origin;
using cgissi::policy::stays_home;

TEST(Policy, SameOriginComparesSchemeHostAndPortExactly) {
    struct Case { const char *origin, *referer, *host; bool same; } cases[] = {
        {"http://192.168.1.1", nullptr, "192.168.1.1", true},
        {"https://gw.lan:8443", nullptr, "gw.lan:8443", true},
        {"http://192.168.1.1:81", nullptr, "192.168.1.1", false},  // another port
        {"http://192.168.1.1.evil.example", nullptr, "192.168.1.1", false},
        {"http://evil.example", "http://192.168.1.1/a.htm", "192.168.1.1", false},  // Origin decides
        {"null", nullptr, "192.168.1.1", false},                   // sandboxed or opaque
        {"http://192.168.1.1?192.168.1.1", nullptr, "192.168.1.1", false},
        {"http://192.168.1.1/", nullptr, "192.168.1.1", false},    // no path in an Origin
        {nullptr, "http://192.168.1.1/basic/a.htm?x=1", "192.168.1.1", true},
        {"", "http://192.168.1.1", "192.168.1.1", true},
        {nullptr, "http://evil.example/192.168.1.1/", "192.168.1.1", false},
        {nullptr, "http://192.168.1.1.evil.example/", "192.168.1.1", false},  // the host is only a prefix
        {nullptr, "https://192.168.1.1:81/a.htm", "192.168.1.1", false},
        {nullptr, "ftp://192.168.1.1/", "192.168.1.1", false},
        {nullptr, nullptr, "192.168.1.1", false},                  // neither header
        {"http://", nullptr, "", false},                           // no Host
    };
    for (const Case &c : cases) {
        EXPECT_EQ(same_origin(c.origin, c.referer, c.host), c.same)
            << (c.origin ? c.origin : "-") << " / " << (c.referer ? c.referer : "-") << " / " << c.host;
    }
}

TEST(Policy, RedirectTargetsStayOnTheHost) {
    struct Case { const char *url; bool home; } cases[] = {
        {"/index.htm", true},
        {"../basic/done.htm", true},
        {"done.htm?x=http://evil.example", true},  // a colon after the path starts
        {"http://gw.lan/basic/a.htm", true},
        {"https://gw.lan", true},
        {"http://evil.example/", false},
        {"http://gw.lan.evil.example/", false},
        {"//evil.example/", false},
        {"/\\evil.example/", false},
        {" //evil.example/", false},
        {"/\t/evil.example/", false},
        {"javascript:alert(1)", false},
        {"JavaScript:alert(1)", false},
        {"data:text/html,x", false},
    };
    for (const Case &c : cases) EXPECT_EQ(stays_home(c.url, "gw.lan"), c.home) << c.url;
}

}  // namespace
