// The parsed plugin registry: the entries of web.xml in document order and
// the two lookups the request loop and the calls make.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cgissi::plugins {

constexpr const char *kRegistryFile = "/etc/quelm/config.default/web.xml";

// One child of the registry's root; an absent attribute is nullopt (an
// empty one is "").
struct Entry {
    std::optional<std::string> name;
    std::optional<std::string> methods;
    std::optional<std::string> call;
    std::optional<std::string> no_session;
};

class Registry {
public:
    explicit Registry(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    // Reads the registry file (a gateway path, mapped under the root);
    // nullopt when it is missing or not XML.
    static std::optional<Registry> load(const char *gateway_path = kRegistryFile);

    // The no-session rule: the first plugin entry (its "methods" a prefix of
    // "plugin" over the attribute's own length) whose "name" prefixes
    // `script` decides, by its "no_session" beginning with "1".
    bool no_session(std::string_view script) const;

    // The first entry whose "name" equals `name` and whose "methods"
    // contains `method`; null when none. With log_each, every entry looked
    // at is logged first (the function lookup does).
    const Entry *find(std::string_view name, std::string_view method, bool log_each = false) const;

private:
    std::vector<Entry> entries_;
};

}  // namespace cgissi::plugins
