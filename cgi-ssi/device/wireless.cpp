// Wireless device functions: WPS push button and PIN, a fresh channel
// choice, and the factory default WEP/WPA keys put back into the
// configuration.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device/device_internal.h"
#include "qm_config.h"
#include "qm_device.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"

namespace cgissi::device {
namespace {

constexpr const char *kPairingFifo = "/var/quelm/wifi.d/pairingd_fifo";
constexpr std::string_view kPairingStart = "PAIRINGD_WIFI_WPS_START\n";
// How long the pairing daemon may take to accept the command.
constexpr int kPairingWaitMs = 2000;
constexpr const char *kPinFile = "/tmp/wpspin_generate";
constexpr const char *kWlanConfig = "WLANInterface_1_Config";
// The default key is one line of at most 31 characters.
constexpr std::size_t kDefaultKeySize = 32;
constexpr std::size_t kHexKeySize = 2 * kDefaultKeySize + 1;

// The factory default key from "pzinfo wepkey", or a failure code: 12 when
// the tool cannot be run, 17 when it printed nothing.
int read_default_key(std::string &key) {
    std::string output;
    quelm::ChildOptions options;
    options.output_limit = kDefaultKeySize - 1;
    if (quelm::run_child({"pzinfo", "wepkey"}, output, options).status < 0) {
        QM_LOG_print("%s:%d popen failed with '%s'\n", __func__, __LINE__, "pzinfo wepkey");
        return kOpenError;
    }
    if (output.empty()) {
        answer_string("Request Failed");
        return kNoInterface;
    }
    key = output.substr(0, output.find_first_of("\r\n"));
    return kOk;
}

}  // namespace

int wifi_wps_push(const char *, const char *) {
    // Non-blocking: with no daemon reading, the open fails at once instead
    // of holding the responder.
    quelm::UniqueFd fifo(::open(quelm::root_path(kPairingFifo).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fifo || ::fstat(fifo.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        answer("\"FAILED\"");
        return kOpenError;
    }
    pollfd ready{fifo.get(), POLLOUT, 0};
    int polled;
    while ((polled = ::poll(&ready, 1, kPairingWaitMs)) < 0 && errno == EINTR) {
    }
    const ssize_t written = polled > 0 ? ::write(fifo.get(), kPairingStart.data(), kPairingStart.size()) : -1;
    if (written != static_cast<ssize_t>(kPairingStart.size())) {
        answer("\"FAILED\"");
        return kShortWrite;
    }
    answer("\"SUCCESS\"");
    return kOk;
}

int wifi_wps_pin_generate(const char *, const char *) {
    std::string reply;
    quelm::ChildOptions options;
    options.merge_stderr = true;
    if (quelm::run_child({"hostapd_cli", "wps_ap_pin", "random", "120"}, reply, options).status != 0) {
        answer("\"System Error\"");
        return kSystemError;
    }
    const std::string pin_file = quelm::root_path(kPinFile);
    if (quelm::UniqueFile out{std::fopen(pin_file.c_str(), "we")}) std::fwrite(reply.data(), 1, reply.size(), out.get());
    quelm::UniqueFile in(std::fopen(pin_file.c_str(), "re"));
    if (!in) {
        answer("\"File could not be opened\"");
        return kOpenError;
    }
    char line[kLineSize];
    while (std::fgets(line, sizeof line, in.get()) != nullptr) {
        // compat: a line still ending in its newline is not a PIN; the
        // daemon's reply is the PIN alone, without one.
        if (!only_digits(line)) continue;
        answer_string(line);
        return kOk;
    }
    answer("\"System Error\"");
    return kSystemError;
}

int trigger_channel_selection(const char *, const char *argument) {
    const char *interface = argument != nullptr ? argument : "";
    if (check_ifname_exists(interface) != 1) {
        answer("\"FAILED\"");
        return kNoInterface;
    }
    quelm::run_child({"iwconfig", interface, "channel", "0"}, {});
    // The daemon's supervisor restarts it, and it chooses a channel afresh.
    const quelm::ChildResult killed = quelm::run_child({"killall", "-9", "hostapd"}, {});
    answer("\"SUCCESS\"");
    return killed.status;
}

int factory_reset_wep_password(const char *, const char *) {
    std::string key;
    if (const int rc = read_default_key(key); rc != kOk) return rc;
    char hex[kHexKeySize];
    atoh(key.c_str(), hex, sizeof hex);
    const int rc = QM_DAT_setobjproperty(kWlanConfig, "WEPKey1", hex, 0);
    answer("\"SUCCESS\"");
    return rc;
}

int factory_reset_wpa_password(const char *, const char *) {
    std::string key;
    // compat: the WPA key is read with the same "wepkey" query.
    if (const int rc = read_default_key(key); rc != kOk) return rc;
    const int rc = QM_DAT_setobjproperty(kWlanConfig, "WPADefaultKey", key.c_str(), 0);
    answer("\"SUCCESS\"");
    return rc;
}

}  // namespace cgissi::device

extern "C" int check_ifname_exists(const char *name) {
    return quelm::guarded(-1, __func__, [&] {
        quelm::UniqueFd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!sock) return -1;
        ifreq request{};
        const std::size_t n = name != nullptr ? strnlen(name, IFNAMSIZ - 1) : 0;
        if (n > 0) std::memcpy(request.ifr_name, name, n);
        return ::ioctl(sock.get(), SIOCGIFHWADDR, &request) == 0 ? 1 : 0;
    });
}
