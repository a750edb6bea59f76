// The gateway's own names, which a request's Host must give for the request
// to get a session. Every request asks; they are read from the data model
// again only when its change stamp moved (or the gateway root changed).
#include <cstdlib>
#include <string>

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

// One property; a failure of the database makes the set not to be kept.
std::string property(const char *object, const char *name, bool &keepable) {
    char *value = QM_DAT_getobjproperty(object, name);
    if (value == nullptr && QM_err_get() == QM_ERR_STORAGE) keepable = false;
    std::string out = value != nullptr ? value : "";
    std::free(value);
    return out;
}

}  // namespace

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
