#include "quelm_child.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "quelm_owned.h"
#include "quelm_text.h"

namespace quelm {
namespace {

constexpr std::size_t kReadChunk = 4096;

// In the child after fork: only async-signal-safe calls.
[[noreturn]] void exec_child(const std::vector<char *> &args, int out_fd, bool merge_stderr) {
    const int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd >= 0) ::dup2(null_fd, STDIN_FILENO);
    ::dup2(out_fd, STDOUT_FILENO);
    if (merge_stderr) {
        ::dup2(out_fd, STDERR_FILENO);
    } else if (null_fd >= 0) {
        ::dup2(null_fd, STDERR_FILENO);
    }
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(args[0], args.data());
    ::_exit(127);
}

// "/usr/bin:/bin" when the process had no PATH, as execvp assumes.
constexpr std::string_view kDefaultSearchPath = "/usr/bin:/bin";

bool is_executable_file(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

int wait_status(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

std::string find_program(std::string_view name) {
    if (name.empty() || name.find('/') != std::string_view::npos) return std::string(name);
    if (!root_prefix().empty()) {
        std::string in_root = root_path("/bin/");
        in_root.append(name);
        if (is_executable_file(in_root)) return in_root;
    }
    const char *env_path = process_env("PATH");
    std::string found;
    split(env_path != nullptr ? std::string_view(env_path) : kDefaultSearchPath, ':', [&](std::string_view dir) {
        std::string candidate(dir.empty() ? std::string_view(".") : dir);
        candidate.append("/").append(name);
        if (!is_executable_file(candidate)) return true;
        found = std::move(candidate);
        return false;
    });
    return found;
}

ChildResult run_child(const std::vector<std::string> &argv, const std::function<void(std::string_view)> &sink,
                      const ChildOptions &options) {
    ChildResult result;
    if (argv.empty()) return result;
    // Resolved before the fork: the child may only make async-signal-safe calls.
    const std::string program = find_program(argv[0]);
    std::vector<char *> args;
    args.reserve(argv.size() + 1);
    args.push_back(const_cast<char *>(program.empty() ? argv[0].c_str() : program.c_str()));
    for (std::size_t i = 1; i < argv.size(); ++i) args.push_back(const_cast<char *>(argv[i].c_str()));
    args.push_back(nullptr);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return result;
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);

    const pid_t pid = ::fork();
    if (pid < 0) return result;
    if (pid == 0) exec_child(args, write_end.get(), options.merge_stderr);
    write_end.reset();

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(options.timeout_ms);
    std::size_t delivered = 0;
    char chunk[kReadChunk];
    for (;;) {
        if (options.timeout_ms > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd pfd{read_end.get(), POLLIN, 0};
            const int ready = left.count() > 0 ? ::poll(&pfd, 1, static_cast<int>(left.count())) : 0;
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) {
                ::kill(pid, SIGKILL);
                result.timed_out = true;
                break;
            }
        }
        const ssize_t n = ::read(read_end.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::size_t take = static_cast<std::size_t>(n);
        if (delivered + take > options.output_limit) {
            take = options.output_limit - delivered;
            result.truncated = true;
        }
        if (take > 0 && sink) sink(std::string_view(chunk, take));
        delivered += take;
    }
    read_end.reset();
    result.status = wait_status(pid);
    return result;
}

ChildResult run_child(const std::vector<std::string> &argv, std::string &output, const ChildOptions &options) {
    output.clear();
    return run_child(argv, [&output](std::string_view chunk) { output.append(chunk); }, options);
}

}  // namespace quelm
