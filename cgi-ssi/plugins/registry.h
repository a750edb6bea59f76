// Plugin registry: plugins and plugin functions listed in
// /etc/quelm/config.default/web.xml and loaded from shared libraries.
#pragma once

#include "qm_export.h"

extern "C" {

// Opaque handle to the parsed registry; null means no registry.
typedef struct plugin_registry *plugin_registry_handle;

// Loads the registry into *registry; nonzero when one was loaded.
int init_call_shared_plugin(plugin_registry_handle *registry);
// Nonzero when a registered plugin whose name prefixes `name` is "no_session".
int call_shared_plugin_no_session(plugin_registry_handle *registry, const char *name);
// Calls a registered entry of `kind` ("plugin" or "function"); -1 when none.
QM_EXPORT int call_shared_genericplugin(const char *kind, const char *name, int argc, char **argv);
// Calls a registered plugin function with (method, parameter); -1 when none.
QM_EXPORT int call_shared_genericfct(const char *method, const char *name, const char *param);
}
