// Session store internals used by the request loop.
#pragma once

#include "qm_session.h"

namespace cgissi::session {

// Forgets the previous request's session: the token held by the process
// belongs to the request that presented it.
void begin_request();

// Makes the session directory the responder's alone (0700): session files
// hold the logged-in users' passwords. Created when missing; a directory
// of another owner, or a link, is left alone and reported. Called once at
// process start.
void secure_store_directory();

}  // namespace cgissi::session
