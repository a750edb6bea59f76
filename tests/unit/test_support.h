// Helpers shared by the unit tests that look at what goes to the response.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <unistd.h>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "cgi_output.h"
#include "cgic.h"

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

// The whole file as bytes ("" when it cannot be read).
inline std::string slurp(const std::filesystem::path &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// Sets up a GET request with `query` as its query string.
inline int get_request(const char *query) {
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", query, 1);
    return cgiInitResources(nullptr);
}

}  // namespace test_support
