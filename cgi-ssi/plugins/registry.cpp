// The plugin registry: loading web.xml and finding entries in it.
//
// Three copies of the registry live in the process, each loaded once and
// never reloaded (a corrected web.xml takes effect at the next start): the
// request loop's (behind its handle), and one private copy each for the
// plugin calls and the function calls. A private copy whose first load
// failed stays failed.
#include "plugins/registry.h"

#include <iksemel.h>
#include <memory>
#include <syslog.h>

#include "plugins/plugin_registry.h"
#include "quelm_guard.h"
#include "quelm_log.h"
#include "quelm_owned.h"
#include "quelm_root.h"

struct plugin_registry {
    cgissi::plugins::Registry table;
};

namespace cgissi::plugins {
namespace {

using IksDocument = std::unique_ptr<iks, quelm::CDeleter<iks_delete>>;
constexpr std::string_view kPluginMethod = "plugin";

std::optional<std::string> attribute(iks *tag, const char *name) {
    const char *value = iks_find_attrib(tag, name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

// A private copy: loaded at the first call, then kept (or kept failed).
class PrivateCopy {
public:
    const Registry *get() {
        if (!tried_) {
            tried_ = true;
            table_ = Registry::load();
        }
        return table_ ? &*table_ : nullptr;
    }

private:
    bool tried_ = false;
    std::optional<Registry> table_;
};

// The request loop's copy; main holds only the handle, so the copy itself is
// owned here for the life of the process.
std::unique_ptr<plugin_registry> loop_copy;

// The private copies of the two calls.
const Registry *plugin_call_copy() {
    static PrivateCopy copy;
    return copy.get();
}

const Registry *function_call_copy() {
    static PrivateCopy copy;
    return copy.get();
}

}  // namespace

std::optional<Registry> Registry::load(const char *gateway_path) {
    const std::string path = quelm::root_path(gateway_path);
    iks *root = nullptr;
    if (iks_load(path.c_str(), &root) != IKS_OK) {
        if (root != nullptr) iks_delete(root);
        return std::nullopt;
    }
    IksDocument document(root);
    std::vector<Entry> entries;
    // Only the root's children are entries; their element name is not looked at.
    for (iks *tag = iks_first_tag(root); tag != nullptr; tag = iks_next_tag(tag)) {
        entries.push_back({attribute(tag, "name"), attribute(tag, "methods"), attribute(tag, "call"),
                           attribute(tag, "no_session")});
    }
    return Registry(std::move(entries));
}

bool Registry::no_session(std::string_view script) const {
    for (const Entry &entry : entries_) {
        // compat: "methods" is compared as a prefix of "plugin" over its own
        // length, unlike the substring test of the call: registries rely on it.
        if (!entry.methods || !entry.name || !kPluginMethod.starts_with(*entry.methods)) continue;
        // compat: a name that prefixes the script decides (foo serves foobar.cgi).
        if (!script.starts_with(*entry.name)) continue;
        return entry.no_session && entry.no_session->starts_with('1');
    }
    return false;
}

const Entry *Registry::find(std::string_view name, std::string_view method, bool log_each) const {
    for (const Entry &entry : entries_) {
        if (log_each) {
            // compat: one line per entry looked at, as field diagnostics expect.
            quelm::log::print(LOG_ERR, "fctName:'%.*s' vs '%s'", static_cast<int>(name.size()), name.data(),
                              entry.name ? entry.name->c_str() : "(null)");
        }
        if (entry.name && *entry.name == name && entry.methods &&
            entry.methods->find(method) != std::string::npos) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace cgissi::plugins

using namespace cgissi::plugins;

extern "C" {

int init_call_shared_plugin(plugin_registry_handle *registry) {
    return quelm::guarded(0, __func__, [&] {
        std::optional<Registry> table = Registry::load();
        loop_copy = table ? std::make_unique<plugin_registry>(plugin_registry{std::move(*table)}) : nullptr;
        if (registry != nullptr) *registry = loop_copy.get();
        return loop_copy ? 1 : 0;
    });
}

int call_shared_plugin_no_session(plugin_registry_handle *registry, const char *name) {
    return quelm::guarded(0, __func__, [&] {
        if (registry == nullptr || *registry == nullptr || name == nullptr) return 0;
        return (*registry)->table.no_session(name) ? 1 : 0;
    });
}

int call_shared_genericplugin(const char *method, const char *name, int argc, char **argv) {
    return quelm::guarded(-1, __func__, [&] {
        const Registry *table = plugin_call_copy();
        if (table == nullptr || method == nullptr || name == nullptr) return -1;
        const Entry *entry = table->find(name, method);
        if (entry == nullptr) return -1;
        return call_external_plugin(name, method, argc, argv, entry->call ? entry->call->c_str() : nullptr);
    });
}

int call_shared_genericfct(const char *method, const char *name, const char *param) {
    return quelm::guarded(-1, __func__, [&] {
        const Registry *table = function_call_copy();
        if (table == nullptr || method == nullptr || name == nullptr) return -1;
        const Entry *entry = table->find(name, method, true);
        if (entry == nullptr) return -1;
        return call_external_function(entry->name->c_str(), method, param,
                                      entry->call ? entry->call->c_str() : nullptr);
    });
}
}
