// SSI engine: the CGI pattern matcher, the escaping of ssiprintf and its
// chunked staging, the directive splitter, the page scanner on malformed
// pages, and the MIME table rule.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include "cgic.h"
#include "ssi_parse.h"
#include "ssi.h"
#include "test_support.h"

namespace {

using namespace cgissi::ssi;

using test_support::captured_output;

// ---- CGI pattern ------------------------------------------------------------

struct MatchCase { const char *pattern; const char *text; bool matches; const char *what; };

TEST(SsiMatch, PatternTable) {
    const MatchCase cases[] = {
        {"/cgi-bin/*", "/cgi-bin/a.cgi", true, "* within one component"},
        {"/cgi-bin/*", "/cgi-bin/sub/a.cgi", false, "* stops at /"},
        {"/cgi-bin/*", "/cgi-bin/", true, "* matches an empty run"},
        {"**.cgi", "/www/deep/dir/x.cgi", true, "** crosses /"},
        {"**.cgi", "/www/x.cgi.htm", false, "whole text must match"},
        {"*.cgi", "/www/x.cgi", false, "* cannot take the leading /"},
        {"/www/?.htm", "/www/a.htm", true, "? one character"},
        {"/www/?.htm", "/www/.htm", false, "? is not the empty run"},
        {"/www/a?b", "/www/a/b", true, "? takes a /"},
        {"*.htm|**.cgi|/x", "/x", true, "third alternative"},
        {"*.htm|**.cgi|/x", "/a/b.js", false, "no alternative"},
        {"a||b", "", true, "empty alternative matches the empty text"},
        {"a||b", "ab", false, "alternatives are whole"},
        {"**/*.cgi", "/a/b/c.cgi", true, "backtrack ** to the last /"},
        {"**/*.cgi", "/a/b/c/", false, "last component must end .cgi"},
        {"*a*a*b", "xaxaxaxb", true, "backtracking over repeated runs"},
        {"***", "/a/b", true, "** then *"},
        {"", "", true, "empty pattern"},
        {"", "x", false, "empty pattern, text"},
    };
    for (const MatchCase &c : cases) {
        EXPECT_EQ(match(c.pattern, c.text), c.matches) << c.what << ": " << c.pattern << " ~ " << c.text;
    }
}

TEST(SsiMatch, ManyDeepRunsOnLongPathFinishQuickly) {
    // Naive backtracking needs time exponential in the number of "**".
    std::string pattern;
    for (int i = 0; i < 30; ++i) pattern += "**a";
    pattern += "**b";
    std::string path(4000, 'a');
    for (std::size_t i = 0; i < path.size(); i += 7) path[i] = '/';
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(match(pattern, path));
    EXPECT_TRUE(match(pattern, path + "b"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// ---- Escaped output ------------------------------------------------------------

class SsiOutput : public test_support::PageOutput {
protected:
    static std::string print(int mode, const std::string &text) {
        SSI_Set_Mode(mode);
        return captured_output([&] { ssiprintf("%s", text.c_str()); });
    }
};

struct EscapeCase { char byte; const char *js; const char *json; };

TEST_F(SsiOutput, EverySpecialByteInBothModes) {
    const EscapeCase cases[] = {
        {'\a', "\\007", "\\007"}, {'\b', "\\010", "\\010"}, {'\t', "\\011", "\\011"},
        {'\n', "\\012", "\\013"},  // JSON newline as \013: kept for the pages' decoders
        {'\v', "\\013", "\\013"}, {'\f', "\\f", "\\f"},     {'\r', "\\015", "\\015"},
        {'"', "\\\"", "\\\\\""},  // JSON quote as three bytes, also kept
        {'<', "\\u003C", "\\u003C"}, {'>', "\\u003E", "\\u003E"},  // no value closes its script
        {'\'', "\\'", "\\'"},     {'\\', "\\\\", "\\\\"},
        {'/', "/", "/"},          {'\x01', "\x01", "\x01"}, {'\x7f', "\x7f", "\x7f"},
        {'\xe9', "\xe9", "\xe9"}, {'a', "a", "a"},
    };
    for (const EscapeCase &c : cases) {
        const std::string in = std::string("[") + c.byte + "]";
        EXPECT_EQ(print(SSI_MODE_JS, in), std::string("[") + c.js + "]") << "js byte " << int(c.byte);
        EXPECT_EQ(print(SSI_MODE_JSON, in), std::string("[") + c.json + "]") << "json byte " << int(c.byte);
        EXPECT_EQ(print(SSI_MODE_PLAIN, in), in) << "plain byte " << int(c.byte);
    }
    EXPECT_EQ(print(SSI_MODE_JS, "a'b\n"), "a\\'b\\012");
    EXPECT_EQ(Ssi[0], '\0') << "the staging buffer is left empty";
}

TEST_F(SsiOutput, FormattingIsCutAt4095CharactersAndOtherModesPrintNothing) {
    for (int mode : {3, -1, 100}) EXPECT_EQ(print(mode, "text'\n"), "") << mode;
    const std::string long_text(5000, 'x');
    EXPECT_EQ(print(SSI_MODE_PLAIN, long_text), std::string(4095, 'x'));
    EXPECT_EQ(print(SSI_MODE_JS, long_text), std::string(4095, 'x'));
    // Escaping happens after the cut: 4095 backslashes become 8190 bytes.
    EXPECT_EQ(print(SSI_MODE_JSON, std::string(5000, '\\')), std::string(8190, '\\'));
}

TEST_F(SsiOutput, StagingLeavesIn4095ByteChunks) {
    int pos = 0;
    const std::string before_full = captured_output([&] {
        for (int i = 0; i < 4095; ++i) pos = ssisendbyte(pos, static_cast<char>('a' + i % 26));
    });
    EXPECT_EQ(before_full, "") << "nothing leaves until the buffer is full";
    EXPECT_EQ(pos, 4095);
    const std::string at_full = captured_output([&] { pos = ssisendbyte(pos, 'Z'); });
    ASSERT_EQ(at_full.size(), 4095u);
    EXPECT_EQ(at_full.substr(0, 3), "abc");
    EXPECT_EQ(pos, 1);
    EXPECT_EQ(Ssi[0], 'Z');
    // Out-of-range positions from callers never index outside the buffer.
    EXPECT_EQ(captured_output([&] { pos = ssisendbyte(-5, 'q'); }), "");
    EXPECT_EQ(pos, 1);
    EXPECT_EQ(captured_output([&] { pos = ssisendbyte(100000, 'r'); }).size(), 4095u);
    EXPECT_EQ(pos, 1);
    Ssi[0] = '\0';
}

// ---- Directive text ------------------------------------------------------------

// "name|attr=value|attr=value", or "malformed".
std::string split(std::string_view text) {
    Directive d;
    if (!parse_directive(text, d)) return "malformed";
    std::string out(d.name);
    for (const Attribute &a : d.attributes) out.append("|").append(a.name).append("=").append(a.value);
    return out;
}

TEST(SsiParse, DirectiveTable) {
    const struct { std::string_view text; const char *expected; const char *what; } cases[] = {
        {"echo var=\"DOCUMENT_URI\" ", "echo|var=DOCUMENT_URI", "quoted value, trailing blank"},
        {" \t\r\necho var=x", "echo|var=x", "leading white space"},
        {"echo var=\"a b\"  jsvar=c\n", "echo|var=a b|jsvar=c", "blank inside quotes"},
        {"echo var=\"abc", "malformed", "unclosed quote"},
        {"echo var=\"a\"b c=d", "echo|var=a|c=d", "byte after a closing quote is dropped"},
        {"endCheck", "endCheck", "no attributes"},
        {"isAuth admin", "isAuth|admin=", "attribute without ="},
        {"echo var=a=b", "echo|var=a=b", "split at the first ="},
        {"echo var=\"\"", "echo|var=", "empty quoted value"},
        {"echo\"x y\" z", "echo\"x y\"|z=", "a quote inside the name"},
        {"", "", "empty directive"},
        {"   ", "", "blank directive"},
        {std::string_view("echo var=x\0 b=c", 15), "echo|var=x", "text stops at NUL"},
    };
    for (const auto &c : cases) EXPECT_EQ(split(c.text), c.expected) << c.what;
}

TEST(SsiParse, AttributesBeyondTheLimitStayInTheLast) {
    std::string text = "echo";
    for (std::size_t i = 0; i < kMaxAttributes + 2; ++i) text += " a" + std::to_string(i) + "=v";
    Directive d;
    ASSERT_TRUE(parse_directive(text, d));
    ASSERT_EQ(d.attributes.size(), kMaxAttributes);
    EXPECT_EQ(d.attributes[kMaxAttributes - 2].name, "a198");
    EXPECT_EQ(d.attributes.back().name, "a199");
    EXPECT_EQ(d.attributes.back().value, "v a200=v a201=v");
}

// ---- Page scanning ------------------------------------------------------------

// Records text as T(...) (adjacent runs merged) and directives as D(...);
// accepts a directive unless its text starts with "no". `whole` puts the
// page back together from what the scanner passed on.
class Recorder : public PageSink {
public:
    std::string events;
    std::string whole;
    void text(std::string_view run) override {
        whole += run;
        if (run.empty()) return;
        if (events.ends_with(")") && last_was_text_) {
            events.insert(events.size() - 1, run);
        } else {
            events.append("T(").append(run).append(")");
        }
        last_was_text_ = true;
    }
    bool directive(std::string_view from_open, std::string_view inner) override {
        EXPECT_EQ(from_open.substr(0, 5), "<!--#");
        if (inner.substr(0, 2) == "no") return false;
        events.append("D(").append(inner).append(")");
        whole.append("<!--#").append(inner).append("-->");
        last_was_text_ = false;
        return true;
    }

private:
    bool last_was_text_ = false;
};

std::string scan(std::string_view page) {
    Recorder r;
    scan_page(page, r);
    EXPECT_EQ(r.whole, page) << "every byte is passed on once, in order";
    return r.events;
}

TEST(SsiScan, MalformedPagesComeOutAsText) {
    using namespace std::string_view_literals;
    const struct { std::string_view page; std::string_view expected; const char *what; } cases[] = {
        {"<!--#a -->", "D(a )", "directive at the very start"},
        {"#<!--#a -->#", "T(#)D(a )T(#)", "# among the first bytes"},
        {"x<!--#a", "T(x<!--#a)", "no closing -->"},
        {"x<!--#a -- >y", "T(x<!--#a -- >y)", "broken closing"},
        {"<!--#-->", "D()", "empty directive"},
        {"a<!--#no -->b<!--#c -->", "T(a<!--#no -->b)D(c )", "refused directive is text"},
        {"<!--<!--#a -->", "T(<!--)D(a )", "nested opening"},
        {"<!-#a --> x#y", "T(<!-#a --> x#y)", "not an opening"},
        {"a\0<!--#b -->\0c"sv, "T(a\0)D(b )T(\0c)"sv, "NUL bytes pass"},
    };
    for (const auto &c : cases) EXPECT_EQ(scan(c.page), c.expected) << c.what;
}

TEST(SsiScan, DirectiveLengthLimit) {
    const std::string fits = "<!--#" + std::string(kDirectiveBufferSize - 1, 'x') + "-->";
    const std::string too_long = "<!--#" + std::string(kDirectiveBufferSize, 'x') + "-->";
    EXPECT_EQ(scan(fits), "D(" + std::string(kDirectiveBufferSize - 1, 'x') + ")");
    // Shown as text in one piece, and scanning goes on after it.
    EXPECT_EQ(scan(too_long + "<!--#a -->"), "T(" + too_long + ")D(a )");
    // A too long directive hides no directive inside it.
    const std::string hiding = "<!--#" + std::string(600, 'x') + "<!--#b " + std::string(600, 'y') + "-->";
    EXPECT_EQ(scan(hiding), "T(" + hiding + ")");
}

TEST(SsiScan, SectionTagsNeedTheirBlank) {
    const struct { std::string_view text; bool found; int section; } cases[] = {
        {"<!--#isNotAuth -->", true, 0}, {"<!--#isAuth level=x -->", true, 1}, {"<!--#endAuth -->", true, -1},
        {"<!--#isAuth-->", false, 0},    {"<!--#isAuth\nx -->", false, 0},     {"<!--#isAuth", false, 0},
    };
    for (const auto &c : cases) {
        int section = 42;
        EXPECT_EQ(section_tag(c.text, section), c.found) << c.text;
        if (c.found) {
            EXPECT_EQ(section, c.section) << c.text;
        }
    }
}

// ---- Content types (the served types are checked by test_ssi.py) ----------------

TEST(SsiMime, LookupByLastExtension) {
    const struct { const char *name; const char *type; } cases[] = {
        {"/www/index.html", "text/html"},
        {"/www/f.a", "application/octet-stream"}, {"/www/INDEX.HTM", "text/plain"},
        {"/www/noext", "text/plain"},             {"/www.d/page", "text/plain"},
        {"/www/page.htm.", "text/plain"},         {"/www/x.tar.gz", "application/x-gzip"},
        // The ends of the table and names between its rows.
        {"/www/f.zip", "application/zip"},        {"/www/f.zz", "text/plain"},
        {"/www/f.0", "text/plain"},               {"/www/f.ht", "text/plain"},
        {"/www/f.htmlx", "text/plain"},           {"/www/f.aia", "text/plain"},
    };
    for (const auto &c : cases) EXPECT_STREQ(mime_type(c.name), c.type) << c.name;
}

}  // namespace
