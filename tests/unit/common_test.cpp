// The shared helpers every layer builds on: the child runner, split, hex
// and the guard of the C edge.
#include <algorithm>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <vector>

#include "quelm_chars.h"
#include "quelm_folder_watch.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_kept_file.h"
#include "quelm_log.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "test_support.h"

namespace {

TEST(ChildRunner, GivesTheChildNullInputAndNoInheritedDescriptors) {
    // A descriptor the parent holds open must not reach the child.
    quelm::UniqueFd held(::open("/dev/null", O_RDONLY));  // deliberately without O_CLOEXEC
    ASSERT_TRUE(held);
    const std::string probe = "read line; echo \"in=[$line]\"; ls /proc/self/fd | wc -l";
    std::string out;
    const quelm::ChildResult r = quelm::run_child({"/bin/sh", "-c", probe}, out);
    EXPECT_EQ(r.status, 0);
    // stdin empty; fds 0, 1, 2 and the one ls itself opens on /proc/self/fd.
    EXPECT_EQ(out, "in=[]\n4\n");
}

TEST(ChildRunner, ReportsStatusLimitAndTimeout) {
    std::string out;
    EXPECT_EQ(quelm::run_child({"/bin/sh", "-c", "exit 3"}, out).status, 3);
    EXPECT_EQ(quelm::run_child({}, out).status, -1);

    quelm::ChildOptions limited;
    limited.output_limit = 5;
    // The child writes far more than a pipe holds: it must still finish.
    quelm::ChildResult r = quelm::run_child({"/bin/sh", "-c", "yes | head -c 200000; echo done >&2"}, out, limited);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.truncated);
    EXPECT_EQ(out, "y\ny\ny");

    quelm::ChildOptions merged;
    merged.merge_stderr = true;
    quelm::run_child({"/bin/sh", "-c", "echo err >&2"}, out, merged);
    EXPECT_EQ(out, "err\n");

    quelm::ChildOptions quick;
    quick.timeout_ms = 100;
    r = quelm::run_child({"/bin/sleep", "10"}, out, quick);
    EXPECT_TRUE(r.timed_out);
    EXPECT_EQ(r.status, 128 + 9);
}

TEST(ChildRunner, FindsProgramsInTheRootBeforeTheSearchPath) {
    namespace fs = std::filesystem;
    const fs::path root = fs::temp_directory_path() / ("find_program_" + std::to_string(::getpid()));
    fs::create_directories(root / "bin");
    const auto write_file = [](const fs::path &path, const char *text, fs::perms perms) {
        std::ofstream(path) << text;
        fs::permissions(path, perms);
    };
    write_file(root / "bin" / "sh", "#!/bin/sh\necho root-sh\n", fs::perms::owner_all);
    write_file(root / "bin" / "ls", "not a program", fs::perms::owner_read);  // not executable: skipped
    const char *saved = std::getenv("QUELM_ROOT");
    const std::string saved_root = saved != nullptr ? saved : "";
    setenv("QUELM_ROOT", root.c_str(), 1);

    EXPECT_EQ(quelm::find_program("sh"), (root / "bin" / "sh").string());
    const std::string ls = quelm::find_program("ls");
    EXPECT_TRUE(ls.ends_with("/ls") && !ls.starts_with(root.string())) << ls;
    EXPECT_EQ(quelm::find_program("../bin/sh"), "../bin/sh");  // a path is taken as it is
    EXPECT_EQ(quelm::find_program("no-such-program-here"), "");
    std::string out;
    EXPECT_EQ(quelm::run_child({"sh"}, out).status, 0);
    EXPECT_EQ(out, "root-sh\n");
    EXPECT_EQ(quelm::run_child({"no-such-program-here"}, out).status, 127);

    saved != nullptr ? setenv("QUELM_ROOT", saved_root.c_str(), 1) : unsetenv("QUELM_ROOT");
    fs::remove_all(root);
}

TEST(RootPath, MapsLikeRootPathOnTheStackAndBeyondIt) {
    const char *saved = std::getenv("QUELM_ROOT");
    const std::string saved_root = saved != nullptr ? saved : "";
    setenv("QUELM_ROOT", "/srv/gw//", 1);
    // Either side of the stack buffer's size: 7 + 248 bytes and the terminator fill it.
    for (std::size_t length : {1UL, 248UL, 249UL, 1000UL}) {
        const std::string path = "/" + std::string(length - 1, 'a');
        const quelm::RootPath mapped(path);
        EXPECT_EQ(mapped.view(), quelm::root_path(path)) << length;
        EXPECT_EQ(std::string(mapped.c_str()), "/srv/gw" + path) << length;
    }
    saved != nullptr ? setenv("QUELM_ROOT", saved_root.c_str(), 1) : unsetenv("QUELM_ROOT");
}

TEST(KeptFile, TrustsOnlySettledUnchangedFiles) {
    struct stat st {};
    st.st_mode = S_IFREG | 0644;
    struct timespec now {};
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME_COARSE, &now), 0);
    st.st_ctim = now;  // changed this tick: a change in the same tick could hide
    EXPECT_FALSE(quelm::settled(st));
    st.st_ctim.tv_sec = now.tv_sec + 5;  // clock set back since
    EXPECT_FALSE(quelm::settled(st));
    st.st_ctim.tv_sec = now.tv_sec - 1;
    EXPECT_TRUE(quelm::settled(st));
    st.st_mode = S_IFIFO | 0644;
    EXPECT_FALSE(quelm::settled(st));

    // A kept file answers for its own path while its status holds; every
    // field a change moves makes it stale.
    const std::filesystem::path file = std::filesystem::temp_directory_path() / ("kept." + std::to_string(::getpid()));
    {
        quelm::UniqueFile f(std::fopen(file.c_str(), "w"));
        ASSERT_TRUE(f);
        std::fputs("one", f.get());
    }
    quelm::KeptFile kept;
    struct stat now_status {};
    EXPECT_FALSE(kept.unchanged(file.c_str(), now_status));  // nothing kept yet
    ASSERT_EQ(::stat(file.c_str(), &kept.status), 0);
    kept.path = file.string();
    EXPECT_TRUE(kept.unchanged(file.c_str(), now_status));
    EXPECT_FALSE(kept.unchanged((file.string() + "x").c_str(), now_status));
    for (auto change : {+[](struct stat &s) { ++s.st_ino; }, +[](struct stat &s) { ++s.st_size; },
                        +[](struct stat &s) { ++s.st_mtim.tv_nsec; }, +[](struct stat &s) { ++s.st_ctim.tv_nsec; },
                        +[](struct stat &s) { s.st_mode ^= 0004; }}) {
        quelm::KeptFile stale = kept;
        change(stale.status);
        EXPECT_FALSE(stale.unchanged(file.c_str(), now_status));
    }
    std::filesystem::remove(file);
    EXPECT_FALSE(kept.unchanged(file.c_str(), now_status));
}

// A fresh folder with a file "kept" in it, removed at the end.
struct WatchedFolder {
    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("watch." + std::to_string(::getpid()));
    std::string file = (folder / "kept").string();
    WatchedFolder() {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        write(file, "one");
    }
    ~WatchedFolder() { std::filesystem::remove_all(folder); }
    static void write(const std::filesystem::path &path, const char *text) {
        quelm::UniqueFile f(std::fopen(path.c_str(), "w"));
        ASSERT_TRUE(f);
        std::fputs(text, f.get());
    }
    // Every kind of change, by this thread and by another process, makes
    // the stamp stale; a new stamp is quiet again.
    void expect_every_change_seen() {
        namespace fs = std::filesystem;
        quelm::FolderStamp stamp = quelm::folder_stamp(file);
        ASSERT_GE(stamp.watch, 0);
        EXPECT_EQ(test_support::slurp(file), "one");  // reading changes nothing
        EXPECT_TRUE(quelm::folder_quiet(stamp));
        const std::function<void()> changes[] = {
            [&] { write(folder / "other", "x"); },
            [&] { ::utimensat(AT_FDCWD, file.c_str(), nullptr, 0); },
            [&] { write(file, "one"); },  // same contents
            [&] { fs::rename(folder / "other", folder / "moved"); },
            [&] { fs::remove(folder / "moved"); },
            [&] { test_support::in_other_process([&] { return ::truncate(file.c_str(), 3); }); },
        };
        for (const auto &change : changes) {
            change();
            EXPECT_FALSE(quelm::folder_quiet(stamp));
            stamp = quelm::folder_stamp(file);
            EXPECT_TRUE(quelm::folder_quiet(stamp));
        }
    }
};

TEST(FolderWatch, StampsGoStaleWithAnyChangeInTheirFolder) {
    namespace fs = std::filesystem;
    WatchedFolder watched;
    const std::string &file = watched.file;
    const fs::path &folder = watched.folder;
    watched.expect_every_change_seen();

    // A forked child has no stamps and does not take the parent's notices.
    quelm::FolderStamp stamp = quelm::folder_stamp(file);
    test_support::in_other_process([&] {
        WatchedFolder::write(folder / "child", "x");
        return quelm::folder_quiet(stamp) || quelm::folder_stamp(file).watch >= 0 ? 1 : 0;
    });
    EXPECT_FALSE(quelm::folder_quiet(stamp));

    // A folder removed and made again is watched afresh.
    stamp = quelm::folder_stamp(file);
    fs::remove_all(folder);
    EXPECT_FALSE(quelm::folder_quiet(stamp));
    fs::create_directory(folder);
    stamp = quelm::folder_stamp(file);
    EXPECT_TRUE(quelm::folder_quiet(stamp));

    // What cannot be watched is never quiet.
    EXPECT_FALSE(quelm::folder_quiet(quelm::folder_stamp((folder / "missing/file").string())));
    EXPECT_FALSE(quelm::folder_quiet(quelm::folder_stamp("relative/file")));
}

TEST(FolderWatch, TheRingMissesNoChangeAcrossManyChecks) {
    WatchedFolder watched;
    if (!quelm::folder_watch_by_ring()) GTEST_SKIP() << "checks read every time here (no ring)";
    // A burst between two checks, then many rounds of one change each: the
    // ring's poll stays armed through all of them.
    quelm::FolderStamp stamp = quelm::folder_stamp(watched.file);
    for (int i = 0; i < 300; ++i) WatchedFolder::write(watched.folder / ("burst" + std::to_string(i % 7)), "x");
    EXPECT_FALSE(quelm::folder_quiet(stamp));
    for (int round = 0; round < 100; ++round) {
        stamp = quelm::folder_stamp(watched.file);
        EXPECT_TRUE(quelm::folder_quiet(stamp)) << round;
        EXPECT_TRUE(quelm::folder_quiet(stamp)) << round;
        if (round % 2 == 0) {
            WatchedFolder::write(watched.file, "one");
        } else {
            test_support::in_other_process([&] { return ::utimensat(AT_FDCWD, watched.file.c_str(), nullptr, 0); });
        }
        EXPECT_FALSE(quelm::folder_quiet(stamp)) << round;
    }
}

TEST(ParseLong, ReadsNumbersAsStrtolDoes) {
    for (const char *text : {"0", "86400", "  \t\n\v\f\r42x", "+7", "-7", "- 7", "+-7", "", "x1", " ", "-",
                             "0012", "9223372036854775807", "9223372036854775808", "-9223372036854775808",
                             "-9223372036854775809", "99999999999999999999999", "-99999999999999999999999", "1\x80"}) {
        char *want_end = nullptr;
        const long want = std::strtol(text, &want_end, 10);
        const char *end = nullptr;
        EXPECT_EQ(quelm::parse_long(text, &end), want) << '"' << text << '"';
        EXPECT_EQ(end, want_end) << '"' << text << '"';
    }
}

TEST(Split, KeepsEmptyItemsAndStopsOnFalse) {
    std::vector<std::string> items;
    quelm::split("a,,b,", ',', [&](std::string_view item) { items.emplace_back(item); });
    EXPECT_EQ(items, (std::vector<std::string>{"a", "", "b", ""}));
    items.clear();
    EXPECT_FALSE(quelm::split("x,stop,y", ',', [&](std::string_view item) {
        items.emplace_back(item);
        return item != "stop";
    }));
    EXPECT_EQ(items, (std::vector<std::string>{"x", "stop"}));
}

TEST(Hex, RoundTripsAndRefusesMalformedText) {
    const std::string bytes("\x00\x7f\x80\xff", 4);
    EXPECT_EQ(quelm::hex_encode(bytes), "007f80ff");
    EXPECT_EQ(quelm::hex_encode(bytes, quelm::HexCase::upper), "007F80FF");
    std::string back;
    EXPECT_TRUE(quelm::hex_decode("007F80fF", back));
    EXPECT_EQ(back, bytes);
    EXPECT_FALSE(quelm::hex_decode("abc", back) || quelm::hex_decode("0g", back));  // odd length, not a digit
}

// What `write` logs to a log file of its own.
std::string logged_by(const std::function<void()> &write) {
    const std::filesystem::path log = std::filesystem::temp_directory_path() / "common_test.log";
    std::filesystem::remove(log);
    setenv("QUELM_LOG_FILE", log.c_str(), 1);
    write();
    unsetenv("QUELM_LOG_FILE");
    const std::string text = test_support::slurp(log);
    std::filesystem::remove(log);
    return text;
}

TEST(Guard, TurnsAnExceptionIntoTheFallbackAndOneLogLine) {
    bool ran = false;
    const std::string text = logged_by([&] {
        EXPECT_EQ(quelm::guarded(-1, "entry_point", [] { return 7; }), 7);
        EXPECT_EQ(quelm::guarded(-1, "entry_point", []() -> int { throw std::bad_alloc(); }), -1);
        quelm::guarded("no_result", [&] {
            ran = true;
            throw std::runtime_error("refused");
        });
    });
    EXPECT_TRUE(ran);
    EXPECT_NE(text.find("]: entry_point: std::bad_alloc\n"), std::string::npos) << text;
    EXPECT_NE(text.find("]: no_result: refused\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
}

// The log line: plain runs and escaped controls, a message cut at the
// buffer, and the id of the process that writes, a forked child included
// (the id is read once per process).
TEST(Log, EscapesCutsAndNamesTheWritingProcess) {
    const std::string text = logged_by([] {
        quelm::log::open("logtest");
        quelm::log::print(LOG_INFO, "plain %s\x01 tail\n", "run\nnext");
        quelm::log::print(LOG_INFO, "%s", std::string(5000, 'a').c_str());
        test_support::in_other_process([] {
            quelm::log::print(LOG_INFO, "from the child %d", static_cast<int>(::getpid()));
            return quelm::current_pid() == ::getpid() ? 0 : 1;
        });
    });
    const std::string self = "logtest[" + std::to_string(::getpid()) + "]: ";
    EXPECT_NE(text.find(self + "plain run\\nnext\\x01 tail\n"), std::string::npos) << text;
    EXPECT_NE(text.find(self + std::string(4095, 'a') + "\n"), std::string::npos) << text;
    const std::size_t at = text.find("from the child ");
    const std::string child = at == std::string::npos ? "?" : text.substr(at + 15, text.find('\n', at) - at - 15);
    EXPECT_NE(text.find("logtest[" + child + "]: from the child " + child + "\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
}

}  // namespace
