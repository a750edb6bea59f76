// Helpers shared by the unit tests that look at what goes to the response.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <unistd.h>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "cgi_output.h"

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

}  // namespace test_support
