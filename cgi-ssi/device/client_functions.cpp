// Device functions about the system log and the visiting client: the log
// without kernel lines, the logger's restart, the client's MAC address, the
// parental-control override check, and the end of the session.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "cgic.h"
#include "device/device_internal.h"
#include "qm_config.h"
#include "qm_device.h"
#include "qm_session.h"
#include "qm_token.h"
#include "quelm_chars.h"
#include "quelm_child.h"
#include "quelm_owned.h"
#include "quelm_root.h"

namespace cgissi::device {
namespace {

constexpr const char *kLogCopy = "/tmp/logread";
constexpr const char *kSyslogScript = "/etc/quelm/init.d/syslog";
constexpr const char *kArpTable = "/proc/net/arp";
constexpr std::size_t kArpLineSize = 130;
// Fields of an ARP line before the hardware address: address, type, flags.
constexpr int kFieldsBeforeMac = 3;

// The lines of text that do not mention "kernel", as "grep -v kernel".
std::string without_kernel_lines(std::string_view text) {
    std::string kept;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::size_t take = end == std::string_view::npos ? text.size() : end + 1;
        const std::string_view line = text.substr(0, take);
        if (line.find("kernel") == std::string_view::npos) kept.append(line);
        text.remove_prefix(take);
    }
    return kept;
}

// The n-th blank-separated field of line (0 is the first), or "".
std::string_view field(std::string_view line, int n) {
    std::size_t at = 0;
    for (int i = 0;; ++i) {
        while (at < line.size() && quelm::is_space_or_tab(line[at])) ++at;
        const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
        if (i == n) return line.substr(at, end - at);
        if (end >= line.size()) return {};
        at = end;
    }
}

// REMOTE_ADDR of the request: the request layer's copy once it parsed the
// request (generic.cgi), else the variable itself (a page).
std::string_view client_address() {
    if (cgiRemoteAddr != nullptr && cgiRemoteAddr[0] != '\0') return cgiRemoteAddr;
    const char *variable = std::getenv("REMOTE_ADDR");
    return variable != nullptr ? variable : "";
}

}  // namespace

int get_logs(const char *, const char *) {
    const std::string copy = quelm::root_path(kLogCopy);
    ::unlink(copy.c_str());
    std::string log;
    if (quelm::run_child({"logread"}, log, tool_output_options()).status < 0) return kSystemError;
    quelm::UniqueFile out(std::fopen(copy.c_str(), "we"));
    if (out) {
        const std::string kept = without_kernel_lines(log);
        std::fwrite(kept.data(), 1, kept.size(), out.get());
    }
    out.reset();
    read_command_output(nullptr, kLogCopy);
    return kOk;
}

int clear_logs(const char *, const char *) {
    start_detached({quelm::root_path(kSyslogScript), "restart"}, {}, QM_BACKGROUND_TIME_LIMIT_S);
    // compat: "/nvram/log/messages" is never removed; the gateway's pages
    // expect the old messages to stay after a restart of the logger.
    answer("\"SUCCESS\"");
    return kOk;
}

int get_macOfPc(const char *, const char *) {
    int rc = kNotFound;
    quelm::UniqueFile arp(std::fopen(quelm::root_path(kArpTable).c_str(), "re"));
    const std::string_view client = client_address();
    char line[kArpLineSize];
    if (!arp) {
        rc = kOpenError;
    } else if (std::fgets(line, sizeof line, arp.get()) != nullptr) {  // the header line
        while (std::fgets(line, sizeof line, arp.get()) != nullptr) {
            std::string_view text(line);
            if (text.ends_with('\n')) text.remove_suffix(1);
            // The whole address field: 192.168.1.1 is not 192.168.1.10.
            if (client.empty() || field(text, 0) != client) continue;
            answer_string(field(text, kFieldsBeforeMac));
            rc = kOk;
            break;
        }
    }
    if (rc != kOk) answer("\"ko\"");
    return rc;
}

int get_check_passwordOverride(const char *, const char *argument) {
    quelm::MallocString password(QM_DAT_getobjproperty("Services_ParentalControl_Override", "Password"));
    const bool same = password && argument != nullptr && std::strcmp(password.get(), argument) == 0;
    answer(same ? "\"ok\"" : "\"ko\"");
    return kOk;
}

int disconnect_session(const char *, const char *) {
    remove_current_token();
    if (QM_DestroySession() != 0) {
        answer("\"SUCCESS\"");
        return kOk;
    }
    answer("\"ERROR\"");
    return kSystemError;
}

}  // namespace cgissi::device
