// Session store internals used by the request loop.
#pragma once

#include "qm_session.h"

namespace cgissi::session {

// Forgets the previous request's session: the token held by the process
// belongs to the request that presented it.
void begin_request();

}  // namespace cgissi::session
