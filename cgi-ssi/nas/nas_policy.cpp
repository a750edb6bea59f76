// Who may use which NAS feature (Services_NAS: "all", "local" or off), what
// counts as a local request, and the parameters carried in PATH_INFO.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_cgi_state.h"
#include "qm_nas.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace cgissi::nas {
namespace {

constexpr const char *kFeatureNames[] = {"WebCam", "Disk", "Music", "Pictures"};
constexpr std::size_t kAddressSize = 16;   // 15 characters of a dotted quad
constexpr std::size_t kHostNameSize = 60;  // 59 characters of Hostname/Aliases
// A PATH_INFO key longer than this is refused.
constexpr std::size_t kKeyMax = 80;

std::string property(const char *object, const char *name, std::size_t size) {
    std::string value(size + 1, '\0');
    GetPropertyStrValue(object, name, value.data(), size);
    value.resize(std::strlen(value.c_str()));
    return value;
}

bool lan_present() {
    quelm::MallocString count(QM_DAT_getobjcount("LANDevice"));
    return count && std::atoi(count.get()) > 0;
}

bool local_request() {
    const char *env = std::getenv("HTTP_HOST");
    std::string_view host = env != nullptr ? env : "";
    host = host.substr(0, host.find(':'));
    if (!lan_present()) return true;
    const std::string address = property("LANDevice_1_IPInterface_1", "IPAddress", kAddressSize - 1);
    const std::string mask = property("LANDevice_1_IPInterface_1", "SubnetMask", kAddressSize - 1);
    const std::string name = property("Device", "Hostname", kHostNameSize - 1);
    const std::string aliases = property("Device", "Aliases", kHostNameSize - 1);
    if (quelm::equal_ascii_no_case(host, name) || quelm::equal_ascii_no_case(host, aliases)) return true;
    // An alias list names the gateway by each of its names, as sessions see it.
    bool alias = false;
    quelm::split(aliases, ',', [&](std::string_view item) {
        alias = alias || (!item.empty() && quelm::equal_ascii_no_case(host, item));
    });
    if (alias) return true;
    const long mask_word = my_ipword(mask.c_str());
    return (my_ipword(std::string(host).c_str()) & mask_word) == (my_ipword(address.c_str()) & mask_word);
}

}  // namespace

// The value of key in PATH_INFO, or nothing.
std::optional<std::string> pathinfo_value(std::string_view path_info, std::string_view key, bool rest) {
    if (path_info.empty()) return std::nullopt;
    const std::string needle = "/" + std::string(key) + "/";
    const std::size_t at = path_info.find(needle);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view value = path_info.substr(at + needle.size());
    if (!rest) value = value.substr(0, value.find('/'));
    return std::string(value);
}

}  // namespace cgissi::nas

using namespace cgissi::nas;

extern "C" long my_ipword(const char *text) {
    long word = 0;
    std::string_view rest = text != nullptr ? text : "";
    for (int part = 0; part < 4; ++part) {
        std::size_t digits = 0;
        long value = 0;
        while (digits < rest.size() && quelm::is_digit(rest[digits]) && value <= 255)
            value = value * 10 + (rest[digits++] - '0');
        if (digits == 0 || value > 255) return -1;
        rest.remove_prefix(digits);
        if (part < 3) {
            if (rest.empty() || rest.front() != '.') return -1;
            rest.remove_prefix(1);
        }
        word = (word << 8) | value;
    }
    return rest.empty() ? word : -1;
}

extern "C" int is_local_address(void) {
    return quelm::guarded(0, __func__, [&] { return local_request() ? 1 : 0; });
}

extern "C" int check_extern_access(int kind) {
    return quelm::guarded(0, __func__, [&] {
        if (kind < 0 || kind >= static_cast<int>(std::size(kFeatureNames))) return 0;
        const std::string mode = property("Services_NAS", kFeatureNames[kind], kPropertySize - 1);
        if (mode == "all") return 1;
        return mode == "local" && local_request() ? 1 : 0;
    });
}

extern "C" int pathinfo_get_parm(const char *path_info, const char *key, char *output, size_t size, int rest) {
    return quelm::guarded(kErrMemory, __func__, [&] {
        const std::size_t key_length = std::strlen(key);
        if (key_length > kKeyMax) {
            NAS_LOG("Buffer too short %u / %u", static_cast<unsigned>(key_length), static_cast<unsigned>(kKeyMax));
            return QM_err_set(kErrMissing);
        }
        const std::optional<std::string> value = pathinfo_value(path_info != nullptr ? path_info : "", key, rest != 0);
        if (!value) return QM_err_set(kErrMissing);
        if (size > 0) {
            const std::size_t kept = std::min(value->size(), size - 1);
            std::memcpy(output, value->data(), kept);
            output[kept] = '\0';
        }
        return 0;
    });
}
