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

// Moves the request's session to a fresh token (its entries kept, the old
// file removed), so that a token known before a login is worth nothing
// after it. False, with the session unchanged, when it could not.
bool renew_session();

}  // namespace cgissi::session
