// Symbol dispatch inside the engine: the callback that "echo" calls for
// every variable name that is not an environment variable.
#pragma once

#include "ssi.h"

namespace cgissi::ssi {
// The callback installed with set_ssi_do_plugin, or null.
ssi_symbol_callback symbol_callback();
}  // namespace cgissi::ssi
