// The table of named device functions, run from pages through "fct=" and
// from generic.cgi's "fct" field. A row's lock flag of 1 means the function
// changes the configuration: generic.cgi takes the configuration lock
// before calling it (pages never look at the flag).
#include "device/device_internal.h"
#include "qm_generic.h"
#include "quelm_guard.h"

namespace {

using namespace cgissi::device;

// Every row runs through the C-edge guard: the table is part of the C
// interface, and an exception inside a handler becomes a system error.
template <cgi_plugin_handler handler>
int guarded_row(const char *mode, const char *argument) {
    return quelm::guarded(static_cast<int>(kSystemError), "device function",
                          [&] { return handler(mode, argument); });
}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {

const cgi_plugin cgi_plugins[] = {
    {"reboot", guarded_row<do_reboot>, 0},
    {"factoryReset", guarded_row<factory_reset>, 1},
    {"firmwareFlashProgression", guarded_row<get_firmware_flash_progression>, 0},
    {"ping", guarded_row<start_ping>, 1},
    {"startFTPfwburn", guarded_row<start_FTP_fwburn>, 1},
    {"date", guarded_row<get_date>, 0},
    {"cgierror", guarded_row<fct_get_cgierror>, 1},
    {"http_vars", guarded_row<fct_get_http_vars>, 1},
    {"remove_dhclient_leases", guarded_row<fct_remove_dhclient_leases>, 1},
    {"shadow", guarded_row<fct_get_shadowed_field>, 1},
    {"diag_ping", guarded_row<diag_ping>, 0},
    {"diag_traceroute", guarded_row<diag_traceroute>, 0},
    {"diag_nslookup", guarded_row<diag_nslookup>, 0},
    {"wifi_wps_push", guarded_row<wifi_wps_push>, 0},
    {"wifi_wps_pin_generate", guarded_row<wifi_wps_pin_generate>, 1},
    {"trigger_channel_selection", guarded_row<trigger_channel_selection>, 0},
    {"factory_reset_wep_password", guarded_row<factory_reset_wep_password>, 1},
    {"factory_reset_wpa_password", guarded_row<factory_reset_wpa_password>, 1},
    {"logread", guarded_row<get_logs>, 0},
    {"clear_logs", guarded_row<clear_logs>, 0},
    {"get_mac_addr_by_arp", guarded_row<get_macOfPc>, 0},
    {"get_check_passwordOverride", guarded_row<get_check_passwordOverride>, 1},
    {"disconnect_session", guarded_row<disconnect_session>, 0},
};

int get_nbcgiplugins(void) { return static_cast<int>(sizeof cgi_plugins / sizeof cgi_plugins[0]); }
}
