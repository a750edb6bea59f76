// The device functions' pure helpers that plugins call through qm_device.h:
// the "|" argument split with its continuation, and bounded hex; and the
// launcher of background programs.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "test_support.h"

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
}

TEST(DeviceHosts, OnlyNamesAndAddressesReachATool) {
    for (const char *host : {"127.0.0.1", "localhost", "::1", "fe80::1", "my_host-1.lan"})
        EXPECT_TRUE(cgissi::device::is_safe_host(host)) << host;
    for (const char *host : {"", "-f", "-i0.0001", "a b", ";id", "$(id)", "a/b", "`id`", "a\nb", "x|y"})
        EXPECT_FALSE(cgissi::device::is_safe_host(host)) << host;
}

bool process_exists(pid_t pid) { return std::filesystem::exists("/proc/" + std::to_string(pid)); }

TEST(DeviceLauncher, WritesTheOutputFileAndKillsAtTheTimeLimit) {
    namespace fs = std::filesystem;
    const fs::path prefix = fs::temp_directory_path() / ("launch_" + std::to_string(::getpid()));
    const pid_t echo = cgissi::device::start_detached({"/bin/echo", "hello"}, prefix.string(), 5);
    ASSERT_GT(echo, 0);
    const fs::path output = prefix.string() + "_" + std::to_string(echo);
    for (int i = 0; i < 50 && process_exists(echo); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(test_support::slurp(output), "hello\n");
    struct stat st {};
    ASSERT_EQ(::stat(output.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0404u);
    fs::remove(output);

    // A program that would run on is killed at its limit (1 s here), and
    // reaped by its watcher: no zombie stays behind.
    const pid_t sleeper = cgissi::device::start_detached({"sleep", "30"}, "", 1);
    ASSERT_GT(sleeper, 0);
    EXPECT_TRUE(process_exists(sleeper));
    for (int i = 0; i < 100 && process_exists(sleeper); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(process_exists(sleeper));
    EXPECT_EQ(cgissi::device::start_detached({"no-such-program-here"}, "", 1), -1);
}

}  // namespace
