// Symbol dispatch of the SSI engine: the callback that "echo" calls for
// every variable name that is not an environment variable. The request loop
// installs do_plugin at every request.
#pragma once

extern "C" {
typedef int (*ssi_symbol_callback)(const char *symbol);
void set_ssi_do_plugin(ssi_symbol_callback callback);
// Prints the symbol's value through ssiprintf; the outcome is only logged.
// Always 0.
int do_plugin(const char *symbol);
}

namespace cgissi::ssi {
// The installed callback, or null.
ssi_symbol_callback symbol_callback();
}  // namespace cgissi::ssi
