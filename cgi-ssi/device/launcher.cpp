// Background programs that outlive the request (network tests, the syslog
// restart). The responder forks a short-lived helper that starts a watcher
// in a session of its own and exits at once (the responder reaps it by its
// id); the watcher starts the program, reports its id, reaps it, and kills
// it when its time is up. SIGCHLD is never touched, so system() and
// waitpid() elsewhere keep their statuses.
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device/device_internal.h"
#include "quelm_child.h"
#include "quelm_owned.h"

namespace cgissi::device {
namespace {

constexpr long kPollNanoseconds = 100L * 1000 * 1000;  // how often the watcher looks at its program
constexpr int kPollsPerSecond = 10;
constexpr std::size_t kPathSize = 4096;

// Everything the processes after fork need, prepared before it: only
// async-signal-safe calls are made there.
struct Launch {
    std::vector<char *> args;
    const char *output_prefix = nullptr;  // null: output to /dev/null
    int time_limit_s = 0;
};

// "<prefix>_<pid>" into out without allocating.
bool output_path(const char *prefix, pid_t pid, char (&out)[kPathSize]) {
    std::size_t n = 0;
    for (const char *p = prefix; *p != '\0'; ++p) {
        if (n + 1 >= kPathSize) return false;
        out[n++] = *p;
    }
    char digits[16];
    std::size_t d = 0;
    for (auto v = static_cast<unsigned long>(pid); d == 0 || v != 0; v /= 10) digits[d++] = static_cast<char>('0' + v % 10);
    if (n + 1 + d + 1 > kPathSize) return false;
    out[n++] = '_';
    while (d > 0) out[n++] = digits[--d];
    out[n] = '\0';
    return true;
}

[[noreturn]] void exec_program(const Launch &launch) {
    int out_fd = -1;
    char path[kPathSize];
    if (launch.output_prefix != nullptr && output_path(launch.output_prefix, ::getpid(), path)) {
        out_fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0404);
    }
    if (out_fd >= 0) {
        ::dup2(out_fd, STDOUT_FILENO);
        ::dup2(out_fd, STDERR_FILENO);
        ::close(out_fd);
    }
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(launch.args[0], launch.args.data());
    ::_exit(127);
}

void sleep_one_poll() {
    timespec pause{0, kPollNanoseconds};
    while (::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

// The watcher: starts the program, sends its id (or -1) on report_fd, then
// reaps it or kills it at the time limit.
[[noreturn]] void watch(const Launch &launch, int report_fd) {
    int ready[2];
    pid_t program = -1;
    if (::pipe2(ready, O_CLOEXEC) == 0) {
        program = ::fork();
        if (program == 0) {
            ::close(ready[0]);
            exec_program(launch);
        }
        ::close(ready[1]);
        // EOF once the program has called exec (or exited): its output file
        // exists and /proc shows the program from then on.
        char byte;
        for (ssize_t n = 1; program > 0 && n != 0;) {
            n = ::read(ready[0], &byte, 1);
            if (n < 0 && errno != EINTR) break;
        }
        ::close(ready[0]);
    }
    while (::write(report_fd, &program, sizeof program) < 0 && errno == EINTR) {
    }
    ::close(report_fd);
    if (program <= 0) ::_exit(0);
    for (int polls = 0; polls < launch.time_limit_s * kPollsPerSecond; ++polls) {
        if (::waitpid(program, nullptr, WNOHANG) != 0) ::_exit(0);
        sleep_one_poll();
    }
    ::kill(program, SIGKILL);
    while (::waitpid(program, nullptr, 0) < 0 && errno == EINTR) {
    }
    ::_exit(0);
}

// In the helper after fork: a new session, standard streams on /dev/null,
// no other descriptor of the responder, then the watcher.
[[noreturn]] void detach(const Launch &launch, int report_fd) {
    ::setsid();
    const int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
        ::dup2(null_fd, STDIN_FILENO);
        ::dup2(null_fd, STDOUT_FILENO);
        ::dup2(null_fd, STDERR_FILENO);
    }
    // Keep report_fd and close the rest above the standard streams.
    const int kept = ::dup2(report_fd, STDERR_FILENO + 1) < 0 ? report_fd : STDERR_FILENO + 1;
    ::fcntl(kept, F_SETFD, FD_CLOEXEC);  // the program must not hold it
    ::close_range(static_cast<unsigned>(kept) + 1, ~0U, 0);
    const pid_t watcher = ::fork();
    if (watcher == 0) watch(launch, kept);
    if (watcher < 0) {
        const pid_t failed = -1;
        while (::write(kept, &failed, sizeof failed) < 0 && errno == EINTR) {
        }
    }
    ::_exit(0);
}

}  // namespace

pid_t start_detached(const std::vector<std::string> &argv, const std::string &output_prefix, int time_limit_s) {
    if (argv.empty()) return -1;
    const std::string program = quelm::find_program(argv[0]);
    if (program.empty()) return -1;
    if (output_prefix.size() + 16 >= kPathSize) return -1;
    Launch launch;
    launch.args.push_back(const_cast<char *>(program.c_str()));
    for (std::size_t i = 1; i < argv.size(); ++i) launch.args.push_back(const_cast<char *>(argv[i].c_str()));
    launch.args.push_back(nullptr);
    launch.output_prefix = output_prefix.empty() ? nullptr : output_prefix.c_str();
    launch.time_limit_s = time_limit_s;

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
    quelm::UniqueFd read_end(ends[0]);
    quelm::UniqueFd write_end(ends[1]);
    const pid_t helper = ::fork();
    if (helper < 0) return -1;
    if (helper == 0) detach(launch, write_end.get());
    write_end.reset();
    int status = 0;
    while (::waitpid(helper, &status, 0) < 0 && errno == EINTR) {
    }
    pid_t started = -1;
    ssize_t n;
    while ((n = ::read(read_end.get(), &started, sizeof started)) < 0 && errno == EINTR) {
    }
    return n == static_cast<ssize_t>(sizeof started) ? started : -1;
}

}  // namespace cgissi::device
