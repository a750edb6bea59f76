// The pure parts of the NAS service: playlist reading and reordering, the
// thumbnail decoder, the address and PATH_INFO parsers. The encoders are
// held by the listing and M3U integration tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nas/nas_internal.h"
#include "qm_nas.h"

namespace {

using namespace cgissi::nas;
using Lines = std::vector<std::string>;

TEST(NasPlaylist, LinesDropTheBreakSkipEmptiesAndSplitLongLines) {
    EXPECT_EQ(playlist_lines("a/1.mp3\n\n\nb/2.mp3\n"), (Lines{"a/1.mp3", "b/2.mp3"}));
    // A line is read with at most 4095 characters, the last of which is
    // taken for the break: a 5000-character entry comes out as two pieces
    // with one character lost at the cut.
    const std::string longest(5000, 'x');
    const Lines pieces = playlist_lines(longest + "\n");
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_EQ(pieces[0].size(), 4094u);
    EXPECT_EQ(pieces[1].size(), 5000u - 4095u);
}

TEST(NasPlaylist, MovesWrapOnceThenDrop) {
    const Lines abc{"a", "b", "c"};
    struct Case { const char *desc, *song; int direction, nb; Lines want; } cases[] = {
        {"down one", "a", 1, 1, {"b", "a", "c"}},
        {"down two", "a", 1, 2, {"b", "c", "a"}},
        {"last down wraps to the top", "c", 1, 1, {"c", "a", "b"}},
        {"down past the wrap point drops it", "b", 1, 5, {"a", "c"}},
        {"up one", "c", -1, 1, {"a", "c", "b"}},
        {"first up wraps to the end", "a", -1, 1, {"b", "c", "a"}},
        {"up past the wrap point drops it", "a", -1, 2, {"b", "c"}},
        {"remove", "b", 0, 1, {"a", "c"}},
    };
    for (const Case &c : cases) {
        const auto moved = playlist_moved(abc, c.song, c.direction, c.nb);
        ASSERT_TRUE(moved) << c.desc;
        EXPECT_EQ(*moved, c.want) << c.desc;
    }
    EXPECT_FALSE(playlist_moved(abc, "z", 1, 1)) << "absent song";
    EXPECT_EQ(*playlist_moved(Lines{"a"}, "a", 1, 1), Lines{"a"}) << "one entry does not move";
    EXPECT_EQ(*playlist_moved(Lines{"a", "b", "a"}, "a", 0, 1), (Lines{"b", "a"})) << "first occurrence only";
}

TEST(NasThumbnail, Base64IsStrictAndBounded) {
    EXPECT_EQ(base64_decode("iVBORw0KGgo=", 100), std::string("\x89PNG\r\n\x1a\n"));
    EXPECT_EQ(base64_decode("YWJj\r\nZA==", 100), std::string("abcd"));
    EXPECT_EQ(base64_decode("YWJjZA", 100), std::string("abcd")) << "padding may be left off";
    EXPECT_FALSE(base64_decode("YWJj!A==", 100)) << "not an alphabet character";
    EXPECT_FALSE(base64_decode("YQ==YQ==", 100)) << "data after the padding";
    EXPECT_FALSE(base64_decode("Y", 100)) << "a lone sextet";
    EXPECT_EQ(base64_decode("YWJjZA==", 4), std::string("abcd")) << "exactly the limit";
    EXPECT_FALSE(base64_decode("YWJjZA==", 3)) << "one byte over the limit";
    EXPECT_FALSE(base64_decode("YWJjZGVm", 5));
}

TEST(NasPolicy, DottedQuads) {
    EXPECT_EQ(my_ipword("192.168.1.1"), 0xC0A80101L);
    EXPECT_EQ(my_ipword("255.255.255.255"), 0xFFFFFFFFL);
    for (const char *bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1..2.3", "1.2.3.4 ", "a.b.c.d", "gateway",
                            "1.2.3.99999999999999999999"})
        EXPECT_EQ(my_ipword(bad), -1) << bad;
}

TEST(NasPolicy, PathInfoParameters) {
    const char *info = "/disk/usb1/file/Music/a b.mp3";
    EXPECT_EQ(pathinfo_value(info, "disk", false), "usb1");
    EXPECT_EQ(pathinfo_value(info, "file", false), "Music");
    EXPECT_EQ(pathinfo_value(info, "file", true), "Music/a b.mp3");
    EXPECT_FALSE(pathinfo_value(info, "usb", false));
    EXPECT_FALSE(pathinfo_value("", "disk", false));
    char out[4];
    EXPECT_EQ(pathinfo_get_parm(info, "file", out, sizeof out, 1), 0);
    EXPECT_STREQ(out, "Mus") << "cut to the output size";
    EXPECT_EQ(pathinfo_get_parm(info, std::string(81, 'k').c_str(), out, sizeof out, 0), 24);
}

}  // namespace
