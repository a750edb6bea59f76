// Plugin registry: the request loop's side. What plugins themselves may call
// is in qm_plugin.h.
#pragma once

#include "qm_plugin.h"

extern "C" {

// Opaque handle to the parsed registry; null means no registry.
typedef struct plugin_registry *plugin_registry_handle;

// Loads the registry into *registry; nonzero when one was loaded.
int init_call_shared_plugin(plugin_registry_handle *registry);
// Nonzero when the first registered plugin whose name prefixes `name` is
// marked "no_session".
int call_shared_plugin_no_session(plugin_registry_handle *registry, const char *name);
}
