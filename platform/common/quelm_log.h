// The one logging path of the gateway's web back end and its host platform.
//
// Every message goes to the system log under the identity last opened with
// open(); with QUELM_LOG_FILE set it is also appended to that file, one line
// per message ("<ISO-8601 local time> <level> <ident>[<pid>]: <message>",
// level one of crit, error, warning, notice, info, debug), so that people
// and tests can read it.
// Control bytes and DEL in a message are written escaped ("\n", "\xHH"),
// so no text a message quotes can start a log line of its own. The file is
// created 0640 and a link at its name is not followed.
#pragma once

#include <cstdarg>
#include <syslog.h>

#include "quelm_root.h"

namespace quelm::log {

// openlog(ident, LOG_PID, LOG_USER); the identity is copied (at most 63 bytes).
QUELM_COMMON_API void open(const char *ident);
QUELM_COMMON_API void close();

QUELM_COMMON_API void print(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
QUELM_COMMON_API void vprint(int priority, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

}  // namespace quelm::log
