// POST protection: which requests the guarded built-in CGIs serve.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace cgissi::request {

// A candidate file name (web root + referer path) must fit this buffer,
// terminator included.
constexpr std::size_t kCandidateSize = 256;
// Property "RootDir" of "WebConfigurator" is read into this many bytes.
constexpr std::size_t kWebRootSize = 256;
// Path prefixes of the referer dropped before giving up.
constexpr int kPathTries = 3;

// What the referer test looks at; null pointers are unset variables.
struct RefererCheck {
    const char *method = nullptr;   // REQUEST_METHOD (only for a log message)
    const char *referer = nullptr;  // HTTP_REFERER
    const char *host = nullptr;     // HTTP_HOST
    // The web root, or nullopt when the property could not be read.
    std::optional<std::string> web_root;
};

// True when one of the ten CGIs that are served without the referer test.
bool unguarded(std::string_view cgi_name);

// The referer test of a guarded CGI: true when the referer is a page of the
// gateway's own web tree on the request's host. `file_exists` is asked about
// the candidate files (gateway paths) in turn, at most kPathTries times.
// Every refusal is logged.
bool referer_allowed(const RefererCheck &check, const std::function<bool(const std::string &)> &file_exists);

}  // namespace cgissi::request
