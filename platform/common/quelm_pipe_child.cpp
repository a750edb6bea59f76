#include "quelm_pipe_child.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {
namespace {

// In the child after fork: only async-signal-safe calls.
[[noreturn]] void exec_fed_child(char *const *args, int input_fd) {
    ::dup2(input_fd, STDIN_FILENO);
    const int null_fd = ::open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
        ::dup2(null_fd, STDOUT_FILENO);
        ::dup2(null_fd, STDERR_FILENO);
    }
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(args[0], args);
    ::_exit(127);
}

}  // namespace

PipeChild::PipeChild(const std::vector<std::string> &argv) {
    if (argv.empty()) return;
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    const pid_t pid = ::fork();
    if (pid < 0) return;
    if (pid == 0) exec_fed_child(args.data(), read_end.get());
    pid_ = pid;
    input_ = std::move(write_end);
}

int PipeChild::wait() {
    input_.reset();
    if (pid_ <= 0) return -1;
    int status = 0;
    pid_t done;
    while ((done = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (done < 0) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

void PipeChild::signal(int number) const {
    if (pid_ > 0) ::kill(pid_, number);
}

PipeChild::~PipeChild() { wait(); }

ScopedSigpipe::ScopedSigpipe(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ::sigaction(SIGPIPE, &action, &previous_);
}

ScopedSigpipe::~ScopedSigpipe() { ::sigaction(SIGPIPE, &previous_, nullptr); }

}  // namespace quelm
