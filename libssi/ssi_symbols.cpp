// Symbol callback of the SSI engine. The page engine that calls it is not
// wired yet; the request loop installs the callback at every request.
#include "libssi/ssi_symbols.h"

namespace {
ssi_symbol_callback current_callback = nullptr;
}

extern "C" {

void set_ssi_do_plugin(ssi_symbol_callback callback) { current_callback = callback; }

int do_plugin(const char *) { return 0; }
}
