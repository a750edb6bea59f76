// Playlists as M3U for media players: one URL of "nas.cgi" per song, in the
// query form or in the PATH_INFO form that players without query strings
// understand.
#include <cstdlib>
#include <cstring>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace cgissi::nas {
namespace {

constexpr std::string_view kSecurePort = ":444";
constexpr std::string_view kPlainPort = ":8080";
constexpr std::size_t kObjectSize = 64;

bool is_https() {
    const char *https = std::getenv("HTTPS");
    return https != nullptr && std::strcmp(https, "on") == 0;
}

std::string property(const std::string &object, const char *name) {
    quelm::MallocString value(QM_DAT_getobjproperty(object.c_str(), name));
    return value ? value.get() : "";
}

// The remote port of the active WAN service that carries the web pages.
std::optional<std::string> remote_web_port() {
    quelm::MallocString devices(QM_DAT_getobjcount("WANConnectionDevice"));
    if (!devices || devices.get()[0] == '\0') return std::nullopt;
    const int device = std::atoi(property("Layer3Forwarding", "ActiveConnectionService").c_str());
    char object[kObjectSize];
    std::snprintf(object, sizeof object, "WANConnectionDevice_%d_Service", device);
    quelm::MallocString services(QM_DAT_getobjcount(object));
    std::optional<std::string> port;
    if (!services) return port;
    quelm::split(services.get(), ',', [&](std::string_view instance) {
        if (instance.empty()) return true;
        const std::string service = std::string(object) + "_" + std::string(instance);
        const std::string key = property(service, "UniqueKey");
        if (property(service, "Enable") == "0" || !std::string_view("web").starts_with(key)) return true;
        port = property(service, "RemotePort").substr(0, 7);
        return false;
    });
    return port;
}

// Host and scheme the player reaches the gateway by, or nothing when the
// request ends here (already answered, or silently as designed).
std::optional<std::string> player_host(bool path_info, std::string &scheme) {
    scheme = is_https() ? "https" : "http";
    const char *env = std::getenv("HTTP_HOST");
    if (env == nullptr) {
        NAS_LOG("nas_sendplaylistm3u => host is NULL");
        fail(403, "Forbidden", kErrRefused);
        return std::nullopt;
    }
    std::string host = env;
    if (!path_info) {
        if (scheme == "http" && std::string_view(host).ends_with(kSecurePort))
            host.replace(host.size() - kSecurePort.size(), kSecurePort.size(), kPlainPort);
        return host;
    }
    if (scheme == "http" && is_local_address() == 0) {
        const std::size_t colon = host.find(':');
        const std::optional<std::string> port = remote_web_port();
        if (!port || colon == std::string::npos) return std::nullopt;
        host = host.substr(0, colon + 1) + *port;
        scheme = "http";
    }
    return host;
}

}  // namespace

void playlist_m3u(bool path_info) {
    if (check_extern_access(NAS_KIND_MUSIC) == 0) return refuse_access();
    const auto fields = required_fields<2>({"disk", "name"});
    if (!fields) return;
    const auto &[disk, name] = *fields;
    std::string scheme;
    const std::optional<std::string> host = player_host(path_info, scheme);
    if (!host) return;
    const std::optional<std::string> path = playlist_file(disk, name);
    const std::optional<std::string> content = path ? read_playlist(*path) : std::nullopt;
    if (!content) {
        NAS_LOG("Cannot open file %s", path ? path->c_str() : name.c_str());
        fail(404, "Not found", kErrNotFound);
        return;
    }
    cgi_out_printf("Content-disposition: attachment; filename=\"%s.m3u\"\r\n", url_encode(name, true).c_str());
    cgiHeaderContentType("audio/x-mpegurl");
    cgi_out_printf("#EXTM3U\r\n");
    for (const std::string &entry : playlist_lines(*content)) {
        if (entry.find_first_of("/\\", 1) != std::string::npos)
            cgi_out_printf("#EXTINF:-1,%s\r\n", entry.substr(entry.find_last_of("/\\") + 1).c_str());
        if (path_info) {
            cgi_out_printf("%s://%s%s/cgi-bin/nas.cgi/%s/%s/%s/%s\r\n", scheme.c_str(), "", host->c_str(), "disk",
                           url_encode(disk, true).c_str(), "file", url_encode(entry, true).c_str());
        } else {
            cgi_out_printf("%s://%s/cgi-bin/nas.cgi?%s=1&%s=%s&%s=%s\r\n", scheme.c_str(), host->c_str(),
                           "iNasGetSong", "disk", url_encode(disk, false).c_str(), "file",
                           url_encode(entry, false).c_str());
        }
    }
}

}  // namespace cgissi::nas
