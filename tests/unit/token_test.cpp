// Access tokens against a gateway root of their own: the check of a
// presented token with its expiry, the rights test and the rewrite of a token
// file. Creation from a page's text is driven through the executable by
// tests/integration/test_token.py.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "cgic.h"
#include "qm_config.h"
#include "qm_token.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

using test_support::captured_output;
using test_support::slurp;

std::time_t mtime(const fs::path &path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mtime;
}

// Waits until time() has just moved on, so that a short piece of work stays
// in that second.
std::time_t fresh_second() {
    std::time_t start = std::time(nullptr), now = start;
    while (now == start) {
        usleep(1000);
        now = std::time(nullptr);
    }
    return now;
}

class Token : public test_support::GatewayRoot {
  protected:
    void SetUp() override {
        GatewayRoot::SetUp();
        remove_last_token_name();
    }
    void TearDown() override {
        remove_last_token_name();
        cgiFreeResources();
        for (const char *name : {"REQUEST_METHOD", "QUERY_STRING"}) unsetenv(name);
        GatewayRoot::TearDown();
    }

    fs::path tmp() const { return root_ / "var/tmp"; }
    fs::path file_of(const std::string &token) const { return tmp() / ("CGI_Token_" + token); }

    void plant(const fs::path &path, const std::string &content, std::time_t expiry) {
        std::ofstream(path, std::ios::binary) << content;
        const struct timeval times[2] = {{expiry, 0}, {expiry, 0}};
        ASSERT_EQ(utimes(path.c_str(), times), 0);
    }

    int check(const char *query, token_context &context) {
        cgiFreeResources();
        EXPECT_EQ(test_support::get_request(query), 0);
        return get_token_rights(&context);
    }
};

TEST_F(Token, PresentedTokenIsCheckedBeforeItBecomesAPath) {
    std::time_t now = fresh_second();
    // "/../x1" is six characters: through a directory named "CGI_Token_" it
    // would reach this expired file, which must survive.
    fs::create_directory(tmp() / "CGI_Token_");
    plant(tmp() / "x1", "900\nall\n", now - 100);
    fs::create_directory(tmp() / "CGI_Token_Dir123");
    const struct timeval later[2] = {{now + 100, 0}, {now + 100, 0}};
    ASSERT_EQ(utimes((tmp() / "CGI_Token_Dir123").c_str(), later), 0);
    plant(file_of("Same01"), "120\nWifi\nRule,1,\n", now);  // expires this very second
    plant(file_of("Late01"), "120\nWifi\n", now - 1);
    plant(file_of("Long01"), "60\n" + std::string(450, 'w') + "\n", now + 5);
    // Not to be read as a token: a FIFO (no writer: must not block), a link
    // to a good token file, an empty file. A lone first line is one.
    ASSERT_EQ(mkfifo(file_of("Fifo01").c_str(), 0600), 0);
    ASSERT_EQ(utimes(file_of("Fifo01").c_str(), later), 0);
    fs::create_symlink(file_of("Long01"), file_of("Link01"));
    plant(file_of("Empty1"), "", now + 5);
    plant(file_of("Lone01"), "30", now + 5);

    const std::string invalid = "Token is invalid or your session has expired. Please refresh the page.";
    const std::string expired = "Your session has expired. Please refresh the page.";
    struct Case { const char *query; int result; std::string message, rights; } cases[] = {
        {"other=1", QM_TOKEN_MISSING, "You must provide a token to access the values of CLI get or post.", ""},
        {"token=abc12", QM_TOKEN_UNKNOWN, invalid, ""},
        {"token=%2F..%2Fx1", QM_TOKEN_UNKNOWN, invalid, ""},
        {"token=Zz9Zz9", QM_TOKEN_UNKNOWN, expired, ""},
        {"token=Dir123", QM_TOKEN_UNREADABLE, "Unknown error. Please refresh the page.", ""},
        {"token=Late01", QM_TOKEN_EXPIRED, expired, ""},
        {"token=Same01", QM_TOKEN_VALID, "", "Wifi"},
        {"token=Long01", QM_TOKEN_VALID, "", std::string(399, 'w')},
        {"token=Fifo01", QM_TOKEN_UNREADABLE, "Unknown error. Please refresh the page.", ""},
        {"token=Link01", QM_TOKEN_UNREADABLE, "Unknown error. Please refresh the page.", ""},
        {"token=Empty1", QM_TOKEN_UNREADABLE, "Unknown error. Please refresh the page.", ""},
        {"token=Lone01", QM_TOKEN_VALID, "", ""},
    };
    auto context = std::make_unique<token_context>();
    std::string errors;
    for (const Case &c : cases) {
        remove_last_token_name();
        EXPECT_EQ(check(c.query, *context), c.result) << c.query;
        EXPECT_EQ(std::string(context->rights), c.rights) << c.query;
        errors += c.message;
        EXPECT_EQ(std::string(context->error_text), errors) << c.query;
        EXPECT_EQ(last_token_name != nullptr, c.result == QM_TOKEN_VALID) << c.query;
    }
    EXPECT_TRUE(fs::exists(tmp() / "x1"));
    EXPECT_FALSE(fs::exists(file_of("Late01")));
    EXPECT_GE(mtime(file_of("Same01")), now + 120) << "use renews the expiry";
    EXPECT_EQ(last_token_lifetime, 30);

    // The accumulated text stays below its size.
    std::string filler(QM_TOKEN_ERROR_TEXT_SIZE - 10, 'e');
    std::snprintf(context->error_text, sizeof context->error_text, "%s", filler.c_str());
    check("token=abc12", *context);
    EXPECT_EQ(std::string(context->error_text), filler + invalid.substr(0, 9));
}

TEST_F(Token, RightsMatchWholeComponentsOrSubstringsInCompat) {
    struct Case { const char *rights, *object; int allowed, compat_allowed; } cases[] = {
        {"all", "Device_Hostname", 1, 1},
        {"Device", "Device_Hostname", 1, 1},
        {"Device", "Device", 1, 1},
        {"Device", "LANDevice_1", 0, 1},                 // not a whole component
        {"Device", "WANConnectionDevice_2_Enable", 0, 1},
        {"Enable", "User_2_Enable", 0, 1},               // not a leading one
        {"User_2", "User_22_Enable", 0, 1},
        {"User", "User_*[Enable=1]_Username", 1, 1},
        {"Wifi,LANDevice_1_Hosts", "LANDevice_1_Hosts_3_Name", 1, 1},
        {"Wifi,Hosts", "Device_Hostname", 0, 0},
        {"LANDevice_1_Hosts", "Hosts", 0, 0},            // the right inside the path, not the reverse
        {"all,Wifi", "Device_Hostname", 0, 0},           // only "all" alone is everything
        {"all,Wifi", "Services_all_x", 0, 1},
        {"", "Device", 0, 0},
        {",Wifi", "Device", 0, 0},                       // empty items grant nothing
        {"a,,b", "Device", 0, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(has_right(c.rights, c.object), c.allowed) << c.rights << " / " << c.object;
        ::setenv("QUELM_COMPAT", "1", 1);
        EXPECT_EQ(has_right(c.rights, c.object), c.compat_allowed) << "compat: " << c.rights << " / " << c.object;
        ::unsetenv("QUELM_COMPAT");
    }
}

TEST_F(Token, ExtendKeepsOtherLinesAndRefusesForeignPaths) {
    const std::string long_rights(500, 'r');
    const std::time_t expiry = std::time(nullptr) + 50;
    plant(file_of("Ext001"), "600\n" + long_rights + "\nRule,1,\n", expiry);
    extend_token("/var/tmp/CGI_Token_Ext001", "Device");
    EXPECT_EQ(slurp(file_of("Ext001")), "600\n" + long_rights + ",Device\nRule,1,\n");
    EXPECT_EQ(mtime(file_of("Ext001")), expiry) << "rewriting must not end the token";
    EXPECT_FALSE(fs::exists(tmp() / "CGI_Token_Ext001~"));

    plant(file_of("Ext002"), "600\nWifi\n", std::time(nullptr) + 50);
    extend_token("/var/tmp/CGI_Token_Ext002", "Device\nall");  // would add a line
    extend_token("/var/tmp/CGI_Token_../CGI_Token_Ext002", "Device");
    EXPECT_EQ(slurp(file_of("Ext002")), "600\nWifi\n");
    EXPECT_EQ(refresh_token_timestamp("/var/tmp/cgierror", 60), -1);
    // Without a token of this request, "create=" adds nothing and prints nothing.
    EXPECT_EQ(captured_output([] { EXPECT_EQ(extend_token_create("Rule,1,"), -1); }), "");
}

}  // namespace
