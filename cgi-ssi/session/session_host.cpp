// Data-model values that every request's session step asks for: the
// gateway's own names, which a request's Host must give for the request to
// get a session, and the session settings. They are read from the data
// model again only when its change stamp moved (or the gateway root
// changed).
#include <cstdlib>
#include <string>
#include <vector>

#include "qm_config.h"
#include "quelm_root.h"
#include "session/session_store.h"

namespace cgissi::session {
namespace {

struct KeptIdentity {
    HostIdentity identity;
    unsigned long long stamp = 0;  // 0: nothing kept
    std::string root;
};
KeptIdentity kept;

struct KeptValue {
    std::string object;
    std::string name;
    std::string root;
    unsigned long long stamp = 0;  // 0: to be read
    bool found = false;
    int error = 0;  // QM_err_get() after the read
    std::string value;
};
// One per setting (and per server index for UseSession): a handful.
std::vector<KeptValue> kept_values;
constexpr std::size_t kMaxKeptValues = 16;

// One property; a failure of the database makes the set not to be kept.
std::string property(const char *object, const char *name, bool &keepable) {
    char *value = QM_DAT_getobjproperty(object, name);
    if (value == nullptr && QM_err_get() == QM_ERR_STORAGE) keepable = false;
    std::string out = value != nullptr ? value : "";
    std::free(value);
    return out;
}

}  // namespace

bool kept_property(const std::string &object, const char *name, std::string &value) {
    const unsigned long long stamp = QM_DAT_changestamp();
    KeptValue *slot = nullptr;
    for (KeptValue &k : kept_values) {
        if (k.object == object && k.name == name) slot = &k;
    }
    if (slot != nullptr && stamp != 0 && slot->stamp == stamp && slot->root == quelm::root_prefix()) {
        QM_err_set(slot->error);
        value = slot->value;
        return slot->found;
    }
    if (slot == nullptr) {
        if (kept_values.size() >= kMaxKeptValues) kept_values.clear();
        slot = &kept_values.emplace_back(KeptValue{object, name, {}, 0, false, 0, {}});
    }
    char *raw = QM_DAT_getobjproperty(object.c_str(), name);
    slot->error = QM_err_get();
    slot->found = raw != nullptr;
    slot->value = raw != nullptr ? raw : "";
    std::free(raw);
    // A failure of the database is not kept; a value read while a change
    // was committed is not either.
    const bool keepable = slot->found || slot->error != QM_ERR_STORAGE;
    slot->stamp = keepable && stamp == QM_DAT_changestamp() ? stamp : 0;
    slot->root = quelm::root_prefix();
    value = slot->value;
    return slot->found;
}

const HostIdentity &host_identity() {
    const unsigned long long stamp = QM_DAT_changestamp();
    if (stamp != 0 && stamp == kept.stamp && kept.root == quelm::root_prefix()) return kept.identity;
    bool keepable = true;
    kept.identity = HostIdentity{
        property("Device", "Hostname", keepable),
        property("Device", "Aliases", keepable),
        property("Device", "Domain", keepable),
        property("LANDevice_1_IPInterface_1", "IPAddress", keepable),
        property("LANDevice_1_IPInterface_1", "SubnetMask", keepable),
        property("LANDevice_1_IPv6Status", "CurrentIPAddress", keepable),
    };
    // Read after the values: a change committed meanwhile moves it again.
    kept.stamp = keepable && stamp == QM_DAT_changestamp() ? stamp : 0;
    kept.root = quelm::root_prefix();
    return kept.identity;
}

}  // namespace cgissi::session
