// Symbol dispatch of the SSI engine: the callback that "echo" calls for
// every variable name that is not an environment variable.
#pragma once

extern "C" {
typedef int (*ssi_symbol_callback)(const char *symbol);
void set_ssi_do_plugin(ssi_symbol_callback callback);
int do_plugin(const char *symbol);
}
