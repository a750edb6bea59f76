// What the device functions share: their answers, the command runner and the
// launcher of background tests. Handlers take (mode, argument) and return an
// error code; see the table in functions.cpp.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "quelm_child.h"

namespace cgissi::device {

// Error codes of the device functions (the platform's shared error codes).
enum Code : int {
    kOk = 0,
    kReadError = 10,
    kShortWrite = 11,
    kOpenError = 12,
    kBadContent = 13,
    kSystemError = 14,
    kNotFound = 15,
    kWriterFailed = 16,
    kNoInterface = 17,
};

// Lines of tool output and of the files the functions read: at most 255
// characters each, as the gateway's tools print them.
constexpr std::size_t kLineSize = 256;
// Bytes of a command's output kept by run_command; the rest is dropped and
// kTruncatedMarker ends the kept part.
constexpr std::size_t kCommandOutputLimit = 64 * 1024;
constexpr std::string_view kTruncatedMarker = "[output truncated]\n";

// Options for a tool whose output is read back: standard error joined,
// at most kCommandOutputLimit bytes kept.
quelm::ChildOptions tool_output_options();

// Whether text is made of decimal digits only ("" is).
bool only_digits(std::string_view text);

// Writes a device function's answer (JSON text) through tfprintf.
void answer(std::string_view json);
// Writes "\"<text>\"" with text escaped as a JSON string.
void answer_string(std::string_view text);

// The pieces of a "|"-separated argument; a piece keeps at most 255 bytes.
std::vector<std::string> split_pieces(std::string_view argument);

// A host name or address a tool may be given: letters, digits, ".", ":",
// "-" and "_", not starting with "-" (never an option), not empty.
bool is_safe_host(std::string_view host);

// Runs argv (never a shell) with standard error merged, writes its output to
// "/var/tmp/<tool>_output.txt" and returns in `out` the non-empty lines of
// that output, at most kCommandOutputLimit bytes (then kTruncatedMarker).
// kOpenError when the output file cannot be written, else kOk.
int run_command(const std::vector<std::string> &argv, std::string &out);

// The file as one JSON string, lines joined by "|": false when it cannot
// be read.
bool file_as_json_lines(const std::string &path, std::string &json);

// Starts argv in the background, detached from this process: /dev/null as
// standard input, none of this process's descriptors, standard output and
// error into "<output_prefix>_<pid>" (created 0404) when output_prefix is
// not empty, else /dev/null, and killed after time_limit_s seconds. Returns
// the program's process id, or -1. The program is reaped by a watcher of
// its own, so nothing here depends on SIGCHLD.
pid_t start_detached(const std::vector<std::string> &argv, const std::string &output_prefix, int time_limit_s);

// The handlers, in the order of the table.
int do_reboot(const char *mode, const char *argument);
int factory_reset(const char *mode, const char *argument);
int get_firmware_flash_progression(const char *mode, const char *argument);
int start_ping(const char *mode, const char *argument);
int start_FTP_fwburn(const char *mode, const char *argument);
int get_date(const char *mode, const char *argument);
int fct_get_cgierror(const char *mode, const char *argument);
int fct_get_http_vars(const char *mode, const char *argument);
int fct_remove_dhclient_leases(const char *mode, const char *argument);
int fct_get_shadowed_field(const char *mode, const char *argument);
int diag_ping(const char *mode, const char *argument);
int diag_traceroute(const char *mode, const char *argument);
int diag_nslookup(const char *mode, const char *argument);
int wifi_wps_push(const char *mode, const char *argument);
int wifi_wps_pin_generate(const char *mode, const char *argument);
int trigger_channel_selection(const char *mode, const char *argument);
int factory_reset_wep_password(const char *mode, const char *argument);
int factory_reset_wpa_password(const char *mode, const char *argument);
int get_logs(const char *mode, const char *argument);
int clear_logs(const char *mode, const char *argument);
int get_macOfPc(const char *mode, const char *argument);
int get_check_passwordOverride(const char *mode, const char *argument);
int disconnect_session(const char *mode, const char *argument);

}  // namespace cgissi::device
