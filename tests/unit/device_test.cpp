// The device functions' pure helpers that plugins call through qm_device.h:
// the "|" argument split with its continuation, and bounded hex.
#include <gtest/gtest.h>

#include <string>

#include "device/device_internal.h"
#include "qm_device.h"

namespace {

TEST(DeviceArguments, SplitContinuesAndCutsLongPieces) {
    char out[QM_ARGUMENT_PIECE_SIZE];
    const std::string long_piece(300, 'x');
    const std::string text = "START||" + long_piece + "|3";
    ASSERT_EQ(get_argument(out, text.c_str(), 1), 0);
    EXPECT_STREQ(out, "START");
    ASSERT_EQ(get_argument(out, nullptr, 0), 0);
    EXPECT_STREQ(out, "");  // an empty piece is still a piece
    ASSERT_EQ(get_argument(out, nullptr, 0), 0);
    EXPECT_EQ(std::string(out), long_piece.substr(0, QM_ARGUMENT_PIECE_SIZE - 1));
    ASSERT_EQ(get_argument(out, nullptr, 0), 0);
    EXPECT_STREQ(out, "3");
    EXPECT_EQ(get_argument(out, nullptr, 0), -1);
    EXPECT_EQ(get_argument(out, nullptr, 1), -1);  // a null text has no piece

    const auto pieces = cgissi::device::split_pieces(text);
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_EQ(pieces[2].size(), QM_ARGUMENT_PIECE_SIZE - 1u);
}

TEST(DeviceHex, WritesWholeBytesWithinTheBuffer) {
    char out[5];
    EXPECT_EQ(atoh("AB", out, sizeof out), 0);
    EXPECT_STREQ(out, "4142");
    EXPECT_EQ(atoh("ABC", out, sizeof out), 0);  // no room for a third byte: cut, never half a byte
    EXPECT_STREQ(out, "4142");
    EXPECT_EQ(atoh("\xff", out, 4), 0);
    EXPECT_STREQ(out, "FF");
    EXPECT_EQ(atoh(nullptr, out, sizeof out), 1);
    EXPECT_EQ(atoh("A", nullptr, 0), 1);
    EXPECT_EQ(itoh(10), 'A');
}

TEST(DeviceHosts, OnlyNamesAndAddressesReachATool) {
    for (const char *host : {"127.0.0.1", "localhost", "::1", "fe80::1", "my_host-1.lan"})
        EXPECT_TRUE(cgissi::device::is_safe_host(host)) << host;
    for (const char *host : {"", "-f", "-i0.0001", "a b", ";id", "$(id)", "a/b", "`id`", "a\nb", "x|y"})
        EXPECT_FALSE(cgissi::device::is_safe_host(host)) << host;
}

}  // namespace
