// The JSON writer: the byte layouts of the answers that pages and scripts
// parse, and what each escaping mode does to a value.

#include <gtest/gtest.h>

#include <string>

#include "json/json_writer.h"
#include "ssi.h"
#include "test_support.h"

namespace {

using namespace cgissi::json;
using test_support::captured_output;

using JsonWriter = test_support::PageOutput;

TEST_F(JsonWriter, LayoutsKeepTheirSeparators) {
    // Nested objects: the separator state of the outer object survives the
    // inner one, and a key may stand without a value.
    const std::string tree = captured_output([] {
        Writer w(kTreeLayout);
        w.begin_object();
        w.key("A");
        w.begin_object();
        w.key("x");
        w.key("B");
        w.string("y", Escape::output_mode);
        w.end_object();
        w.key("C");
        w.secret(",pw", true, Escape::output_mode);
        w.end_object();
    });
    EXPECT_EQ(tree, R"({"A" : {"x" : ,"B" : "y"},"C" : ",********"})");

    const std::string answer = captured_output([] {
        Writer w(kAnswerLayout);
        w.begin_object();
        w.compact_member("Rule", "3");
        w.key("fct");
        w.raw(R"("done")");
        w.key("a\"b");
        w.string("", Escape::strict);
        w.end_object();
    });
    EXPECT_EQ(answer, R"({"Rule":"3", "fct" : "done", "a\"b" : ""})");

    const std::string login = captured_output([] {
        Writer w(kLoginLayout);
        w.begin_object();
        w.key("result");
        w.string("OK", Escape::strict);
        w.key("codeError");
        w.number(-1);
        w.end_object();
    });
    EXPECT_EQ(login, R"({"result": "OK", "codeError": -1})");
}

// Masks are in datamodel_test.cpp (RecordsPrintAsNestedMembers).
TEST_F(JsonWriter, EscapingModes) {
    const std::string value = "a\"b\\c\nd'";
    auto written = [&](Escape escape, int mode) {
        SSI_Set_Mode(mode);
        return captured_output([&] { Writer(kAnswerLayout).string(value, escape); });
    };
    EXPECT_EQ(written(Escape::strict, SSI_MODE_JSON), R"("a\"b\\c\u000ad'")");
    EXPECT_EQ(written(Escape::verbatim, SSI_MODE_JSON), "\"" + value + "\"");
    // The page's mode: the value only, never the quotes around it.
    EXPECT_EQ(written(Escape::output_mode, SSI_MODE_JSON), R"("a\\"b\\c\013d\'")");
    EXPECT_EQ(written(Escape::output_mode, SSI_MODE_PLAIN), "\"" + value + "\"");
}

}  // namespace
