// Network tests run in the background (diag_ping, diag_traceroute,
// diag_nslookup): START answers the test's process id, SHOW its output so
// far, STOP ends it. A test is known by its id alone, so any responder
// process can answer for it: an id counts only while its output file exists
// under the handler's prefix, and it is "running" only while that process
// is still the handler's tool.
#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "device/device_internal.h"
#include "qm_device.h"
#include "qm_config.h"
#include "quelm_owned.h"
#include "quelm_root.h"

namespace cgissi::device {
namespace {

// Process ids have at most 7 digits on Linux (pid_max is at most 2^22).
constexpr std::size_t kMaxIdDigits = 9;
constexpr std::string_view kOutputDirectory = "/tmp";

struct Diagnostic {
    std::string_view tool;
    std::string_view file_name;  // output files are <file_name>_<pid> in kOutputDirectory
    std::string_view bad_order_text;
    int bad_order_code;
    bool logs_show;  // diag_ping logs what SHOW looks at
    // The tool's argument vector from the pieces after the order, or empty
    // when a piece may not reach the tool.
    std::vector<std::string> (*arguments)(const std::vector<std::string> &pieces);
};

// The piece at index, or "" when the page left it out.
const std::string &piece(const std::vector<std::string> &pieces, std::size_t index) {
    static const std::string missing;
    return index < pieces.size() ? pieces[index] : missing;
}

// Counts, sizes and hops are decimal digits, or empty as a page may leave them.
std::vector<std::string> ping_arguments(const std::vector<std::string> &p) {
    const std::string &host = piece(p, 1), &size = piece(p, 2), &count = piece(p, 3);
    if (!is_safe_host(host) || !only_digits(size) || !only_digits(count)) return {};
    return {"ping", "-c", count, "-s", size, host};
}

std::vector<std::string> traceroute_arguments(const std::vector<std::string> &p) {
    const std::string &host = piece(p, 1), &hops = piece(p, 2);
    if (!is_safe_host(host) || !only_digits(hops)) return {};
    return {"traceroute", "-m", hops, host};
}

std::vector<std::string> nslookup_arguments(const std::vector<std::string> &p) {
    const std::string &host = piece(p, 1);
    if (!is_safe_host(host)) return {};
    return {"nslookup", host};
}

constexpr Diagnostic kPing{"ping", "diag_ping", "Invalid Request Order", kNoInterface, true, ping_arguments};
// compat: traceroute answers a bad order with 0, unlike the other two.
constexpr Diagnostic kTraceroute{"traceroute", "diag_traceroute", "Invalid Request", kOk, false,
                                 traceroute_arguments};
constexpr Diagnostic kNslookup{"nslookup", "diag_nslookup", "Invalid Request", kNoInterface, false,
                               nslookup_arguments};
constexpr const Diagnostic *kAll[] = {&kPing, &kTraceroute, &kNslookup};

bool is_id(std::string_view id) {
    return !id.empty() && id.size() <= kMaxIdDigits && id.front() != '0' && only_digits(id);
}

std::string output_prefix(const Diagnostic &d) {
    return quelm::root_path(std::string(kOutputDirectory) + "/" + std::string(d.file_name));
}

// Only for an id that passed is_id.
std::string output_file(const Diagnostic &d, std::string_view id) { return output_prefix(d) + "_" + std::string(id); }

bool is_regular_file(const std::string &path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string base_name(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// Whether process id runs the tool: its program, or a script of that name
// run by the shell (as the host simulators are).
bool runs_tool(std::string_view id, std::string_view tool) {
    quelm::UniqueFile cmdline(std::fopen(("/proc/" + std::string(id) + "/cmdline").c_str(), "re"));
    if (!cmdline) return false;
    char bytes[kLineSize] = {};
    const std::size_t n = std::fread(bytes, 1, sizeof bytes - 1, cmdline.get());
    const std::string_view all(bytes, n);
    const std::string_view first = all.substr(0, all.find('\0'));
    if (base_name(first) == tool) return true;
    if (base_name(first) != "sh" || first.size() + 1 >= all.size()) return false;
    const std::string_view second = all.substr(first.size() + 1);
    return base_name(second.substr(0, second.find('\0'))) == tool;
}

// A test this product started that still runs.
bool is_running(const Diagnostic &d, std::string_view id) {
    return is_id(id) && is_regular_file(output_file(d, id)) && runs_tool(id, d.tool);
}

// Running tests of every handler, counted by their output files.
int running_tests() {
    quelm::UniqueDir dir(::opendir(quelm::root_path(kOutputDirectory).c_str()));
    if (!dir) return 0;
    int running = 0;
    while (const dirent *entry = ::readdir(dir.get())) {
        const std::string_view name(entry->d_name);
        for (const Diagnostic *d : kAll) {
            const std::string prefix = std::string(d->file_name) + "_";
            if (name.starts_with(prefix) && is_running(*d, name.substr(prefix.size()))) ++running;
        }
    }
    return running;
}

int start(const Diagnostic &d, const std::vector<std::string> &pieces) {
    const std::vector<std::string> argv = d.arguments(pieces);
    if (argv.empty()) {
        answer_string("Invalid Requests");
        return kNoInterface;
    }
    if (running_tests() >= QM_MAX_DIAGNOSTICS) {
        answer_string("Too Many Requests");
        return kSystemError;
    }
    const pid_t pid = start_detached(argv, output_prefix(d), QM_BACKGROUND_TIME_LIMIT_S);
    answer_string(std::to_string(pid));
    return kOk;
}

int stop(const Diagnostic &d, std::string_view id) {
    if (is_running(d, id)) ::kill(static_cast<pid_t>(std::stol(std::string(id))), SIGTERM);
    if (is_id(id)) ::unlink(output_file(d, id).c_str());
    answer("\"SUCCESS\"");
    return kOk;
}

int show(const Diagnostic &d, std::string_view id) {
    const bool numeric = is_id(id);
    const std::string file = numeric ? output_file(d, id) : std::string();
    // compat: "Cheking" as log readers in the field match it.
    if (d.logs_show) QM_LOG_print("Cheking files : /proc/%.*s/cmdline %s", static_cast<int>(id.size()),
                                       id.data(), file.c_str());
    std::string json;
    if (is_running(d, id)) {
        if (d.logs_show) QM_LOG_print("reading command 2");
        if (!file_as_json_lines(file, json)) json = "\"Error reading file\"";
    } else if (numeric && is_regular_file(file) && file_as_json_lines(file, json)) {
        if (d.logs_show) QM_LOG_print("reading command 1");
        ::unlink(file.c_str());
    } else {
        json = "\"FINISHED\"";
    }
    answer(json);
    return kOk;
}

int run_diagnostic(const Diagnostic &d, const char *argument) {
    if (argument == nullptr) {
        answer_string("Invalid Requests");
        return kNoInterface;
    }
    const std::vector<std::string> pieces = split_pieces(argument);
    const std::string &order = piece(pieces, 0);
    if (order == "START") return start(d, pieces);
    if (order == "STOP") return stop(d, piece(pieces, 1));
    if (order == "SHOW") return show(d, piece(pieces, 1));
    answer_string(d.bad_order_text);
    return d.bad_order_code;
}

}  // namespace

int diag_ping(const char *, const char *argument) { return run_diagnostic(kPing, argument); }
int diag_traceroute(const char *, const char *argument) { return run_diagnostic(kTraceroute, argument); }
int diag_nslookup(const char *, const char *argument) { return run_diagnostic(kNslookup, argument); }

}  // namespace cgissi::device
