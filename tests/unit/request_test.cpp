// Request layer: environment and body handling of cgiInitResources, the
// urlencoded parser, the form, file and cookie accessors, and the header
// writers' exact bytes. Bodies are fed through the process's real standard
// input (not under FastCGI, libfcgi's stdin wraps fd 0).

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <optional>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "cgic.h"
#include "qm_config.h"
#include "request/variables.h"
#include "test_support.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr const char *kRequestVars[] = {
    "REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH", "QUERY_STRING", "HTTP_COOKIE", "FCGI_ROLE",
    "FCGI_DATA_LENGTH", "SERVER_NAME", "REMOTE_ADDR", "HTTP_REFERER", "QUELM_ROOT", "QUELM_LOG_FILE"};

Fields form_fields() {
    Fields out;
    for (const cgiFormEntry *e = getFormEntries(); e != nullptr; e = e->next) {
        out.emplace_back(e->attr, std::string(e->value, static_cast<std::size_t>(e->valueLength)));
    }
    return out;
}

// The strings of a NULL-terminated array, which is freed.
std::vector<std::string> strings(char **array) {
    std::vector<std::string> out;
    for (char **p = array; *p != nullptr; ++p) out.emplace_back(*p);
    cgiStringArrayFree(array);
    return out;
}

using test_support::captured_output;

class RequestTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        test_support::bind_fcgi_streams();
        // Unbuffered, so that replacing fd 0 never leaves an old body's
        // bytes in stdio's buffer.
        std::setvbuf(stdin, nullptr, _IONBF, 0);
    }

    void SetUp() override {
        for (const char *name : kRequestVars) unsetenv(name);
        saved_stdin_ = dup(0);
        char root[] = "/tmp/request_test.XXXXXX";
        ASSERT_NE(mkdtemp(root), nullptr);
        root_ = root;
    }

    void TearDown() override {
        cgiFreeResources();
        dup2(saved_stdin_, 0);
        close(saved_stdin_);
        FCGI_clearerr(FCGI_stdin);
        for (const char *name : kRequestVars) unsetenv(name);
        std::filesystem::remove_all(root_);
    }

    // Makes body the request's standard input.
    static void set_body(const std::string &body) {
        std::FILE *file = std::tmpfile();
        std::fwrite(body.data(), 1, body.size(), file);
        std::fflush(file);
        lseek(fileno(file), 0, SEEK_SET);
        dup2(fileno(file), 0);
        std::fclose(file);
        FCGI_clearerr(FCGI_stdin);
    }

    // What the request left unread on its standard input.
    static std::string unread_body() {
        std::string out;
        char chunk[4096];
        for (std::size_t n; (n = FCGI_fread(chunk, 1, sizeof chunk, FCGI_stdin)) > 0;) out.append(chunk, n);
        return out;
    }

    static int get(const char *query) { return test_support::get_request(query); }

    static int send(const char *method, const char *type, const char *length, const std::string &body,
                    FCGI_FILE *sink = nullptr) {
        setenv("REQUEST_METHOD", method, 1);
        setenv("CONTENT_TYPE", type, 1);
        if (length != nullptr) setenv("CONTENT_LENGTH", length, 1);
        set_body(body);
        return cgiInitResources(sink);
    }

    int saved_stdin_ = -1;
    std::string root_;
};

using RequestInit = RequestTest;
using RequestForm = RequestTest;
using RequestCookie = RequestTest;
using RequestHeader = RequestTest;
using RequestFile = RequestTest;

constexpr const char *kUrlencoded = "application/x-www-form-urlencoded";

// Also: a GET is parsed over the whole query, whatever CONTENT_LENGTH says.
TEST_F(RequestInit, UrlencodedQueries) {
    setenv("CONTENT_LENGTH", "3", 1);
    struct Case { const char *query; Fields fields; } cases[] = {
        {"a=1&b=2&c", {{"a", "1"}, {"b", "2"}}}, {"=x", {{"", "x"}}},         {"a=x%00y", {{"a", "x"}}},
        {"a=%zz", {{"a", ""}}},  // one zero byte: the value reads as empty
        {"a+b=c+d%20e", {{"a b", "c d e"}}},    {"%3D=%26&x=%41%62%2", {{"=", "&"}, {"x", "Ab"}}},
        {"a=&b=", {{"a", ""}, {"b", ""}}},      {"a=1&", {{"a", "1"}}},       {"", {}},
        {"c&d=1", {{"c&d", "1"}}},  // a name runs to the next "="
    };
    for (const Case &c : cases) {
        ASSERT_EQ(get(c.query), 0) << c.query;
        EXPECT_EQ(form_fields(), c.fields) << c.query;
        EXPECT_EQ(cgiContentLength, static_cast<int>(std::strlen(c.query))) << c.query;
        cgiFreeResources();
    }
}

TEST_F(RequestInit, ParserReadsExactlyTheGivenLength) {
    ASSERT_EQ(cgiParseFormInput("a=12&b=3", 3), 0);
    EXPECT_EQ(form_fields(), (Fields{{"a", "1"}}));
    ASSERT_EQ(cgiParseFormInput("b=2", 3), 0);
    EXPECT_EQ(form_fields(), (Fields{{"a", "1"}, {"b", "2"}})) << "appended after existing entries";

    char *out = nullptr;
    ASSERT_EQ(cgiUnescapeChars(&out, "%41%42", 4), 0);
    EXPECT_STREQ(out, "A") << "an escape cut by the length gives nothing";
    std::free(out);
}

TEST_F(RequestInit, BodyLengthsTypesAndMethods) {
    // length: null: unset; data_length: set, a filter's FCGI_DATA_LENGTH
    struct Case {
        const char *desc, *length, *body; int result; Fields fields; const char *unread;
        const char *method = "POST", *type = kUrlencoded, *data_length = nullptr;
    } cases[] = {
        {"exact", "7", "a=1&b=2", 0, {{"a", "1"}, {"b", "2"}}, ""},
        {"shorter than body", "3", "a=1&b=2", 0, {{"a", "1"}}, "&b=2"},
        {"leading number", "3abc", "a=1xyz", 0, {{"a", "1"}}, "xyz"},
        // A short body, "abc", "-2147483648" and twenty nines: test_dispatch.py.
        {"zero", "0", "a=1", 0, {}, "a=1"},           {"unset", nullptr, "a=1", 0, {}, "a=1"},
        {"minus zero", "-0", "a=1", 0, {}, "a=1"},    {"negative", "-1", "a=1", -1, {}, "a=1"},
        {"just past int", "2147483648", "a=1", -1, {}, "a=1"},
        // Only urlencoded POSTs are read; method and type compare ignoring case.
        {"other type", "3", "a=1", 0, {}, "a=1", "POST", "text/plain"},
        {"other method", "3", "a=1", 0, {}, "a=1", "PUT"},
        {"case of method and type", "3", "a=1", 0, {{"a", "1"}}, "", "post",
         "Application/X-WWW-Form-Urlencoded; charset=utf-8"},
        // A filter's data length is the one used; its standard input is drained.
        {"filter, negative data length", "3", "a=1", -1, {}, "", "POST", kUrlencoded, "-5"},
        {"filter, zero data length", "-1", "a=1", 0, {}, "", "POST", kUrlencoded, "0"},
    };
    for (const Case &c : cases) {
        for (const char *name : {"CONTENT_LENGTH", "FCGI_ROLE", "FCGI_DATA_LENGTH"}) unsetenv(name);
        if (c.data_length != nullptr) {
            setenv("FCGI_ROLE", "FILTER", 1);
            setenv("FCGI_DATA_LENGTH", c.data_length, 1);
        }
        EXPECT_EQ(send(c.method, c.type, c.length, c.body), c.result) << c.desc;
        EXPECT_EQ(form_fields(), c.fields) << c.desc;
        EXPECT_EQ(unread_body(), c.unread) << c.desc;
        EXPECT_GE(cgiContentLength, 0) << c.desc;
        cgiFreeResources();
    }
}

TEST_F(RequestInit, BodySizeLimit) {
    constexpr int kLimit = 2098176;
    const std::string at = "a=" + std::string(kLimit - 2, 'x');
    EXPECT_EQ(send("POST", kUrlencoded, std::to_string(at.size()).c_str(), at + "next"), -1);
    EXPECT_EQ(getFormEntries(), nullptr);
    EXPECT_EQ(unread_body(), "next") << "the refused body is consumed, nothing beyond it";

    // An upload sink lifts the limit.
    EXPECT_EQ(send("POST", kUrlencoded, std::to_string(at.size()).c_str(), at, FCGI_stdout), 0);
    ASSERT_NE(getFormEntries(), nullptr);
    EXPECT_EQ(getFormEntries()->valueLength, kLimit - 2);
}

TEST_F(RequestInit, ContentTypeAndBoundary) {
    struct Case { std::string header; std::string type; std::string boundary; } cases[] = {
        {"multipart/form-data; boundary=XyZ", "multipart/form-data", "XyZ"},
        {"multipart/form-data;charset=utf-8;  BOUNDARY=a-b end", "multipart/form-data", "a-b"},
        {"multipart/form-data; xboundary=no; boundary=yes", "multipart/form-data", "yes"},
        {"text/html", "text/html", ""},
        {std::string(2000, 't'), std::string(1023, 't'), ""},
        {std::string(1008, 't') + "; boundary=abcdef", std::string(1008, 't'), "abcd"},
    };
    setenv("REQUEST_METHOD", "HEAD", 1);
    for (const Case &c : cases) {
        setenv("CONTENT_TYPE", c.header.c_str(), 1);
        ASSERT_EQ(cgiInitResources(nullptr), 0);
        EXPECT_EQ(cgiContentType, c.type) << c.header;
        EXPECT_EQ(cgiMultipartBoundary, c.boundary) << c.header;
    }
}

// Each variable reaches its own global, not one whose name it starts or
// ends with; an unset one reads "".
TEST_F(RequestInit, UnsetVariablesReadEmpty) {
    const std::pair<const char *, const char **> globals[] = {
        {"SERVER_SOFTWARE", &cgiServerSoftware}, {"SERVER_NAME", &cgiServerName},
        {"GATEWAY_INTERFACE", &cgiGatewayInterface}, {"SERVER_PROTOCOL", &cgiServerProtocol},
        {"SERVER_PORT", &cgiServerPort}, {"PATH_INFO", &cgiPathInfo}, {"PATH_TRANSLATED", &cgiPathTranslated},
        {"SCRIPT_NAME", &cgiScriptName}, {"REMOTE_HOST", &cgiRemoteHost}, {"REMOTE_ADDR", &cgiRemoteAddr},
        {"AUTH_TYPE", &cgiAuthType}, {"REMOTE_USER", &cgiRemoteUser}, {"REMOTE_IDENT", &cgiRemoteIdent},
        {"HTTP_HOST", &cgiHttpHost}, {"X_FORWARDED_FOR", &cgiXForwardedFor}, {"HTTP_ACCEPT", &cgiAccept},
        {"HTTP_USER_AGENT", &cgiUserAgent}, {"HTTP_COOKIE", &cgiCookie}, {"HTTP_REFERER", &cgiReferrer},
        {"REQUEST_METHOD", &cgiRequestMethod}, {"QUERY_STRING", &cgiQueryString},
    };
    setenv("HTTP_HOSTNAME", "not the host", 1);
    setenv("XHTTP_HOST", "not the host", 1);
    cgiCookie = nullptr;
    for (bool set : {false, true}) {
        for (const auto &[name, global] : globals) {
            if (set) setenv(name, (std::string("v-") + name).c_str(), 1);
            else unsetenv(name);
        }
        ASSERT_EQ(cgiInitResources(nullptr), 0);
        for (const auto &[name, global] : globals) {
            ASSERT_NE(*global, nullptr) << name;
            EXPECT_EQ(std::string(*global), set ? std::string("v-") + name : "") << name;
        }
    }
    for (const auto &[name, global] : globals) unsetenv(name);
    unsetenv("HTTP_HOSTNAME");
    unsetenv("XHTTP_HOST");
}

// The one-pass table answers as getenv does through every way the
// environment changes within a request, and a new request's parameters
// (which may reuse the array and the strings' addresses) are read afresh.
TEST(RequestVariables, AnswerAsGetenvThroughEveryChange) {
    using cgissi::request::Variable;
    const std::pair<Variable, const char *> watched[] = {
        {Variable::HttpHost, "HTTP_HOST"},     {Variable::HttpOrigin, "HTTP_ORIGIN"},
        {Variable::QuelmRealm, "QUELM_REALM"}, {Variable::RemoteAddr, "REMOTE_ADDR"},
        {Variable::DocumentRoot, "DOCUMENT_ROOT"}, {Variable::Tz, "TZ"},
    };
    const auto shown = [](const char *text) {
        return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
    };
    const auto agree = [&](const char *step) {
        for (const auto &[which, name] : watched) {
            const char *got = cgissi::request::variable(which);
            EXPECT_EQ(shown(got), shown(std::getenv(name))) << step << ": " << name;
            EXPECT_EQ(cgissi::request::variables()[static_cast<std::size_t>(which)], got) << step << ": " << name;
            EXPECT_EQ(cgiRequestVariable(name), got) << step << ": " << name;
        }
    };
    const std::optional<std::string> zone = shown(std::getenv("TZ"));
    for (const auto &[which, name] : watched) unsetenv(name);
    static char origin[] = "HTTP_ORIGIN=http://gw.lan";
    const std::pair<const char *, std::function<void()>> changes[] = {
        {"none set", [] {}},
        {"added", [] { setenv("TZ", "UTC", 1); setenv("HTTP_HOST", "gw.lan", 1); }},
        {"another added", [] { setenv("REMOTE_ADDR", "192.168.1.10", 1); }},
        {"replaced", [] { setenv("HTTP_HOST", "other.lan", 1); }},
        {"added after", [] { setenv("QUELM_SHIFT", "x", 1); setenv("QUELM_REALM", "web", 1); }},
        {"an earlier entry removed", [] { unsetenv("QUELM_SHIFT"); }},
        {"put", [] { putenv(origin); }},
        {"put text changed in place", [] { origin[12] = 'x'; }},
        {"removed", [] { unsetenv("HTTP_HOST"); }},
    };
    for (const auto &[step, change] : changes) {
        change();
        agree(step);
    }
    // Any other name is looked up as it stands.
    setenv("QUELM_OTHER_NAME", "other", 1);
    EXPECT_STREQ(cgiRequestVariable("QUELM_OTHER_NAME"), "other");
    EXPECT_EQ(cgiRequestVariable("HTTP_HOST=other.lan"), std::getenv("HTTP_HOST=other.lan"));
    unsetenv("QUELM_OTHER_NAME");

    // Another request: an array of its own, then the same array and
    // strings holding other names.
    char **saved = environ;
    char host[] = "HTTP_HOST=first";
    char realm[] = "QUELM_REALM=web";
    char *request[] = {host, realm, nullptr};
    environ = request;
    cgissi::request::forget_variables();
    agree("own array");
    std::memcpy(host, "HTTP_XOST", 9);
    std::memcpy(realm, "DOCUMENT_ROOT=/", 15);
    cgissi::request::forget_variables();
    agree("same array, other names");
    environ = saved;
    cgissi::request::forget_variables();
    for (const auto &[which, name] : watched) unsetenv(name);
    agree("restored");
    if (zone) setenv("TZ", zone->c_str(), 1);
}

TEST_F(RequestForm, StringCopies) {
    struct Case { const char *query; bool newlines; int max; const char *text; cgiFormResultType code; } cases[] = {
        {"a=x%0D%0Ay", true, 64, "x\ny", cgiFormSuccess},  {"a=x%0D%0Ay", false, 64, "xy", cgiFormSuccess},
        {"a=%0D%0A", false, 64, "", cgiFormEmpty},         {"a=abcdef", true, 4, "abc", cgiFormTruncated},
        {"a=x%0D%0D%0Ay%0A%0A%0Dz", true, 64, "x\n\ny\n\nz", cgiFormSuccess},
        {"a=abc", true, 4, "abc", cgiFormSuccess},         {"a=x", true, 1, "", cgiFormTruncated},
        {"a=ab%0D%0A", true, 3, "ab", cgiFormTruncated},   {"a=ab%0D%0A", false, 3, "ab", cgiFormSuccess},
        {"a=", true, 8, "", cgiFormEmpty},                 {"A=x", true, 8, "", cgiFormNotFound},
        {"b=x", false, 8, "", cgiFormNotFound},
    };
    const std::string log = root_ + "/log";
    setenv("QUELM_LOG_FILE", log.c_str(), 1);
    QM_LOG_set(1);
    for (const Case &c : cases) {
        ASSERT_EQ(get(c.query), 0);
        char out[64];
        std::memset(out, '#', sizeof out);
        auto code = c.newlines ? cgiFormString("a", out, c.max) : cgiFormStringNoNewlines("a", out, c.max);
        EXPECT_EQ(code, c.code) << c.query << " max " << c.max;
        EXPECT_STREQ(out, c.text) << c.query << " max " << c.max;
        cgiFreeResources();
    }
    QM_LOG_set(0);
    EXPECT_NE(test_support::slurp(log).find("name [a] not found"), std::string::npos) << "a missing name is logged";
}

TEST_F(RequestForm, Numbers) {
    // bounded: cgiFormIntegerBounded to 0..10 with default 99, else cgiFormInteger with default 7
    struct Case { const char *query; bool bounded; int value; cgiFormResultType code; } integers[] = {
        {"n=%2012abc", false, 12, cgiFormSuccess}, {"n=abc", false, 7, cgiFormBadType},
        {"n=", false, 7, cgiFormEmpty},            {"m=1", false, 7, cgiFormNotFound},
        {"n=%2B3", false, 3, cgiFormSuccess},      {"n=%20", false, 7, cgiFormBadType},
        {"n=%09%0D%0A42", false, 42, cgiFormSuccess}, {"n=.5", false, 7, cgiFormBadType},
        {"n=99999999999", false, INT_MAX, cgiFormSuccess}, {"n=-99999999999", false, INT_MIN, cgiFormSuccess},
        {"n=50", true, 10, cgiFormConstrained},    {"n=-3", true, 0, cgiFormConstrained},
        {"n=10", true, 10, cgiFormSuccess},        {"n=x", true, 99, cgiFormBadType},
    };
    for (const Case &c : integers) {
        ASSERT_EQ(get(c.query), 0);
        int value = 0;
        EXPECT_EQ(c.bounded ? cgiFormIntegerBounded("n", &value, 0, 10, 99) : cgiFormInteger("n", &value, 7), c.code)
            << c.query;
        EXPECT_EQ(value, c.value) << c.query;
        cgiFreeResources();
    }

    ASSERT_EQ(get("d=.5&e=-1e3x&f=e3"), 0);
    double real = 0;
    EXPECT_EQ(cgiFormDoubleBounded("d", &real, 1, 2, 0), cgiFormConstrained);
    EXPECT_EQ(real, 1.0);
    EXPECT_EQ(cgiFormDouble("e", &real, 1), cgiFormSuccess);
    EXPECT_EQ(real, -1000);
    EXPECT_EQ(cgiFormDouble("f", &real, 1.5), cgiFormBadType);
    EXPECT_EQ(real, 1.5);
}

TEST_F(RequestForm, ChoicesAndMultipleValues) {
    const char *const colours[] = {"red", "green", "blue"};
    ASSERT_EQ(get("c=green&C=red&m=red&m=pink&m=blue&p=pink&v=1&v=2%0D%0Ax&e="), 0);

    int index = -1;
    EXPECT_EQ(cgiFormSelectSingle("c", colours, 3, &index, 9), cgiFormSuccess);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(cgiFormRadio("p", colours, 3, &index, 9), cgiFormNoSuchChoice);
    EXPECT_EQ(index, 9);
    EXPECT_EQ(cgiFormSelectSingle("x", colours, 3, &index, 8), cgiFormNotFound);
    EXPECT_EQ(index, 8);

    int flags[3] = {7, 7, 7};
    int invalid = -1;
    EXPECT_EQ(cgiFormSelectMultiple("m", colours, 3, flags, &invalid), cgiFormSuccess);
    EXPECT_EQ(std::vector<int>(flags, flags + 3), (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(invalid, 1);
    EXPECT_EQ(cgiFormCheckboxMultiple("p", colours, 3, flags, &invalid), cgiFormNotFound);
    EXPECT_EQ(std::vector<int>(flags, flags + 3), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(invalid, 1);
    EXPECT_EQ(cgiFormSelectMultiple("x", colours, 3, flags, &invalid), cgiFormNotFound);
    EXPECT_EQ(invalid, 0);

    int needed = 0;
    EXPECT_EQ(cgiFormStringSpaceNeeded("c", &needed), cgiFormSuccess);
    EXPECT_EQ(needed, 6);
    EXPECT_EQ(cgiFormStringSpaceNeeded("x", &needed), cgiFormNotFound);
    EXPECT_EQ(needed, 1);

    char **array = nullptr;
    EXPECT_EQ(cgiFormStringMultiple("v", &array), cgiFormSuccess);
    EXPECT_EQ(strings(array), (std::vector<std::string>{"1", "2\nx"}));
    EXPECT_EQ(cgiFormStringMultiple("x", &array), cgiFormNotFound);
    EXPECT_EQ(strings(array), std::vector<std::string>{});
    EXPECT_EQ(cgiFormEntries(&array), cgiFormSuccess);
    EXPECT_EQ(strings(array), (std::vector<std::string>{"c", "C", "m", "p", "v", "e"}));
}

TEST_F(RequestCookie, Lookup) {
    struct Case { const char *header; const char *name; int max; const char *text; cgiFormResultType code; } cases[] = {
        {"a=1; ab=2", "ab", 16, "2", cgiFormSuccess},    {"a=1; ab=2", "a", 16, "1", cgiFormSuccess},
        {"a=1; ab=2", "b", 16, "", cgiFormNotFound},     {"ab=2", "a", 16, "", cgiFormNotFound},
        {"x=1;  \t y=2", "y", 16, "2", cgiFormSuccess},  {"x; y=2", "x", 16, "", cgiFormNotFound},
        {"x=", "x", 16, "", cgiFormSuccess},             {"x=a=b", "x", 16, "a=b", cgiFormSuccess},
        {"s=abcdef", "s", 7, "abcdef", cgiFormSuccess},  {"s=abcdef", "s", 6, "abcde", cgiFormTruncated},
        {"", "s", 16, "", cgiFormNotFound},
    };
    for (const Case &c : cases) {
        cgiCookie = c.header;
        char out[16];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(cgiCookieString(c.name, out, c.max), c.code) << c.header << " / " << c.name;
        EXPECT_STREQ(out, c.text) << c.header << " / " << c.name;
    }

    std::string long_value = "n=42; big=" + std::string(300, '1');
    cgiCookie = long_value.c_str();
    int value = 0;
    EXPECT_EQ(cgiCookieInteger("n", &value, -1), cgiFormSuccess);
    EXPECT_EQ(value, 42);
    EXPECT_EQ(cgiCookieInteger("big", &value, -1), cgiFormTruncated);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(cgiCookieInteger("none", &value, -2), cgiFormNotFound);
    EXPECT_EQ(value, -2);
}

TEST_F(RequestCookie, HugeHeaderFromEnvironment) {
    std::string header;
    for (int i = 0; i < 50000; ++i) header += "k" + std::to_string(i) + "=vvvvvvvvvvvvvvvv; ";
    header += "QM_home_ID=token";
    setenv("HTTP_COOKIE", header.c_str(), 1);
    ASSERT_EQ(cgiInitResources(nullptr), 0);

    char out[128];
    EXPECT_EQ(cgiCookieString("QM_home_ID", out, sizeof out), cgiFormSuccess);
    EXPECT_STREQ(out, "token");
    char **names = nullptr;
    ASSERT_EQ(cgiCookies(&names), cgiFormSuccess);
    std::vector<std::string> listed = strings(names);
    EXPECT_EQ(listed.size(), 50001u);
    EXPECT_EQ(listed.back(), "QM_home_ID");

    cgiCookie = " a=1;b; =x; c=2=3;d=";
    ASSERT_EQ(cgiCookies(&names), cgiFormSuccess);
    EXPECT_EQ(strings(names), (std::vector<std::string>{"a", "c", "d"}));
}

TEST_F(RequestHeader, ExactBytes) {
    struct Case { const char *desc; int first_cookie; std::function<void()> write; std::string bytes; } cases[] = {
        {"content type", 1, [] { cgiHeaderContentType("text/html"); }, "Content-type: text/html\r\n\r\n"},
        // No blank line before the block, even in a process with no request set up yet.
        {"content type, no request yet", 0, [] { cgiHeaderContentType("text/xml"); },
         "Content-type: text/xml\r\n\r\n"},
        {"status", 1, [] { cgiHeaderStatus(404, "Not Found"); }, "Status: 404 Not Found\r\n\r\n"},
        {"status, no request yet", 0, [] { cgiHeaderStatus(500, "Oops"); }, "Status: 500 Oops\r\n\r\n"},
        {"location, no request yet", 0, [] { cgiHeaderLocation("/a"); },
         "Content-type: text/html\r\n\r\n<HTML>\n<script>\r\ndocument.location.replace(\"/a\");\r\n"
         "</script>\r\n</HTML>\n"},
        {"cookie string", 0, [] { cgiHeaderCookieSetString("QM_x_ID", "tok", 600, "/", "gw.lan"); },
         "Set-Cookie: QM_x_ID=tok; Domain=gw.lan; Max-Age=600; Path=/; \r\n"},
        {"cookie integer", 1, [] { cgiHeaderCookieSetInteger("n", -7, 0, "/p", ""); },
         "Set-Cookie: n=-7; Domain=; Max-Age=0; Path=/p; \r\n"},
        // A request value passed on cannot add header lines.
        {"cookie value with a line break is not set", 1,
         [] { cgiHeaderCookieSetString("a", "x\r\nSet-Cookie: b=1", 0, "/", ""); }, ""},
        {"cookie path with a control byte is not set", 1,
         [] { cgiHeaderCookieSetInteger("n", 1, 0, "/\x01", ""); }, ""},
    };
    int saved = firstCookie;
    for (const Case &c : cases) {
        firstCookie = c.first_cookie;
        EXPECT_EQ(captured_output(c.write), c.bytes) << c.desc;
    }
    firstCookie = saved;
}

TEST_F(RequestFile, TempFilesAndUploadedParts) {
    setenv("QUELM_ROOT", root_.c_str(), 1);
    char path[CGIC_TEMP_NAME_SIZE];
    EXPECT_EQ(getTempFileName(path, sizeof path), 2) << "no /var/tmp under the root";
    std::filesystem::create_directories(root_ + "/var/tmp");
    char small[20];
    EXPECT_EQ(getTempFileName(small, sizeof small), 2) << "the mapped path cannot fit";
    EXPECT_STREQ(small, "");

    ASSERT_EQ(getTempFileName(path, sizeof path), 0);
    std::string prefix = root_ + "/var/tmp/cgic";
    ASSERT_EQ(std::string(path).rfind(prefix, 0), 0u) << path;
    EXPECT_EQ(std::strlen(path), prefix.size() + 6);
    struct stat st {};
    ASSERT_EQ(stat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "upload temporaries are the responder's alone";
    std::ofstream(path, std::ios::binary) << "hello world";

    // A file part as the multipart parser leaves it: no value, no content type.
    auto *part = static_cast<cgiFormEntry *>(std::calloc(1, sizeof(cgiFormEntry)));
    part->attr = strdup("up");
    part->valueLength = 11;
    part->fileName = strdup("photo.jpg");
    part->tfileName = strdup(path);
    ASSERT_EQ(get("t=1"), 0);
    part->next = cgiFormEntryFirst;
    cgiFormEntryFirst = part;

    // The name whole and the reads of the file: the upload and import tests
    // of test_nas.py and test_maintenance.py.
    char text[CGIC_TEMP_NAME_SIZE];
    EXPECT_EQ(cgiFormFileName("up", text, 4), cgiFormTruncated);
    EXPECT_STREQ(text, "pho");
    EXPECT_EQ(cgiFormFileContentType("up", text, sizeof text), cgiFormNoContentType);
    EXPECT_EQ(cgiFormTmpFileName("up", text, sizeof text), cgiFormSuccess);
    EXPECT_STREQ(text, path);
    int size = -1;
    EXPECT_EQ(cgiFormFileSize("up", &size), cgiFormSuccess);
    EXPECT_EQ(size, 11);
    cgiFilePtr file = nullptr;
    EXPECT_EQ(cgiFormFileClose(nullptr), cgiFormOpenFailed);

    // An urlencoded field is no file; a missing one is not found.
    EXPECT_EQ(cgiFormFileSize("t", &size), cgiFormNotAFile);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(cgiFormFileOpen("t", &file), cgiFormNotAFile);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(cgiFormFileName("t", text, sizeof text), cgiFormNoFileName);
    EXPECT_EQ(cgiFormFileName("x", text, sizeof text), cgiFormNotFound);
    EXPECT_STREQ(text, "");

    // The next request releases a list its predecessor left behind,
    // temporary file included.
    ASSERT_EQ(get("b=2"), 0);
    EXPECT_EQ(form_fields(), (Fields{{"b", "2"}}));
    EXPECT_NE(access(path, F_OK), 0) << "temporary file of the dropped list removed";
}

}  // namespace
