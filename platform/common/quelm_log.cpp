#include "quelm_text.h"
#include "quelm_log.h"

#include "quelm_chars.h"
#include "quelm_owned.h"
#include "quelm_root.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <paths.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace quelm::log {
namespace {

constexpr std::size_t kIdentSize = 64;
// A message is formatted into kMessageSize bytes, and its escaped form (what
// is logged) is cut at the same size.
constexpr std::size_t kMessageSize = 4096;
// "2026-11-23T15:14:25+0000" and its terminator, with room to spare.
constexpr std::size_t kTimeSize = 32;
// Created readable by the group only: messages name users and objects.
constexpr mode_t kLogFileMode = 0640;

// Seconds a system log that took no connection stands before it is tried
// again.
constexpr std::time_t kSyslogRetrySeconds = 1;

// openlog keeps the pointer it is given, so the identity lives here.
char ident_buf[kIdentSize] = "cgi-ssi";

// Copies message into out with every control byte and DEL spelled out
// ("\n", otherwise "\xHH"), so that text from a request cannot start a line
// of its own. Line breaks at the end are dropped: one message, one line.
void escape_controls(const char *message, char (&out)[kMessageSize]) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::size_t len = std::strlen(message);
    // compat: callers keep message spellings that end in "\n"; it is not part of the line.
    while (len > 0 && (message[len - 1] == '\n' || message[len - 1] == '\r')) --len;
    std::size_t used = 0;
    for (std::size_t i = 0; i < len; ++i) {
        // A run of plain bytes is copied at once.
        std::size_t run = i;
        while (run < len && message[run] != '\n' && !is_ascii_control(message[run])) ++run;
        if (run > i) {
            const std::size_t n = std::min(run - i, kMessageSize - 1 - used);
            std::memcpy(out + used, message + i, n);
            used += n;
            if (n < run - i) break;
            i = run - 1;
            continue;
        }
        auto byte = static_cast<unsigned char>(message[i]);
        char spelled[4] = {static_cast<char>(byte)};
        std::size_t width = 1;
        if (byte == '\n') {
            spelled[0] = '\\';
            spelled[1] = 'n';
            width = 2;
        } else if (is_ascii_control(message[i])) {
            spelled[0] = '\\';
            spelled[1] = 'x';
            spelled[2] = kHex[byte >> 4];
            spelled[3] = kHex[byte & 0xf];
            width = 4;
        }
        if (used + width >= kMessageSize) break;
        std::memcpy(out + used, spelled, width);
        used += width;
    }
    out[used] = '\0';
}

// The syslog level as the file spells it.
const char *level_name(int priority) {
    switch (LOG_PRI(priority)) {
    case LOG_EMERG:
    case LOG_ALERT:
    case LOG_CRIT: return "crit";
    case LOG_ERR: return "error";
    case LOG_WARNING: return "warning";
    case LOG_NOTICE: return "notice";
    case LOG_INFO: return "info";
    default: return "debug";
    }
}

// Local time as ISO 8601 with the offset, e.g. 2026-11-23T15:14:25+00:00.
void format_iso_time(std::time_t now, char (&out)[kTimeSize]) {
    struct tm local {};
    std::size_t n = 0;
    if (::localtime_r(&now, &local) != nullptr) n = std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%S%z", &local);
    out[n] = '\0';
    // strftime's offset is "+hhmm"; the extended form has "+hh:mm".
    if (n >= 5 && n + 1 < sizeof out) {
        std::memmove(out + n - 1, out + n - 2, 3);
        out[n - 2] = ':';
    }
}

// The time of the last message, formatted once per second.
struct TimeText {
    std::time_t at = -1;
    char text[kTimeSize] = "";
};
TimeText last_time;

const char *iso_time() {
    const std::time_t now = std::time(nullptr);
    if (now != last_time.at) {
        format_iso_time(now, last_time.text);
        last_time.at = now;
    }
    return last_time.text;
}

// Whether the system log's socket took a connection when last tried. The C
// library tries (and fails) a new connection for every message on a host
// without a log daemon; a failure here stands for kSyslogRetrySeconds. A
// socket that answered once is left to the C library, which reconnects.
struct SyslogProbe {
    bool tried = false;
    bool reachable = false;
    std::time_t at = 0;
};
SyslogProbe syslog_probe;

// 0 when a socket of that type connects to the system log, else the error.
int connect_error(int type) {
    quelm::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!fd) return errno;
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    static_assert(sizeof _PATH_LOG <= sizeof addr.sun_path);
    std::memcpy(addr.sun_path, _PATH_LOG, sizeof _PATH_LOG);
    return ::connect(fd.get(), reinterpret_cast<const struct sockaddr *>(&addr), sizeof addr) == 0 ? 0 : errno;
}

bool syslog_reachable() {
    const std::time_t now = std::time(nullptr);
    if (syslog_probe.tried &&
        (syslog_probe.reachable || (now >= syslog_probe.at && now - syslog_probe.at < kSyslogRetrySeconds))) {
        return syslog_probe.reachable;
    }
    // The C library's order: a datagram socket, a stream socket when the
    // daemon listens on one.
    int error = connect_error(SOCK_DGRAM);
    if (error == EPROTOTYPE) error = connect_error(SOCK_STREAM);
    const bool reachable = error == 0;
    syslog_probe = SyslogProbe{true, reachable, now};
    return reachable;
}

void append_to_file(int priority, const char *message) {
    const char *path = quelm::process_env("QUELM_LOG_FILE");
    if (path == nullptr || *path == '\0') return;
    const char *when = iso_time();
    char line[kMessageSize + kIdentSize + kTimeSize + 32];
    const int n = std::snprintf(line, sizeof line, "%s %s %s[%d]: ", when, level_name(priority), ident_buf,
                                static_cast<int>(quelm::current_pid()));
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof line) return;
    // The message (below kMessageSize) and the line break fit; the bound
    // only guards the arithmetic.
    const std::size_t length = std::min(std::strlen(message), sizeof line - static_cast<std::size_t>(n) - 1);
    std::memcpy(line + n, message, length);
    line[n + length] = '\n';
    const std::size_t total = static_cast<std::size_t>(n) + length + 1;
    // A link planted at the log's name is not followed.
    int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLogFileMode);
    if (fd < 0) return;
    // One write per line: O_APPEND keeps lines of concurrent processes whole.
    ssize_t ignored = ::write(fd, line, total);
    (void)ignored;
    ::close(fd);
}

}  // namespace

void open(const char *ident) {
    quelm::copy_cut(ident_buf, sizeof ident_buf, ident != nullptr ? ident : "");
    ::openlog(ident_buf, LOG_PID, LOG_USER);
}

void close() { ::closelog(); }

void vprint(int priority, const char *format, va_list args) {
    char message[kMessageSize];
    std::vsnprintf(message, sizeof message, format, args);
    char escaped[kMessageSize];
    escape_controls(message, escaped);
    if (syslog_reachable()) ::syslog(priority, "%s", escaped);
    append_to_file(priority, escaped);
}

void print(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vprint(priority, format, args);
    va_end(args);
}

}  // namespace quelm::log
