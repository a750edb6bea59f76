// Running one registry entry: a library symbol loaded for the call and
// closed after it, or (functions only) a command.
//
// Commands never see a shell: the words of the entry's "call" are the
// program and its first arguments, followed by name, method and parameter
// as three arguments of their own, so no request text is ever parsed as a
// command line.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "qm_config.h"
#include "qm_plugin.h"
#include "quelm_chars.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"

namespace cgissi::plugins {
namespace {

// Buffers of the registry's "call" parts, terminator included: names that do
// not fit are refused, never cut.
constexpr std::size_t kLibraryNameSize = 32;
constexpr std::size_t kSymbolNameSize = 32;
constexpr std::size_t kFunctionPathSize = 64;  // "/lib/" + library name
constexpr std::size_t kPluginPathSize = 68;
constexpr std::string_view kLibraryDir = "/lib/";
static_assert(kLibraryDir.size() + kLibraryNameSize <= kFunctionPathSize);
static_assert(kFunctionPathSize <= kPluginPathSize);

constexpr int kNotUsable = 1;                // registered, but its library or symbol is not usable
constexpr int kCommandTimeoutMs = 10'000;    // a command entry is killed after this
constexpr const char *kDefaultPath = "/usr/sbin:/usr/bin:/sbin:/bin";

using Library = std::unique_ptr<void, quelm::CDeleter<dlclose>>;

// "library!symbol" of an entry, checked.
struct LibraryCall {
    std::string symbol;
    std::string path;  // gateway path: "/lib/" + library
};

// A symbol together with the library that holds it; the library is closed
// when this goes.
struct LoadedSymbol {
    Library library;
    void *symbol = nullptr;
};

const char *dl_error_text() {
    const char *text = dlerror();
    return text != nullptr ? text : "";
}

// Splits "library!symbol" at its first "!". A library part that is not a
// plain file name in /lib, or a part too long for its buffer, is refused with
// a log line.
std::optional<LibraryCall> split_library_call(std::string_view call, const char *name) {
    const std::size_t bang = call.find('!');
    const std::string_view library = call.substr(0, bang);
    const std::string_view symbol = call.substr(bang + 1);
    const char *refusal = nullptr;
    if (library.find('/') != std::string_view::npos || library.find("..") != std::string_view::npos) {
        refusal = "library is not a file name in /lib";
    } else if (library.size() >= kLibraryNameSize) {
        refusal = "library name too long";
    } else if (symbol.size() >= kSymbolNameSize) {
        refusal = "symbol name too long";
    }
    if (refusal != nullptr) {
        QM_LOG_print("plugin call '%.*s' for %s refused: %s", static_cast<int>(call.size()), call.data(), name,
                     refusal);
        return std::nullopt;
    }
    return LibraryCall{std::string(symbol), std::string(kLibraryDir).append(library)};
}

// Opens the library of "library!symbol" and finds its symbol; logs and
// returns nullopt when the name is refused or either fails. Plugin and
// function calls word their messages apart.
std::optional<LoadedSymbol> load_symbol(std::string_view call_text, const char *name, bool plugin) {
    const std::optional<LibraryCall> parts = split_library_call(call_text, name);
    if (!parts) return std::nullopt;
    const LibraryCall &call = *parts;
    const std::string mapped = quelm::root_path(call.path);
    struct stat status {};
    if (::lstat(mapped.c_str(), &status) != 0) {
        QM_LOG_print("can't open %s for %s\n", call.path.c_str(), name);
        return std::nullopt;
    }
    dlerror();
    Library library(dlopen(mapped.c_str(), RTLD_LAZY | RTLD_GLOBAL));
    if (!library) {
        // compat: these name the symbol, not the library, as log readers know them.
        if (plugin) {
            QM_LOG_print("can't open plugin %s : %s\n", call.symbol.c_str(), dl_error_text());
        } else {
            QM_LOG_print("can't open %s : %s\n", call.symbol.c_str(), dl_error_text());
        }
        return std::nullopt;
    }
    void *symbol = dlsym(library.get(), call.symbol.c_str());
    if (symbol == nullptr) {
        if (plugin) {
            QM_LOG_print("can't find plugin %s in %s : %s\n", call.symbol.c_str(), call.path.c_str(), dl_error_text());
        } else {
            QM_LOG_print("can't find %s in %s : %s\n", call.symbol.c_str(), call.path.c_str(), dl_error_text());
        }
        return std::nullopt;
    }
    return LoadedSymbol{std::move(library), symbol};
}

// The program a command word names: an absolute path is a gateway path
// (mapped under the root), a bare name is searched in PATH as the shell
// would, anything else is taken as it is.
std::string resolve_program(const std::string &word) {
    if (word.starts_with('/')) return quelm::root_path(word);
    if (word.find('/') != std::string::npos) return word;
    const char *search = std::getenv("PATH");
    std::string found = word;
    quelm::split(search != nullptr && search[0] != '\0' ? search : kDefaultPath, ':', [&](std::string_view dir) {
        std::string candidate = std::string(dir.empty() ? "." : dir) + "/" + word;
        if (::access(candidate.c_str(), X_OK) != 0) return true;
        found = std::move(candidate);
        return false;
    });
    return found;
}

// Runs a command entry; returns the status as system() would.
int run_command(const char *name, const char *method, const char *param, std::string_view call) {
    std::vector<std::string> argv;
    std::string word;
    for (char c : call) {
        if (!quelm::is_c_space(c)) {
            word.push_back(c);
        } else if (!word.empty()) {
            argv.push_back(std::move(word));
            word.clear();
        }
    }
    if (!word.empty()) argv.push_back(std::move(word));
    if (argv.empty()) {
        QM_LOG_print("plugin call for %s refused: no command", name);
        return kNotUsable;
    }
    argv[0] = resolve_program(argv[0]);
    const std::string parameter = param != nullptr ? param : "";
    argv.insert(argv.end(), {name, method, parameter});

    quelm::ChildOptions options;
    options.output_limit = 0;  // what the command prints is not part of any answer
    options.timeout_ms = kCommandTimeoutMs;
    options.extra_env = {std::string("KEYWORD=") + name, "PARAM=" + parameter};
    const quelm::ChildResult result = quelm::run_child(argv, std::function<void(std::string_view)>(), options);
    if (result.timed_out) QM_LOG_print("command for %s killed after %d ms", name, kCommandTimeoutMs);
    return result.wait_status;
}

int call_plugin(const char *name, int argc, char **argv, const char *call) {
    // compat: a plugin entry without "!" yields 1 without a message.
    if (call == nullptr || std::strchr(call, '!') == nullptr) return kNotUsable;
    const std::optional<LoadedSymbol> loaded = load_symbol(call, name, true);
    if (!loaded) return kNotUsable;
    return reinterpret_cast<qm_plugin_cgi_entry>(loaded->symbol)(argc, argv);
}

int call_function(const char *name, const char *method, const char *param, const char *call) {
    if (call == nullptr) {
        QM_LOG_print("plugin call for %s refused: no command", name);
        return kNotUsable;
    }
    if (std::strchr(call, '!') == nullptr) return run_command(name, method, param, call);
    const std::optional<LoadedSymbol> loaded = load_symbol(call, name, false);
    if (!loaded) return kNotUsable;
    return reinterpret_cast<qm_plugin_function_entry>(loaded->symbol)(name, method, param);
}

}  // namespace
}  // namespace cgissi::plugins

extern "C" {

int call_external_plugin(const char *name, const char *, int argc, char **argv, const char *call) {
    return quelm::guarded(cgissi::plugins::kNotUsable, __func__, [&] {
        return cgissi::plugins::call_plugin(name != nullptr ? name : "", argc, argv, call);
    });
}

int call_external_function(const char *name, const char *method, const char *param, const char *call) {
    return quelm::guarded(cgissi::plugins::kNotUsable, __func__, [&] {
        return cgissi::plugins::call_function(name != nullptr ? name : "", method != nullptr ? method : "", param,
                                              call);
    });
}
}
