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
[[noreturn]] void exec_child(const std::vector<char *> &args, char *const *envp, int out_fd, bool merge_stderr) {
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
    if (envp != nullptr) {
        ::execve(args[0], args.data(), envp);
    } else {
        ::execv(args[0], args.data());
    }
    ::_exit(127);
}

// "/usr/bin:/bin" when the process had no PATH, as execvp assumes.
constexpr std::string_view kDefaultSearchPath = "/usr/bin:/bin";

bool is_executable_file(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

void wait_child(pid_t pid, ChildResult &result) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return;
    }
    result.wait_status = status;
    if (WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.status = 128 + WTERMSIG(status);
    }
}

// The child's environment: the parent's with `extra` added, built before
// fork (the child may only make async-signal-safe calls). A later entry
// replaces an earlier one of the same name. Without extra entries the child
// simply inherits the parent's environment (envp() is null).
class ChildEnvironment {
public:
    explicit ChildEnvironment(const std::vector<std::string> &extra) {
        if (extra.empty()) return;
        for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) entries_.emplace_back(*entry);
        for (const std::string &added : extra) {
            const std::size_t equals = added.find('=');
            if (equals == std::string::npos) continue;  // not an entry
            const std::string_view name = std::string_view(added).substr(0, equals + 1);
            std::erase_if(entries_, [&](const std::string &e) { return std::string_view(e).starts_with(name); });
            entries_.push_back(added);
        }
        for (std::string &e : entries_) pointers_.push_back(e.data());
        pointers_.push_back(nullptr);
    }
    char *const *envp() const { return pointers_.empty() ? nullptr : pointers_.data(); }

private:
    std::vector<std::string> entries_;
    std::vector<char *> pointers_;
};

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

    const ChildEnvironment env(options.extra_env);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return result;
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);

    const pid_t pid = ::fork();
    if (pid < 0) return result;
    if (pid == 0) exec_child(args, env.envp(), write_end.get(), options.merge_stderr);
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
    wait_child(pid, result);
    return result;
}

ChildResult run_child(const std::vector<std::string> &argv, std::string &output, const ChildOptions &options) {
    output.clear();
    return run_child(argv, [&output](std::string_view chunk) { output.append(chunk); }, options);
}

}  // namespace quelm
