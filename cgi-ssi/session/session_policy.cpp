// The session side of the access policy (see session_store.h): the cap on
// sessions that never signed in, what the realm limit counts, and whether
// the session is an admin's.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "quelm_log.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "session/session_store.h"
#include "session/token_name.h"
#include "util/policy.h"

namespace cgissi::session {
namespace {

constexpr const char *kSessionPath = "/var/quelm/session";
// Session entry "SERVICES" is read into this many bytes.
constexpr int kServicesSize = 1024;

std::string_view current_realm() { return QM_SessionRealm != nullptr ? QM_SessionRealm : ""; }

// "<realm>_<token>" of exactly this realm ("web" is not "webadmin").
bool of_this_realm(std::string_view name) {
    const std::string_view realm = current_realm();
    return name.size() == realm.size() + 1 + kTokenLength && name.starts_with(realm) && name[realm.size()] == '_' &&
           valid_token(name.substr(realm.size() + 1));
}

bool signed_in(std::string_view content) {
    std::string_view user;
    return find_entry(content, "USER", user) && !user.empty();
}

struct Anonymous {
    std::string mapped;
    std::time_t modified;
};

// This client's sessions of this realm that never signed in.
std::vector<Anonymous> anonymous_sessions_of(std::string_view address) {
    std::vector<Anonymous> found;
    const std::string dir_path = quelm::root_path(kSessionPath);
    quelm::UniqueDir dir(::opendir(dir_path.c_str()));
    if (!dir) return found;
    while (const struct dirent *entry = ::readdir(dir.get())) {
        if (!of_this_realm(entry->d_name)) continue;
        const std::string mapped = dir_path + "/" + entry->d_name;
        std::string content;
        struct stat st {};
        if (::stat(mapped.c_str(), &st) != 0 || !read_session_file(mapped, content) || signed_in(content)) continue;
        std::string_view owner;
        if (find_entry(content, "REMOTE_ADDR", owner) && owner == address) found.push_back({mapped, st.st_mtime});
    }
    return found;
}

}  // namespace

bool admin_session() {
    if (QM_HasSession() == 0 || QM_SessionToken == nullptr) return false;
    char services[kServicesSize + 1] = {};
    if (QM_GetSessionInfo(QM_SessionToken, "SERVICES", services, kServicesSize) != 1) return false;
    const std::string wanted = "web_" + std::string(current_realm()) + "_admin";
    return !quelm::split(std::string_view(services), ',', [&](std::string_view item) { return item != wanted; });
}

bool counts_towards_limit(std::string_view name, const std::string &mapped) {
    if (policy::compat_mode()) return true;
    std::string content;
    return of_this_realm(name) && read_session_file(mapped, content) && signed_in(content);
}

void make_room_for_anonymous(const char *address) {
    if (policy::compat_mode()) return;
    std::vector<Anonymous> sessions = anonymous_sessions_of(address != nullptr ? address : "");
    if (sessions.size() < kAnonymousPerClient) return;
    std::sort(sessions.begin(), sessions.end(),
              [](const Anonymous &a, const Anonymous &b) { return a.modified < b.modified; });
    const std::size_t excess = sessions.size() - kAnonymousPerClient + 1;
    for (std::size_t i = 0; i < excess; ++i) ::unlink(sessions[i].mapped.c_str());
    quelm::log::print(LOG_NOTICE, "%zu oldest session(s) of %s that never signed in dropped to make room", excess,
                      address != nullptr ? address : "");
}

}  // namespace cgissi::session
