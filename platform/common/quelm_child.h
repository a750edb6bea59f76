// The one way the gateway code starts another program.
//
// The child gets /dev/null as standard input, none of the parent's other
// descriptors (above all not the FastCGI connection), and its standard
// output read back through a pipe up to a byte limit; what it writes beyond
// the limit is read and dropped, so it never blocks on a full pipe.
// Commands are argument vectors: nothing is interpreted by a shell unless
// argv[0] is one.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "quelm_root.h"

namespace quelm {

struct ChildOptions {
    // Bytes of standard output passed to the sink; the rest is dropped.
    std::size_t output_limit = 64 * 1024;
    // Standard error joins standard output instead of going to /dev/null.
    bool merge_stderr = false;
    // Milliseconds before the child is killed; 0 waits for ever.
    int timeout_ms = 0;
    // "NAME=value" entries added to the child's environment (replacing a
    // variable of the same name); the parent's own environment is untouched.
    std::vector<std::string> extra_env;
};

struct ChildResult {
    // Exit code 0-255, 128 + signal number when killed by a signal, or -1
    // when the program could not be started (fork or pipe failed; a failed
    // exec is exit code 127).
    int status = -1;
    bool truncated = false;  // output beyond output_limit was dropped
    bool timed_out = false;  // killed after timeout_ms
    // The status as waitpid() gave it (what system() returns); -1 when the
    // program could not be started.
    int wait_status = -1;
};

// Where a program called by name is run from: $QUELM_ROOT/bin/<name> when a
// root is set and that file is executable, else the first executable
// <dir>/<name> of the search path the process was started with (pinned, see
// pin_process_environment). A name holding "/" is returned unchanged; ""
// when nothing is found.
QUELM_COMMON_API std::string find_program(std::string_view name);

// Starts argv[0] with argv and waits for it; an argv[0] without "/" is
// looked up with find_program (not found: status 127).
// `sink` receives the captured output in chunks as it arrives; it may be
// empty, and the output is then discarded.
QUELM_COMMON_API ChildResult run_child(const std::vector<std::string> &argv,
                                       const std::function<void(std::string_view)> &sink,
                                       const ChildOptions &options = {});

// Convenience form: the captured output collected into `output`.
QUELM_COMMON_API ChildResult run_child(const std::vector<std::string> &argv, std::string &output,
                                       const ChildOptions &options = {});

}  // namespace quelm
