#include "cgi_output.h"

#include <cstdio>
#include <cstring>
#include <memory>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "core/fcgi_request.h"
#include "quelm_http.h"

namespace {

// Most writes (headers, escaped values) fit here; longer ones get a heap
// buffer of the exact size.
constexpr std::size_t kStackFormat = 1024;

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int cgi_out_write(const void *data, size_t len) {
    if (len == 0) return 0;
    size_t n = FCGI_fwrite(const_cast<void *>(data), 1, len, FCGI_stdout);
    return n == len ? static_cast<int>(len) : -1;
}

extern "C" int cgi_out_vprintf(const char *format, va_list args) {
    // Most header lines are fixed text: written as they are, unformatted.
    if (std::strchr(format, '%') == nullptr) return cgi_out_write(format, std::strlen(format));
    char small[kStackFormat];
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    if (n < 0) {
        va_end(again);
        return -1;
    }
    int result;
    if (static_cast<size_t>(n) < sizeof small) {
        result = cgi_out_write(small, static_cast<size_t>(n));
    } else {
        std::unique_ptr<char[]> big(new (std::nothrow) char[static_cast<size_t>(n) + 1]);
        if (!big) {
            va_end(again);
            return -1;
        }
        std::vsnprintf(big.get(), static_cast<size_t>(n) + 1, format, again);
        result = cgi_out_write(big.get(), static_cast<size_t>(n));
    }
    va_end(again);
    return result;
}

extern "C" int cgi_out_printf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    int n = cgi_out_vprintf(format, args);
    va_end(args);
    return n;
}

extern "C" int cgi_out_flush(void) { return FCGI_fflush(FCGI_stdout); }

extern "C" void cgi_out_finish(void) {
    // A plain CGI's request has nothing to finish; a finished FastCGI
    // request's stream takes no more flushes (the call returns EOF, harmless).
    cgissi::fcgi::finish_request();
    cgi_out_flush();
}

extern "C" int cgi_out_status_header(int status, const char *content_type) {
    return cgi_out_printf("Status: %d %s\r\nContent-type: %s\r\n\r\n", status, quelm::reason_phrase(status),
                          content_type != nullptr ? content_type : "text/html");
}
