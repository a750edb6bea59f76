// A child program fed through a pipe: the other way round from run_child.
//
// The child's standard input is the read end of a pipe whose write end the
// owner holds; its standard output and error are /dev/null and it inherits
// no other descriptor. SIGPIPE is reset to its default in the child. The
// destructor closes the pipe and reaps the child, so no zombie is left
// whatever path the owner leaves by.
#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "quelm_owned.h"
#include "quelm_root.h"

namespace quelm {

class QUELM_COMMON_API PipeChild {
public:
    // Starts argv[0] (a path, not searched); running() tells whether it did.
    explicit PipeChild(const std::vector<std::string> &argv);
    ~PipeChild();
    PipeChild(const PipeChild &) = delete;
    PipeChild &operator=(const PipeChild &) = delete;

    bool running() const { return pid_ > 0; }
    // The write end of the child's standard input (-1 when not running).
    int input() const { return input_.get(); }
    pid_t pid() const { return pid_; }
    // Closes the input and waits: exit code, 128 + signal, or -1.
    int wait();
    // Sends a signal to the running child (to stop it before wait()).
    void signal(int number) const;

private:
    UniqueFd input_;
    pid_t pid_ = -1;
};

// Installs a SIGPIPE handler for its lifetime (empty mask, no flags) and
// puts the previous action back: writes into a pipe whose reader died then
// fail with EPIPE instead of ending the process.
class QUELM_COMMON_API ScopedSigpipe {
public:
    explicit ScopedSigpipe(void (*handler)(int));
    ~ScopedSigpipe();
    ScopedSigpipe(const ScopedSigpipe &) = delete;
    ScopedSigpipe &operator=(const ScopedSigpipe &) = delete;

private:
    struct sigaction previous_ {};
};

}  // namespace quelm
