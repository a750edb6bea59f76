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

// The tree layout is held by DatamodelTree.RecordsPrintAsNestedMembers, the
// login and answer layouts byte for byte by test_login.py and test_generic.py;
// here a key that needs escaping and a raw member.
TEST_F(JsonWriter, AnswerKeysAreEscapedAndRawValuesKept) {
    const std::string answer = captured_output([] {
        Writer w(kAnswerLayout);
        w.begin_object();
        w.key("fct");
        w.raw(R"("done")");
        w.key("a\"b");
        w.string("", Escape::strict);
        w.end_object();
    });
    EXPECT_EQ(answer, R"({"fct" : "done", "a\"b" : ""})");
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
