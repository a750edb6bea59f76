// CGI error file, destination after a form post, configuration lock and
// property helpers of qm_cgi_state.h, against a gateway root of their own.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "cgic.h"
#include "platform.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_util.h"
#include "ssi_buffer.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
constexpr const char *kIad = "Services_IADConfigurator";

using test_support::captured_output;
using test_support::slurp;

// Sends the current destination; returns what went into Line after
// checking that the redirect carries exactly that and the error code
// survived the property reads.
std::string redirect_target() {
    QM_err_set(42);
    std::string out = captured_output(branch_dest_url);
    EXPECT_EQ(QM_err_get(), 42);
    EXPECT_NE(out.find('"' + std::string(Line) + '"'), std::string::npos) << out;
    return Line;
}

class CgiState : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        test_support::bind_fcgi_streams();
        char dir[] = "/tmp/cgi_state_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        root_ = dir;
        // A second root whose schema lacks CurrentLanguage: languages are on
        // but the language cannot be read.
        for (const fs::path &r : {root_ / "gw", root_ / "nolang"}) {
            setenv("QUELM_ROOT", r.c_str(), 1);
            std::string message;
            init_ok_ = quelm::platform::init_root(message) == 0;
            if (!init_ok_) return;
        }
        for (const char *file : {"etc/quelm/config.default/schema.xml", "etc/quelm/config.default/factory.conf"}) {
            fs::path p = root_ / "nolang" / file;
            std::string text = std::regex_replace(slurp(p), std::regex(".*CurrentLanguage.*\n"), "");
            std::ofstream(p, std::ios::trunc) << text;
        }
    }
    static void TearDownTestSuite() { fs::remove_all(root_); }

    void SetUp() override {
        if (!init_ok_) GTEST_SKIP() << "gateway root could not be set up";
        use_root("gw");
        setenv("QUELM_LOCK_WAIT_MS", "20", 1);
        setenv("QUELM_LOG_FILE", (root_ / "log").c_str(), 1);
        QM_LOG_set(1);
        unsetenv("HTTP_REFERER");
        set_cgierror(0);
        url_page[0] = '\0';
        url_expert = 0;
        ASSERT_EQ(SetPropertyIntValue(kIad, "Enable", 1), 0);
        ASSERT_EQ(SetPropertyStrValue(kIad, "CurrentLanguage", "en"), 0);
    }
    void TearDown() override {
        cgiFreeResources();
        QM_LOG_set(0);
        for (const char *name : {"QUELM_ROOT", "QUELM_LOCK_WAIT_MS", "QUELM_LOG_FILE", "HTTP_REFERER",
                                 "REQUEST_METHOD", "QUERY_STRING", "CONTENT_LENGTH"})
            unsetenv(name);
    }

    static void use_root(const char *name) { setenv("QUELM_ROOT", (root_ / name).c_str(), 1); }
    static int get(const char *query) { return test_support::get_request(query); }
    static std::string log_text() { return slurp(root_ / "log"); }

    static inline fs::path root_;
    static inline bool init_ok_ = false;
};

TEST_F(CgiState, ErrorIsStoredAsDecimalAndShownOnce) {
    const fs::path file = root_ / "gw/var/tmp/cgierror";
    // stored: the file's contents (null: no file); first: Ssi after the first read.
    struct Case { const char *desc; std::function<void()> store; const char *stored; const char *first; } cases[] = {
        {"code", [] { EXPECT_EQ(set_cgierror(42), 42); }, "42", "42"},
        {"negative code", [] { set_cgierror(-7); }, "-7", "-7"},
        {"cleared by 0", [] { set_cgierror(5); set_cgierror(0); }, nullptr, "0"},
        {"empty file", [&] { std::ofstream{file}; }, "", ""},
    };
    for (const Case &c : cases) {
        c.store();
        ASSERT_EQ(fs::exists(file), c.stored != nullptr) << c.desc;
        if (c.stored != nullptr) {
            EXPECT_EQ(slurp(file), c.stored) << c.desc;
        }
        EXPECT_EQ(get_cgierror(), 0);
        EXPECT_STREQ(Ssi, c.first) << c.desc;
        EXPECT_FALSE(fs::exists(file)) << c.desc;
        get_cgierror();
        EXPECT_STREQ(Ssi, "0") << c.desc << ": second read";
    }
}

// The error file lies in the shared /var/tmp: a link planted there is
// neither written through nor read through, and the file is private.
TEST_F(CgiState, ErrorFileIsPrivateAndNoLinkIsFollowed) {
    const fs::path file = root_ / "gw/var/tmp/cgierror";
    set_cgierror(3);
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    set_cgierror(0);
    const fs::path target = root_ / "gw/target";
    std::ofstream(target) << "77\n";
    fs::create_symlink(target, file);
    set_cgierror(9);
    EXPECT_EQ(slurp(target), "77\n");
    get_cgierror();
    EXPECT_STREQ(Ssi, "0");
    fs::remove(file);
    fs::remove(target);
}

TEST_F(CgiState, RefererTreeAndFixedForms) {
    const std::string d39(39, 'd'), d40(40, 'd'), d60(60, 'd');
    // referer: "": unset
    struct Case { int mode; std::string referer; std::string want; } cases[] = {
        {-1, "", "../P.htm"},
        {-2, "", "P.htm"},
        {3, "", "../index.htm"},
        {3, "http://192.168.1.1/en/basic/x.htm", "../en/basic/P.htm"},
        {3, "http://[::1]:8080/fr_FR/expert/", "../fr_FR/expert/P.htm"},  // ":" to "_" is a range
        {3, "http://my-box/en/basic/", "../index.htm"},                   // no "-" in a host
        {3, "http://192.168.1.1/index.htm", "../index.htm"},
        {3, "http://" + d39 + "/a/b/", "../a/b/P.htm"},
        {3, "http://" + d40 + "/a/b/", "../index.htm"},
        {3, "http://h/" + d40 + "/b/", "../index.htm"},
        {3, "http://h/a/" + d60 + "/", "../a/" + d39 + "/P.htm"},  // last field is cut
    };
    for (const Case &c : cases) {
        c.referer.empty() ? unsetenv("HTTP_REFERER") : setenv("HTTP_REFERER", c.referer.c_str(), 1);
        set_dest_url("P.htm", c.mode);
        EXPECT_EQ(redirect_target(), c.want) << c.referer;
    }
    const std::string log = log_text();
    EXPECT_NE(log.find("HTTP_REFERER doesn't exist !"), std::string::npos) << log;
    EXPECT_NE(log.find("can't extract all parameters from HTTP_REFERER"), std::string::npos) << log;
}

TEST_F(CgiState, LanguageTrees) {
    struct Case { const char *root; int enable; const char *language; int mode; const char *want; } cases[] = {
        {"gw", 1, "en", 0, "../basic/en/P.htm"},
        {"gw", 1, "en", 2, "../expert/en/P.htm"},
        {"gw", 1, "en_GB", 0, "../en_GB/basic/P.htm"},
        {"gw", 1, "default", 1, "../default/expert/P.htm"},
        {"gw", 0, "en_GB", 1, "../expert/P.htm"},
        {"nolang", 1, nullptr, 0, "../basic/fr/P.htm"},
        {"uninitialised", 1, nullptr, 1, "../expert/P.htm"},  // Enable unreadable
    };
    for (const Case &c : cases) {
        use_root(c.root);
        if (c.language) {
            ASSERT_EQ(SetPropertyIntValue(kIad, "Enable", c.enable), 0);
            ASSERT_EQ(SetPropertyStrValue(kIad, "CurrentLanguage", c.language), 0);
        }
        set_dest_url("P.htm", c.mode);
        EXPECT_EQ(redirect_target(), c.want) << c.root << " " << (c.language ? c.language : "-");
    }
}

TEST_F(CgiState, FormFieldsChooseThePage) {
    struct Case { bool success; const char *query; const char *want_page; int want_mode; } cases[] = {
        {true, "", "index.htm", 0},
        {true, "sSuccessPage=index.htm&iExpert=1", "index.htm", 0},  // the home page is basic
        {true, "sSuccessPage=index.htm&iExpert=3", "index.htm", 3},
        {true, "sSuccessPage=ok.htm&iExpert=-2", "ok.htm", -2},
        {true, "sSuccessPage=&iExpert=-1", "prev.htm", 1},  // empty page: no change
        {false, "iExpert=1", "prev.htm", 1},  // absent: previous choice stays
        {false, "sErrorPage=err.htm&iExpert=1", "err.htm", 1},
    };
    for (const Case &c : cases) {
        set_dest_url("prev.htm", 1);
        ASSERT_EQ(get(c.query), 0);
        if (c.success) {
            getset_success_url();
        } else {
            EXPECT_EQ(getset_error_url(), std::strstr(c.query, "sErrorPage") ? cgiFormSuccess : cgiFormNotFound);
        }
        EXPECT_STREQ(url_page, c.want_page) << c.query;
        EXPECT_EQ(url_expert, c.want_mode) << c.query;
    }
    const std::string long_page(300, 'p');
    set_dest_url(long_page.c_str(), 2);
    EXPECT_EQ(url_page, long_page.substr(0, QM_URL_PAGE_SIZE - 1));
    EXPECT_EQ(url_expert, 2);

    // A given iDelay reaches the reboot of an import (test_maintenance.py); none is 0.
    ASSERT_EQ(get("x=1"), 0);
    EXPECT_EQ(get_shelldelay(), 0);
}

// The page field reaches the redirect's script string: whatever it holds,
// it cannot end the string or the script element; ordinary pages keep
// their bytes.
TEST_F(CgiState, RedirectTargetStaysInTheScriptString) {
    auto redirect = [](const char *query) {
        EXPECT_EQ(get(query), 0);
        getset_error_url();
        return captured_output(branch_dest_url);
    };
    const std::string ordinary = redirect("sErrorPage=a%2Fb.htm%3Fx%3D1%26y%3D2&iExpert=-2");
    EXPECT_NE(ordinary.find("replace(\"a/b.htm?x=1&y=2\");\r\n</script>"), std::string::npos) << ordinary;
    // The legacy policy sends the target as given: the escaping alone holds it.
    ::setenv("QUELM_COMPAT", "1", 1);
    const std::string hostile = redirect("sErrorPage=x%22)%3Balert(1)%2F%2F%3C%2Fscript%3E%27%5C&iExpert=-2");
    ::unsetenv("QUELM_COMPAT");
    EXPECT_NE(hostile.find("replace(\"x\\\");alert(1)//\\u003C/script\\u003E\\'\\\\\");\r\n</script>"),
              std::string::npos)
        << hostile;
}

TEST_F(CgiState, FailedLockRedirectsToErrorPage) {
    // flock conflicts between open file descriptions, even in one process.
    const std::string lock_path = root_ / "gw/var/quelm/config/config.lock";
    int held = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);

    ASSERT_EQ(get("sErrorPage=busy.htm&iExpert=-1"), 0);
    int code = 0;
    std::string out = captured_output([&] { code = cgi_lock_config(); });
    EXPECT_EQ(code, QM_ERR_LOCKED);
    EXPECT_EQ(QM_err_get(), QM_ERR_LOCKED);
    EXPECT_NE(out.find("\"../busy.htm\""), std::string::npos) << out;
    EXPECT_EQ(slurp(root_ / "gw/var/tmp/cgierror"), std::to_string(QM_ERR_LOCKED));

    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_LENGTH", "-1", 1);  // the request layer refuses it
    out = captured_output([&] { code = cgi_lock_config(); });
    EXPECT_EQ(code, QM_ERR_LOCKED);
    EXPECT_NE(out.find("<BODY>Internal Server Error sharing.cgi</BODY>\n"), std::string::npos) << out;

    close(held);
    out = captured_output([&] { code = cgi_lock_config(); });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(cgi_unlock_config(), 0);
    EXPECT_EQ(cgi_unlock_config(), QM_ERR_NOTHING);
}

TEST_F(CgiState, PropertyHelpers) {
    ASSERT_EQ(SetPropertyStrValue(kIad, "CurrentLanguage", "en_GB"), 0);
    for (std::size_t length : {3u, 5u, 8u}) {
        char dest[10];
        std::memset(dest, 'X', sizeof dest);
        EXPECT_EQ(GetPropertyStrValue(kIad, "CurrentLanguage", dest, length), 0);
        EXPECT_EQ(std::string(dest, length), std::string("en_GB\0\0\0", 8).substr(0, length)) << length;
        EXPECT_EQ(dest[length], 'X') << length << ": nothing written past length";
    }
    char untouched[4] = "abc";
    EXPECT_NE(GetPropertyStrValue(kIad, "NoSuchThing", untouched, sizeof untouched), 0);
    EXPECT_STREQ(untouched, "abc");

    int value = 99;
    ASSERT_EQ(SetPropertyIntValue(kIad, "SessionDelay", 3600), 0);
    EXPECT_EQ(GetPropertyIntValue(kIad, "SessionDelay", &value), 0);
    EXPECT_EQ(value, 3600);
    EXPECT_NE(GetPropertyIntValue(kIad, "NoSuchThing", &value), 0);
    EXPECT_EQ(value, 0);
}

}  // namespace
