// The plugin registry's lookup rules, command entries, and the referer test
// of the guarded CGIs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "plugins/plugin_registry.h"
#include "qm_plugin.h"
#include "request/post_protection.h"

namespace {

using cgissi::plugins::Entry;
using cgissi::plugins::Registry;

TEST(PluginRegistry, NoSessionIsAPrefixRuleAndTheCallAnExactName) {
    const Registry registry({
        {"skip", std::nullopt, "x!y", "1"},              // no "methods": never a candidate
        {"foo", "plugin", "lib.so!foo_main", "1"},       // prefixes foobar.cgi
        {"foobar", "plugin", "lib.so!other", "0"},       // comes second: foo decides
        {"both", "plugin ssi", "lib.so!both", "1"},      // a prefix of "plugin" only over its own length
        {"plug", "plug", "lib.so!plug", "1x"},           // "plug" is a prefix of "plugin"
        {"fct", "cgi ssi", "lib.so!fct", std::nullopt},
    });
    const struct { const char *script; bool no_session; } sessions[] = {
        {"foo.cgi", true},  {"foobar.cgi", true}, {"fo.cgi", false}, {"both.cgi", false},
        {"plug.cgi", true}, {"skip.cgi", false},  {"fct.cgi", false}};
    for (const auto &c : sessions) EXPECT_EQ(registry.no_session(c.script), c.no_session) << c.script;

    const struct { const char *name, *method, *call; } calls[] = {  // null call: not found
        {"foo", "plugin", "lib.so!foo_main"}, {"foo.cgi", "plugin", nullptr}, {"both", "plugin", "lib.so!both"},
        {"both", "ssi", "lib.so!both"},       {"fct", "ssi", "lib.so!fct"},   {"fct", "plugin", nullptr},
        {"skip", "plugin", nullptr}};
    for (const auto &c : calls) {
        const Entry *entry = registry.find(c.name, c.method);
        if (c.call == nullptr) {
            EXPECT_EQ(entry, nullptr) << c.name << " " << c.method;
        } else {
            ASSERT_NE(entry, nullptr) << c.name << " " << c.method;
            EXPECT_EQ(*entry->call, c.call);
        }
    }
}

// The arguments a command sees are covered through the executable
// (test_plugins.py); here what only the process itself shows.
TEST(CommandEntry, EnvironmentIsTheChildsAndTheStatusAsSystemReturnsIt) {
    for (const char *name : {"QUELM_ROOT", "KEYWORD", "PARAM"}) unsetenv(name);
    // The shell is the program here, not a runner of request text: its
    // script is the entry's own word, and KEYWORD/PARAM reach it.
    const int status = call_external_function("kw", "cgi", "pp", "/bin/sh -c exit$IFS$((${#KEYWORD}+${#PARAM}+3))");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    EXPECT_EQ(std::getenv("KEYWORD"), nullptr);
    EXPECT_EQ(std::getenv("PARAM"), nullptr);
    EXPECT_EQ(call_external_function("k", "cgi", nullptr, "/no/such/program"), 127 << 8);
    EXPECT_EQ(call_external_function("k", "cgi", nullptr, "  "), 1);  // no program: refused
}

// A web root and the path of the referer "http://gw" + path.
struct Referer {
    const char *desc;
    std::string root;
    std::string path;
    std::vector<std::string> existing;
    bool allowed;
    std::vector<std::string> tried;
};

TEST(PostProtection, ThreePathTriesAndTheLengthLimit) {
    const std::string long_root = "/" + std::string(cgissi::request::kCandidateSize - 8, 'r');  // 249 bytes
    const Referer cases[] = {
        {"first try", "/www", "/a/b/c.htm?x=/d", {"/www/a/b/c.htm"}, true, {"/www/a/b/c.htm"}},
        {"third try", "/www", "/a/b/c.htm", {"/www/c.htm"}, true, {"/www/a/b/c.htm", "/www/b/c.htm", "/www/c.htm"}},
        {"three and no more", "/www", "/a/b/c/d.htm", {"/www/d.htm"}, false,
         {"/www/a/b/c/d.htm", "/www/b/c/d.htm", "/www/c/d.htm"}},
        {"runs of slashes", "/www", "//a//b.htm", {}, false, {"/www//a//b.htm", "/www//b.htm"}},
        {"one segment", "/www", "/b.htm", {}, false, {"/www/b.htm"}},
        {"256 bytes with the terminator: tried", long_root, "/12345", {}, false, {long_root + "/12345"}},
        {"257 bytes: too long", long_root, "/123456", {}, false, {}},
    };
    for (const Referer &c : cases) {
        const std::string referer = "http://gw" + c.path;
        std::vector<std::string> tried;
        const bool allowed = cgissi::request::referer_allowed(
            {"POST", referer.c_str(), "gw", c.root}, [&](const std::string &candidate) {
                tried.push_back(candidate);
                return std::find(c.existing.begin(), c.existing.end(), candidate) != c.existing.end();
            });
        EXPECT_EQ(allowed, c.allowed) << c.desc;
        EXPECT_EQ(tried, c.tried) << c.desc;
    }
}

}  // namespace
