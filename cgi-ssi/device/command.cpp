// The device functions' support routines: answers, argument pieces, the
// command runner and the reading of a command's output file.
#include <cstdio>
#include <cstring>
#include <string>

#include "device/device_internal.h"
#include "json/json_writer.h"
#include "qm_device.h"
#include "qm_generic.h"
#include "quelm_chars.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"

namespace cgissi::device {
namespace {

// The name a tool's output file is named after: argv[0] after its last "/".
std::string_view tool_name(std::string_view program) {
    const std::size_t slash = program.rfind('/');
    return slash == std::string_view::npos ? program : program.substr(slash + 1);
}

// Appends the non-empty lines of text to out, each with its newline (the
// last one only when the text ends in one).
void append_non_empty_lines(std::string_view text, std::string &out) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::size_t take = end == std::string_view::npos ? text.size() : end + 1;
        if (text.substr(0, take) != "\n") out.append(text.substr(0, take));
        text.remove_prefix(take);
    }
}

}  // namespace

quelm::ChildOptions tool_output_options() {
    quelm::ChildOptions options;
    options.output_limit = kCommandOutputLimit;
    options.merge_stderr = true;
    return options;
}

bool only_digits(std::string_view text) {
    for (const char c : text) {
        if (!quelm::is_digit(c)) return false;
    }
    return true;
}

void answer(std::string_view json) { tfprintf(nullptr, "%.*s", static_cast<int>(json.size()), json.data()); }

void answer_string(std::string_view text) {
    std::string json = "\"";
    json.append(json::escape_strict(text)).push_back('"');
    answer(json);
}

std::vector<std::string> split_pieces(std::string_view argument) {
    std::vector<std::string> pieces;
    quelm::split(argument, '|', [&](std::string_view piece) {
        pieces.emplace_back(piece.substr(0, QM_ARGUMENT_PIECE_SIZE - 1));
    });
    return pieces;
}

bool is_safe_host(std::string_view host) {
    if (host.empty() || host.front() == '-') return false;
    for (const char c : host) {
        if (!quelm::is_ascii_alnum(c) && c != '.' && c != ':' && c != '-' && c != '_') return false;
    }
    return true;
}

int run_command(const std::vector<std::string> &argv, std::string &out) {
    out.clear();
    std::string output;
    const quelm::ChildResult result = quelm::run_child(argv, output, tool_output_options());
    // The tool's exit status is not looked at: its output says what happened.
    const std::string file = quelm::root_path("/var/tmp/" + std::string(tool_name(argv.at(0))) + "_output.txt");
    quelm::UniqueFile stream(std::fopen(file.c_str(), "we"));
    if (!stream) return kOpenError;
    std::fwrite(output.data(), 1, output.size(), stream.get());
    append_non_empty_lines(output, out);
    if (result.truncated) {
        if (!out.empty() && out.back() != '\n') out.push_back('\n');
        out.append(kTruncatedMarker);
    }
    return kOk;
}

bool file_as_json_lines(const std::string &path, std::string &json) {
    quelm::UniqueFile stream(std::fopen(path.c_str(), "re"));
    if (!stream) return false;
    std::string text;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, stream.get())) > 0;) {
        if (text.size() + n > kCommandOutputLimit) {
            text.append(chunk, kCommandOutputLimit - text.size()).append(kTruncatedMarker);
            break;
        }
        text.append(chunk, n);
    }
    // compat: pages split the answer at "|", one piece per line of output.
    for (char &c : text) {
        if (c == '\n') c = '|';
    }
    json = "\"" + json::escape_strict(text) + "\"";
    return true;
}

}  // namespace cgissi::device

using namespace cgissi::device;

extern "C" {

int get_argument(char *out, const char *text, int first) {
    // The split continued by later calls, as strtok does: process-wide
    // because the C interface keeps no handle.
    static std::string pending;
    static bool has_pending = false;
    return quelm::guarded(-1, __func__, [&] {
        if (first != 0) {
            pending = text != nullptr ? text : "";
            has_pending = text != nullptr;
        }
        if (!has_pending || out == nullptr) return -1;
        const std::size_t bar = pending.find('|');
        const std::string piece = pending.substr(0, bar);
        const std::size_t n = std::min(piece.size(), std::size_t{QM_ARGUMENT_PIECE_SIZE - 1});
        std::memcpy(out, piece.data(), n);
        out[n] = '\0';
        if (bar == std::string::npos) {
            has_pending = false;
        } else {
            pending.erase(0, bar + 1);
        }
        return 0;
    });
}

int run_cmd(const char *command, char *out, size_t out_size) {
    return quelm::guarded(static_cast<int>(kSystemError), __func__, [&] {
        if (out != nullptr && out_size > 0) out[0] = '\0';
        std::vector<std::string> argv;
        quelm::split(command != nullptr ? command : "", ' ', [&](std::string_view word) {
            if (!word.empty()) argv.emplace_back(word);
        });
        if (argv.empty()) return static_cast<int>(kSystemError);
        std::string collected;
        const int rc = run_command(argv, collected);
        if (out != nullptr && out_size > 0) {
            const std::size_t n = std::min(collected.size(), out_size - 1);
            std::memcpy(out, collected.data(), n);
            out[n] = '\0';
        }
        return rc;
    });
}

pid_t exec_command(char *const argv[], const char *prefix) {
    return quelm::guarded(static_cast<pid_t>(-1), __func__, [&] {
        std::vector<std::string> args;
        for (std::size_t i = 0; argv != nullptr && argv[i] != nullptr; ++i) args.emplace_back(argv[i]);
        if (args.empty()) return static_cast<pid_t>(-1);
        const std::string output = prefix != nullptr ? quelm::root_path(prefix) : std::string();
        return start_detached(args, output, QM_BACKGROUND_TIME_LIMIT_S);
    });
}

int read_command_output(void *, const char *path) {
    return quelm::guarded(static_cast<int>(kReadError), __func__, [&] {
        std::string json;
        if (path == nullptr || !file_as_json_lines(quelm::root_path(path), json)) {
            answer("\"Error reading file\"");
            return static_cast<int>(kReadError);
        }
        answer(json);
        return static_cast<int>(kOk);
    });
}

char itoh(int digit) { return "0123456789ABCDEF"[digit & 0xF]; }

int atoh(const char *text, char *out, size_t size) {
    if (text == nullptr || out == nullptr) return 1;
    if (size == 0) return 0;
    const std::string hex = quelm::hex_encode(text, quelm::HexCase::upper);
    // Whole bytes only, and room for the terminating zero.
    const std::size_t n = std::min(hex.size(), (size - 1) & ~std::size_t{1});
    std::memcpy(out, hex.data(), n);
    out[n] = '\0';
    return 0;
}

}  // extern "C"
