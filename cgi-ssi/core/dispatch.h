// Per-request entry of the responder: session set-up and dispatch to the
// built-in CGIs or to registered plugins.
#pragma once

#include "plugins/registry.h"
#include "qm_export.h"

namespace cgissi {

// Fixed limits of the request loop.
constexpr int kBuiltinCount = 10;
constexpr int kBuiltinNameSize = 32;
constexpr int kCookieValueSize = 128;

// Process initialisation: platform library, logging, plugin registry.
// Returns what loading the registry returned (nonzero when one was loaded).
int init_cgi(plugin_registry_handle *registry);

}  // namespace cgissi

extern "C" {
// Serves the current request; 0 or -1 (a handler failed), or a plugin's result.
int main_CGI(plugin_registry_handle *registry, int argc, char **argv);
// Calls the registered plugin `name`; -1 when none is registered.
QM_EXPORT int try_call_shared_plugin(const char *name, int argc, char **argv);
}
