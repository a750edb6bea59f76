// Loading the plugin registry (web.xml) and the two lookups made in it:
// the no-session rule and the entry of a name and method.
//
// Input: a script name, "\n", then the registry file.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "fuzz_support.h"
#include "plugins/plugin_registry.h"
#include "quelm_owned.h"

namespace {

using cgissi::plugins::Registry;

constexpr const char *kFuzzRegistry = "/etc/quelm/config.default/fuzz-web.xml";
std::string registry_path;

void write_registry(std::string_view content) {
    quelm::UniqueFd out(::open(registry_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!out || ::write(out.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        fuzz::fail("cannot write the registry file");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    registry_path = fuzz::gateway_root() + kFuzzRegistry;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > 1 << 15) return 0;
    std::string_view rest = fuzz::text_of(data, size);
    const std::string script(fuzz::take_until(rest, '\n'));
    write_registry(rest);
    const std::optional<Registry> registry = Registry::load(kFuzzRegistry);
    if (!registry) return 0;
    registry->no_session(script);
    // The diagnostic line per entry looked at is formatted and escaped
    // (most of an input's time): once per input is enough for it.
    bool log_each = true;
    for (const char *method : {"cgi", "ssi", "plugin"}) {
        const auto *entry = registry->find(script, method, log_each);
        log_each = false;
        if (entry != nullptr) {
            fuzz::require(entry->name && *entry->name == script, "an entry found under another name");
            fuzz::require(entry->methods && entry->methods->find(method) != std::string::npos,
                          "an entry found for a method it does not list");
        }
    }
    return 0;
}
