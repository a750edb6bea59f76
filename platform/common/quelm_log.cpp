#include "quelm_log.h"

#include "quelm_root.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quelm::log {
namespace {

constexpr std::size_t kIdentSize = 64;
constexpr std::size_t kMessageSize = 4096;

// openlog keeps the pointer it is given, so the identity lives here.
char ident_buf[kIdentSize] = "cgi-ssi";

void append_to_file(const char *message) {
    const char *path = quelm::process_env("QUELM_LOG_FILE");
    if (path == nullptr || *path == '\0') return;
    char line[kMessageSize + kIdentSize + 32];
    std::size_t len = std::strlen(message);
    while (len > 0 && (message[len - 1] == '\n' || message[len - 1] == '\r')) --len;
    int n = std::snprintf(line, sizeof line, "%s[%d]: %.*s\n", ident_buf, static_cast<int>(getpid()),
                          static_cast<int>(len), message);
    if (n <= 0) return;
    std::size_t total = static_cast<std::size_t>(n) < sizeof line ? static_cast<std::size_t>(n) : sizeof line - 1;
    int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    // One write per line: O_APPEND keeps lines of concurrent processes whole.
    ssize_t ignored = ::write(fd, line, total);
    (void)ignored;
    ::close(fd);
}

}  // namespace

void open(const char *ident) {
    std::snprintf(ident_buf, sizeof ident_buf, "%s", ident != nullptr ? ident : "");
    ::openlog(ident_buf, LOG_PID, LOG_USER);
}

void close() { ::closelog(); }

void vprint(int priority, const char *format, va_list args) {
    char message[kMessageSize];
    std::vsnprintf(message, sizeof message, format, args);
    ::syslog(priority, "%s", message);
    append_to_file(message);
}

void print(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vprint(priority, format, args);
    va_end(args);
}

}  // namespace quelm::log
