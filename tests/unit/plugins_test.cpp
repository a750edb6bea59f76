// The plugin registry's lookup rules, command entries, and the referer test
// of the guarded CGIs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "plugins/plugin_registry.h"
#include "qm_plugin.h"
#include "request/post_protection.h"
#include "test_support.h"

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
    const struct {
        const char *script;
        bool no_session;
    } sessions[] = {{"foo.cgi", true}, {"foobar.cgi", true}, {"fo.cgi", false}, {"both.cgi", false},
                    {"plug.cgi", true}, {"skip.cgi", false}, {"fct.cgi", false}};
    for (const auto &c : sessions) EXPECT_EQ(registry.no_session(c.script), c.no_session) << c.script;

    const struct {
        const char *name, *method, *call;  // null call: not found
    } calls[] = {{"foo", "plugin", "lib.so!foo_main"}, {"foo.cgi", "plugin", nullptr},
                 {"both", "plugin", "lib.so!both"},    {"both", "ssi", "lib.so!both"},
                 {"fct", "ssi", "lib.so!fct"},         {"fct", "plugin", nullptr},
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

class CommandEntry : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() / ("plugins_test_" + std::to_string(getpid()));
        std::filesystem::create_directories(dir_);
        script_ = dir_ / "cmd.sh";
        std::ofstream(script_) << "printf '%s|' \"$#\" \"$@\" \"$KEYWORD\" \"$PARAM\" > \"$1\"\n"
                                  "case \"$4\" in exit*) exit \"${4#exit}\";; esac\n";
        unsetenv("QUELM_ROOT");  // /bin/sh is the host's
        unsetenv("KEYWORD");
        unsetenv("PARAM");
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // Runs the entry "/bin/sh <script> <record>"; returns its status.
    int call(const char *param) {
        const std::string command = "/bin/sh " + script_.string() + " " + (dir_ / "record").string();
        return call_external_function("keyword", "cgi", param, command.c_str());
    }
    std::string record() const { return test_support::slurp(dir_ / "record"); }

    std::filesystem::path dir_, script_;
};

TEST_F(CommandEntry, WordsNameMethodAndParameterAreSeparateArgumentsWithoutAShell) {
    const std::string record_path = (dir_ / "record").string();
    EXPECT_EQ(call("a b; touch pwned $(id)"), 0);
    EXPECT_EQ(record(), "4|" + record_path + "|keyword|cgi|a b; touch pwned $(id)|keyword|a b; touch pwned $(id)|");
    EXPECT_FALSE(std::filesystem::exists("pwned"));

    EXPECT_EQ(call(nullptr), 0);  // no parameter: an empty argument and an empty PARAM
    EXPECT_EQ(record(), "4|" + record_path + "|keyword|cgi||keyword||");
    // KEYWORD and PARAM were the child's only.
    EXPECT_EQ(std::getenv("KEYWORD"), nullptr);
    EXPECT_EQ(std::getenv("PARAM"), nullptr);
}

TEST_F(CommandEntry, StatusIsWhatSystemWouldReturn) {
    const int status = call("exit7");
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(call_external_function("k", "cgi", "", "/no/such/program"), 127 << 8);
    EXPECT_EQ(call_external_function("k", "cgi", "", "  "), 1);  // no program: refused
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
