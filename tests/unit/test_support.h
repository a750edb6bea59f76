// Helpers shared by the unit tests that look at what goes to the response.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "cgi_output.h"
#include "cgic.h"
#include "platform.h"
#include "qm_config.h"
#include "quelm_owned.h"
#include "ssi.h"

namespace test_support {

// Outside a web server the FastCGI streams are bound by the first accept,
// which then wraps the process's own stdin and stdout.
inline void bind_fcgi_streams() {
    if (FCGI_stdout->stdio_stream == nullptr && FCGI_stdout->fcgx_stream == nullptr) FCGI_Accept();
}

// Everything written to the response (fd 1) while `write` runs.
inline std::string captured_output(const std::function<void()> &write) {
    std::fflush(stdout);
    cgi_out_flush();
    int saved = dup(1);
    std::FILE *sink = std::tmpfile();
    dup2(fileno(sink), 1);
    write();
    cgi_out_flush();
    dup2(saved, 1);
    close(saved);
    std::rewind(sink);
    std::string out;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, sink)) > 0;) out.append(chunk, n);
    std::fclose(sink);
    return out;
}

// A text the library allocated, freed here; "(null)" for none.
inline std::string owned_text(char *text) {
    quelm::MallocString owned(text);
    return owned ? owned.get() : "(null)";
}

// The whole file as bytes ("" when it cannot be read).
inline std::string slurp(const std::filesystem::path &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// Runs change in a child process, as another responder or qmcfg would.
inline void in_other_process(const std::function<int()> &change) {
    pid_t pid = fork();
    if (pid == 0) _exit(change() == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Sets up a GET request with `query` as its query string.
inline int get_request(const char *query) {
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", query, 1);
    return cgiInitResources(nullptr);
}

// Tests that print through the page output: the streams bound, and the
// plain output mode back after each test.
class PageOutput : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bind_fcgi_streams(); }
    void TearDown() override { SSI_Set_Mode(SSI_MODE_PLAIN); }
};

// Each test in a gateway root of its own, made as "qmcfg init" makes it,
// with the configuration library open on it and the log file at <root>/log.
class GatewayRoot : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bind_fcgi_streams(); }
    void SetUp() override {
        char dir[] = "/tmp/gateway_root.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        root_ = dir;
        setenv("QUELM_ROOT", root_.c_str(), 1);
        setenv("QUELM_LOG_FILE", (root_ / "log").c_str(), 1);
        std::string message;
        ASSERT_EQ(quelm::platform::init_root(message), 0) << message;
        ASSERT_EQ(QM_Cfg_Init(1), 0);
        QM_err_set(0);
    }
    void TearDown() override {
        QM_LOG_set(0);
        QM_Cfg_Free();
        for (const char *name : {"QUELM_ROOT", "QUELM_LOG_FILE"}) unsetenv(name);
        std::filesystem::remove_all(root_);
    }
    std::string logged() const { return slurp(root_ / "log"); }

    std::filesystem::path root_;
};

}  // namespace test_support
