// The plugin registry is not loaded yet: every lookup finds nothing, so
// unknown names are answered as "not found" by the request loop.
#include "plugins/registry.h"

extern "C" {

int init_call_shared_plugin(plugin_registry_handle *registry) {
    if (registry != nullptr) *registry = nullptr;
    return 0;
}

int call_shared_plugin_no_session(plugin_registry_handle *, const char *) { return 0; }

int call_shared_genericplugin(const char *, const char *, int, char **) { return -1; }

int call_shared_genericfct(const char *, const char *, const char *) { return -1; }
}
