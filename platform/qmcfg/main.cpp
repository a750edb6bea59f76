// qmcfg: shell access to the gateway's data model under QUELM_ROOT.
//
// Commands that change the configuration (set, create, delete, reset,
// load) take the configuration lock, change the running configuration and
// then save it (commit), so that a later revert by the web back end does
// not drop them; with -n they leave it unsaved. Names are accepted in one
// word (Device_Hostname) or in parts (Device Hostname). Without QUELM_ROOT
// only --system lets a command change the real configuration. Exit status:
// 0 success, 1 failure, 2 usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "platform.h"
#include "qm_config.h"
#include "quelm_owned.h"

#include "changes.h"
#include "explain.h"
#include "help.h"

namespace {

using qmcfg::error_text;
using qmcfg::explain;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int fail(const char *what, int code) {
    std::fprintf(stderr, "qmcfg: %s: %s\n", what, error_text(code));
    return kExitFailure;
}

// A failure that concerns one name (and value): the message says which.
int fail_named(const char *what, std::string_view name, int code, std::string_view value = {}) {
    if (code == QM_ERR_LOCKED || code == QM_ERR_STORAGE || code == QM_ERR_NOT_INIT) return fail(what, code);
    std::fprintf(stderr, "qmcfg: %s: %s\n", what, explain(name, code, value).c_str());
    return kExitFailure;
}

int usage() {
    qmcfg::print_usage(stderr);
    return kExitUsage;
}

// The arguments of a command with every name in one word: "Device Hostname"
// and "Device_Hostname" name the same property. names is how many leading
// arguments make up the name when it is written in parts.
struct Named {
    std::string name;
    std::vector<std::string_view> rest;
};

std::optional<Named> join_name(const std::vector<std::string_view> &args, std::size_t one_word_count,
                               std::size_t parts) {
    std::size_t n = args.size() - 1;
    Named out;
    std::size_t used = n == one_word_count ? 1 : n == one_word_count + parts - 1 ? parts : 0;
    if (used == 0) return std::nullopt;
    for (std::size_t i = 1; i <= used; ++i) {
        if (i > 1) out.name += '_';
        out.name += args[i];
    }
    out.rest.assign(args.begin() + 1 + static_cast<std::ptrdiff_t>(used), args.end());
    return out;
}

// Object and property of a full property name (split at its last "_").
std::pair<std::string, std::string> split_property(const std::string &name) {
    std::size_t cut = name.rfind('_');
    if (cut == std::string::npos) return {name, ""};
    return {name.substr(0, cut), name.substr(cut + 1)};
}

// Library open for the command's duration.
class Library {
public:
    Library() : code_(QM_Cfg_Init(1)) {}
    ~Library() { QM_Cfg_Free(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    int code() const { return code_; }

private:
    int code_;
};

// Runs a change under the configuration lock and saves it unless -n. The
// failure message names what and, when given, the value.
template <typename F>
int change(const char *what, std::string_view name, bool save, F &&apply, std::string_view value = {}) {
    if (int rc = QM_FILE_lock()) return fail(what, rc);
    int rc = apply();
    if (rc == 0 && save) rc = QM_FILE_commit(0);
    QM_FILE_unlock();
    if (rc != 0) return name.empty() ? fail(what, rc) : fail_named(what, name, rc, value);
    return 0;
}

bool read_input(const char *path, std::string &out) {
    if (std::strcmp(path, "-") != 0) return quelm::platform::read_file(path, out);
    char buffer[8192];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
        out.append(buffer, n);
        if (out.size() > quelm::platform::kMaxDataFileSize) return false;
    }
    return std::ferror(stdin) == 0;
}

int print_text(const char *what, const std::string &name, quelm::MallocString text) {
    if (!text) return fail_named(what, name, QM_err_get());
    std::printf("%s\n", text.get());
    return 0;
}

int run_get(const std::vector<std::string_view> &args) {
    std::optional<Named> named = join_name(args, 1, 2);
    if (!named || named->name.find('_') == std::string::npos) return usage();
    auto [object, property] = split_property(named->name);
    return print_text("get", named->name,
                      quelm::MallocString(QM_DAT_getobjproperty(object.c_str(), property.c_str())));
}

int run_type(const std::string &name) {
    quelm::MallocString path(QM_DAT_objname2xmlpath(name.c_str()));
    int32_t type = 0;
    if (!path) return fail_named("type", name, QM_err_get());
    if (int rc = QM_XML_gettype(path.get(), &type)) return fail_named("type", name, rc);
    std::printf("%d\n", static_cast<int>(type));
    return 0;
}

int run_dump(const std::string &object) {
    std::string out;
    if (int rc = quelm::platform::dump_text(object, out)) return fail_named("dump", object, rc);
    std::fwrite(out.data(), 1, out.size(), stdout);
    return 0;
}

int run_changes() {
    std::string out, message;
    if (qmcfg::list_changes(out, message) != 0) {
        std::fprintf(stderr, "qmcfg: changes: %s\n", message.c_str());
        return kExitFailure;
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return 0;
}

// get, type, count, dump and changes: print what they read. Nothing for
// another command.
std::optional<int> run_read(const std::vector<std::string_view> &args) {
    std::string_view cmd = args[0];
    if (cmd == "get") return run_get(args);
    if (cmd == "changes") return args.size() == 1 ? run_changes() : usage();
    if (cmd != "type" && cmd != "count" && cmd != "dump") return std::nullopt;
    if (cmd == "dump" && args.size() == 1) return run_dump("");
    std::optional<Named> named = join_name(args, 1, 2);
    if (!named) return usage();
    if (cmd == "type") return run_type(named->name);
    if (cmd == "dump") return run_dump(named->name);
    return print_text("count", named->name, quelm::MallocString(QM_DAT_getobjcount(named->name.c_str())));
}

int run_set(const std::vector<std::string_view> &args, bool save) {
    std::optional<Named> named = join_name(args, 2, 2);
    if (!named || named->name.find('_') == std::string::npos) return usage();
    auto [object, property] = split_property(named->name);
    std::string value(named->rest[0]);
    int rc = change("set", named->name, save,
                    [&] { return QM_DAT_setobjproperty(object.c_str(), property.c_str(), value.c_str(), 0); },
                    value);
    if (rc == 0) {
        std::printf(save ? "%s set and committed\n" : "%s set in the running configuration only (-n: not saved)\n",
                    named->name.c_str());
    }
    return rc;
}

int run_load(const std::vector<std::string_view> &args, bool save) {
    if (args.size() != 2) return usage();
    std::string file(args[1]), text, message;
    if (!read_input(file.c_str(), text)) {
        std::fprintf(stderr, "qmcfg: load: cannot read %s\n", file.c_str());
        return kExitFailure;
    }
    if (int rc = QM_FILE_lock()) return fail("load", rc);
    int rc = quelm::platform::load_text(text, message);
    if (rc == 0 && save) rc = QM_FILE_commit(0);
    QM_FILE_unlock();
    if (rc == 0) return 0;
    // The file's line and its cause, alone: the library's code adds nothing.
    if (message.empty()) return fail("load", rc);
    std::fprintf(stderr, "qmcfg: load: %s %s\n", file == "-" ? "standard input" : file.c_str(), message.c_str());
    return kExitFailure;
}

// The commands that change the configuration.
int run_change(const std::vector<std::string_view> &args, bool save) {
    std::string_view cmd = args[0];
    std::size_t n = args.size() - 1;
    if (cmd == "set") return run_set(args, save);
    if (cmd == "load") return run_load(args, save);
    if (cmd == "create" || cmd == "delete") {
        std::optional<Named> named = join_name(args, 1, 2);
        if (!named) return usage();
        bool create = cmd == "create";
        const char *name = named->name.c_str();
        return change(create ? "create" : "delete", named->name, save,
                      [&] { return create ? QM_DAT_createobject(name, 0) : QM_DAT_deleteobject(name, 0); });
    }
    if (cmd == "reset") {
        if (n != 1 && n != 2) return usage();
        if (n == 2 && args[2] != "0" && args[2] != "1") return usage();
        int deep = n == 2 && args[2] == "1";
        std::string name(args[1]);
        return change("reset", name, save, [&] { return QM_DAT_resetobjdata(name.c_str(), deep); });
    }
    if (n != 0) return usage();
    if (cmd == "commit") return change("commit", "", false, [] { return QM_FILE_commit(0); });
    if (cmd == "revert") return change("revert", "", false, [] { return QM_FILE_revert(); });
    return change("factory", "", false, [] { return QM_FILE_factory(2); });
}

bool changes_configuration(std::string_view cmd) {
    return cmd != "get" && cmd != "type" && cmd != "count" && cmd != "dump" && cmd != "changes" && cmd != "help";
}

// Without QUELM_ROOT every path is the gateway's own: a change there needs
// --system, so that a forgotten export never rewrites a PC's /var/quelm.
bool root_allows(std::string_view cmd, bool system) {
    const char *root = std::getenv("QUELM_ROOT");
    if (system || (root != nullptr && *root != '\0') || !changes_configuration(cmd)) return true;
    std::fprintf(stderr,
                 "qmcfg: %.*s: QUELM_ROOT is not set, so this would change the real /var/quelm;\n"
                 "  set it (export QUELM_ROOT=$PWD/run/root) or add --system\n",
                 static_cast<int>(cmd.size()), cmd.data());
    return false;
}

int run_help(const std::vector<std::string_view> &args) {
    if (args.size() == 1) {
        qmcfg::print_usage(stdout);
        return 0;
    }
    if (args.size() == 2 && qmcfg::print_command_help(args[1])) return 0;
    std::fprintf(stderr, "qmcfg: help: no command '%.*s'\n", static_cast<int>(args.back().size()),
                 args.back().data());
    return usage();
}

int run(const std::vector<std::string_view> &args, bool save, bool system) {
    std::string_view cmd = args[0];
    if (cmd == "help" || cmd == "--help" || cmd == "-h") return run_help(args);
    if (!qmcfg::is_command(cmd)) {
        std::fprintf(stderr, "qmcfg: unknown command '%.*s' (qmcfg --help lists them)\n", static_cast<int>(cmd.size()),
                     cmd.data());
        return usage();
    }
    if (!root_allows(cmd, system)) return kExitFailure;
    if (cmd == "init") {
        if (args.size() != 1) return usage();
        std::string message;
        if (quelm::platform::init_root(message) != 0) {
            std::fprintf(stderr, "qmcfg: init: %s\n", message.c_str());
            return kExitFailure;
        }
        return 0;
    }
    Library library;
    if (library.code() != 0) return fail("cannot open the configuration", library.code());
    if (std::optional<int> rc = run_read(args)) return *rc;
    return run_change(args, save);
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string_view> args(argv + 1, argv + argc);
    bool save = true;
    bool system = false;
    while (!args.empty() && (args[0] == "-n" || args[0] == "--system")) {
        (args[0] == "-n" ? save : system) = args[0] != "-n";
        args.erase(args.begin());
    }
    if (args.empty()) return usage();
    try {
        int rc = run(args, save, system);
        if (std::fflush(stdout) != 0) return kExitFailure;
        return rc;
    } catch (...) {
        std::fputs("qmcfg: out of memory\n", stderr);
        return kExitFailure;
    }
}
