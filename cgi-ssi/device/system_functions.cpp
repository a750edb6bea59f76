// Device functions about the gateway itself: reboot and factory reset (acted
// on after the response), firmware progress and writer, ping, the date, the
// CGI error, the request's variables, DHCP leases, shadowed fields.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "cgi_output.h"
#include "cgic.h"
#include "device/device_internal.h"
#include "json/json_writer.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "quelm_chars.h"
#include "quelm_child.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "ssi_buffer.h"

namespace cgissi::device {
namespace {

constexpr const char *kProgressFile = "/var/tmp/fprogress";
constexpr std::size_t kProgressSize = 128;
// Negative progress codes are moved out of the 0..100 range.
constexpr long kNegativeProgressShift = 130;
constexpr std::size_t kDateSize = 200;
constexpr const char *kLeasesFile = "/var/etc/config/dhclient.leases";
constexpr const char *kLeasesCopy = "/var/tmp/leases~";
constexpr std::size_t kLeaseLineSize = 128;

// Value and result of the progress file.
std::pair<long, int> read_progress() {
    const std::string path = quelm::root_path(kProgressFile);
    quelm::UniqueFile file(std::fopen(path.c_str(), "re"));
    if (!file) {
        QM_LOG_print("Error opening file %s", path.c_str());
        return {0, kOpenError};
    }
    char text[kProgressSize + 1] = {};
    const std::size_t n = std::fread(text, 1, kProgressSize, file.get());
    if (std::ferror(file.get())) {
        QM_LOG_print("Error on reading firmware progress data %d", static_cast<int>(n));
        return {0, kReadError};
    }
    if (!quelm::is_digit(text[0]) && text[0] != '-' && text[0] != '+') return {0, kBadContent};
    return {std::strtol(text, nullptr, 10), kOk};
}

std::string or_empty(const char *text) { return json::escape_strict(text != nullptr ? text : ""); }

// Answers "" at once; the request acts on the flag after its response.
int ask_after_response(int &flag) {
    answer("\"\"");
    cgi_out_flush();
    flag = 1;
    return kOk;
}

}  // namespace

int do_reboot(const char *, const char *) { return ask_after_response(need_reboot); }

int factory_reset(const char *, const char *) { return ask_after_response(need_factory); }

int get_firmware_flash_progression(const char *, const char *) {
    const auto [value, rc] = read_progress();
    const int shared = QM_err_get();
    const long shown = shared != 0 ? shared : value < 0 ? value - kNegativeProgressShift : value;
    std::snprintf(Ssi, sizeof Ssi, "%ld", shown);
    return rc;
}

int start_ping(const char *mode, const char *argument) {
    if (std::strcmp(mode != nullptr ? mode : "", "ssi") == 0) {
        Ssi[0] = '\0';
        return kOk;
    }
    const std::string host = argument != nullptr ? argument : "";
    if (!is_safe_host(host)) {
        answer("\"\"");
        return kBadContent;
    }
    std::string output;
    const int rc = run_command({quelm::root_path("/bin/ping"), "-c", "3", host}, output);
    answer_string(output);
    return rc;
}

int start_FTP_fwburn(const char *, const char *) {
    const quelm::ChildResult burn =
        quelm::run_child({quelm::root_path("/bin/gp_upgrade"), "-f", quelm::root_path(kProgressFile)}, {});
    answer("\"\"");
    return burn.status != 0 ? kWriterFailed : kOk;
}

int get_date(const char *, const char *argument) {
    const std::time_t now = std::time(nullptr);
    if (argument == nullptr || argument[0] == '\0') {
        answer_string(std::to_string(static_cast<unsigned long>(now)));
        return kOk;
    }
    std::tm local{};
    char text[kDateSize];
    if (localtime_r(&now, &local) == nullptr || std::strftime(text, sizeof text, argument, &local) == 0) {
        QM_LOG_print("localtime() error : %s", std::strerror(errno));
        return kSystemError;
    }
    answer_string(text);
    return kOk;
}

int fct_get_cgierror(const char *, const char *) {
    answer("\"\"");
    // compat: get_cgierror leaves the stored code in Ssi, which the caller
    // prints right after the "" (pages read the answer as it always was).
    return get_cgierror();
}

int fct_get_http_vars(const char *, const char *) {
    // compat: the first key says ServerName but holds the server software,
    // and the keys are bare; pages read the object as it always was.
    const std::pair<const char *, const char *> variables[] = {
        {"ServerName", cgiServerSoftware},   {"ServerName", cgiServerName},
        {"GatewayInterface", cgiGatewayInterface}, {"ServerProtocol", cgiServerProtocol},
        {"ServerPort", cgiServerPort},       {"RequestMethod", cgiRequestMethod},
        {"PathInfo", cgiPathInfo},           {"PathTranslated", cgiPathTranslated},
        {"ScriptName", cgiScriptName},       {"QueryString", cgiQueryString},
        {"RemoteHost", cgiRemoteHost},       {"RemoteAddr", cgiRemoteAddr},
        {"AuthType", cgiAuthType},           {"RemoteUser", cgiRemoteUser},
        {"RemoteIdent", cgiRemoteIdent},     {"ContentType", cgiContentType},
        {"Accept", cgiAccept},               {"UserAgent", cgiUserAgent},
        {"Referrer", cgiReferrer},           {"HttpHost", cgiHttpHost},
        {"XForwardedFor", cgiXForwardedFor},
    };
    std::string text = "{ ";
    for (const auto &[key, value] : variables) {
        if (text.size() > 2) text.append(", ");
        text.append(key).append(":\"").append(or_empty(value)).append("\"");
    }
    text.append("  } ");
    answer(text);
    return get_cgierror();  // compat: as fct_get_cgierror, the stored code follows
}

int fct_remove_dhclient_leases(const char *, const char *argument) {
    const std::string source = quelm::root_path(kLeasesFile);
    const std::string copy = quelm::root_path(kLeasesCopy);
    quelm::UniqueFile in(std::fopen(source.c_str(), "re"));
    if (!in) {
        QM_LOG_print("%s: can't open %s !!!\n", "fct_remove_dhclient_leases", kLeasesFile);
        return kOk;
    }
    quelm::UniqueFile out(std::fopen(copy.c_str(), "we"));
    if (!out) {
        QM_LOG_print("%s: can't open %s !!!\n", "fct_remove_dhclient_leases", kLeasesCopy);
        return kOk;
    }
    const char *interface = argument != nullptr ? argument : "";
    bool copying = false;
    char line[kLeaseLineSize];
    while (std::fgets(line, sizeof line, in.get()) != nullptr) {
        if (line[0] == '}') {
            if (copying) std::fputs("}\n", out.get());
            copying = false;
        } else if (copying) {
            std::fputs(line, out.get());
        } else if (std::strstr(line, "interface ") != nullptr) {
            char name[kLeaseLineSize] = {};
            std::sscanf(line, "  interface \"%127[a-zA-Z0-9.]\"", name);
            if (std::strcmp(name, interface) != 0) {
                // Lines of the lease before its interface line are not kept.
                std::fputs("lease {\n", out.get());
                std::fputs(line, out.get());
                copying = true;
            }
        }
    }
    in.reset();
    out.reset();
    ::unlink(source.c_str());
    std::rename(copy.c_str(), source.c_str());
    return kOk;
}

int fct_get_shadowed_field(const char *, const char *argument) {
    const std::string_view text = argument != nullptr ? argument : "";
    const std::size_t underscore = text.rfind('_');
    if (underscore == std::string_view::npos) {
        answer("\"\"");
        return kOk;
    }
    const std::string object(text.substr(0, underscore));
    const std::string property(text.substr(underscore + 1));
    quelm::MallocString value(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    if (value) answer("\"" + std::string(std::strlen(value.get()), '*') + "\"");
    return kOk;
}

}  // namespace cgissi::device
