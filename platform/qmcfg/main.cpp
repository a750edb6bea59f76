// qmcfg: shell access to the gateway's data model under QUELM_ROOT.
//
// Commands that change the configuration (set, create, delete, reset,
// load) take the configuration lock, change the running configuration and
// then save it (commit), so that a later revert by the web back end does
// not drop them; with -n they leave it unsaved. Exit status: 0 success,
// 1 failure, 2 usage.
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

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr const char *kUsage =
    "usage: qmcfg [-n] COMMAND [ARGUMENTS]\n"
    "  init                      set up the root named by QUELM_ROOT (keeps existing values)\n"
    "  get OBJECT PROPERTY       print a value\n"
    "  set OBJECT PROPERTY VALUE change a value\n"
    "  type NAME                 print the schema type code of an object or property\n"
    "  count OBJECT              print the instances of a List, the count of an Array\n"
    "  create OBJECT             create an instance, e.g. User_4\n"
    "  delete OBJECT             delete an instance and everything below it\n"
    "  reset OBJECT [1]          put back factory values (1: also below the object)\n"
    "  dump [OBJECT]             print Name=Value lines\n"
    "  load FILE                 apply Name=Value lines (\"-\": standard input), all or nothing\n"
    "  commit | revert | factory save, restore saved, restore factory defaults\n"
    "  -n: leave changes in the running configuration without saving them\n";

const char *error_text(int code) {
    switch (code) {
    case QM_ERR_UNKNOWN_OBJECT: return "unknown name, or not the kind of name this command takes";
    case QM_ERR_BAD_VALUE: return "value does not fit the property's type";
    case QM_ERR_STORAGE: return "the configuration database failed";
    case QM_ERR_EXISTS: return "instance already exists";
    case QM_ERR_NOT_INSTANCE: return "not an instance of a List or Array (Arrays change at their end only)";
    case QM_ERR_NOTHING: return "nothing stored under that name";
    case QM_ERR_LOCKED: return "the configuration is locked by another process";
    case QM_ERR_NOT_INIT: return "the root is not initialised (run qmcfg init)";
    default: return "failed";
    }
}

int fail(const char *what, int code) {
    std::fprintf(stderr, "qmcfg: %s: %s\n", what, error_text(code));
    return kExitFailure;
}

int usage() {
    std::fputs(kUsage, stderr);
    return kExitUsage;
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

// Runs a change under the configuration lock and saves it unless -n.
template <typename F>
int change(const char *what, bool save, F &&apply) {
    if (int rc = QM_FILE_lock()) return fail(what, rc);
    int rc = apply();
    if (rc == 0 && save) rc = QM_FILE_commit(0);
    QM_FILE_unlock();
    return rc == 0 ? 0 : fail(what, rc);
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

std::string arg_text(const std::vector<std::string_view> &args, std::size_t i) { return std::string(args[i]); }

// get, type, count and dump: print what they read. Nothing for another command.
std::optional<int> run_read(const std::vector<std::string_view> &args) {
    std::string_view cmd = args[0];
    std::size_t n = args.size() - 1;
    auto arg = [&](std::size_t i) { return arg_text(args, i); };
    auto print = [](const char *what, quelm::MallocString text) {
        if (!text) return fail(what, QM_err_get());
        std::printf("%s\n", text.get());
        return 0;
    };
    if (cmd == "get") {
        if (n != 2) return usage();
        return print("get", quelm::MallocString(QM_DAT_getobjproperty(arg(1).c_str(), arg(2).c_str())));
    }
    if (cmd == "type") {
        if (n != 1) return usage();
        quelm::MallocString path(QM_DAT_objname2xmlpath(arg(1).c_str()));
        int32_t type = 0;
        if (!path) return fail("type", QM_err_get());
        if (int rc = QM_XML_gettype(path.get(), &type)) return fail("type", rc);
        std::printf("%d\n", static_cast<int>(type));
        return 0;
    }
    if (cmd == "count") {
        if (n != 1) return usage();
        return print("count", quelm::MallocString(QM_DAT_getobjcount(arg(1).c_str())));
    }
    if (cmd == "dump") {
        if (n > 1) return usage();
        std::string out;
        if (int rc = quelm::platform::dump_text(n == 1 ? args[1] : std::string_view(), out)) return fail("dump", rc);
        std::fwrite(out.data(), 1, out.size(), stdout);
        return 0;
    }
    return std::nullopt;
}

// The commands that change the configuration.
int run_change(const std::vector<std::string_view> &args, bool save) {
    std::string_view cmd = args[0];
    std::size_t n = args.size() - 1;
    auto arg = [&](std::size_t i) { return arg_text(args, i); };
    if (cmd == "set") {
        if (n != 3) return usage();
        return change("set", save,
                      [&] { return QM_DAT_setobjproperty(arg(1).c_str(), arg(2).c_str(), arg(3).c_str(), 0); });
    }
    if (cmd == "create" || cmd == "delete") {
        if (n != 1) return usage();
        bool create = cmd == "create";
        return change(create ? "create" : "delete", save, [&] {
            return create ? QM_DAT_createobject(arg(1).c_str(), 0) : QM_DAT_deleteobject(arg(1).c_str(), 0);
        });
    }
    if (cmd == "reset") {
        if (n != 1 && n != 2) return usage();
        if (n == 2 && args[2] != "0" && args[2] != "1") return usage();
        int deep = n == 2 && args[2] == "1";
        return change("reset", save, [&] { return QM_DAT_resetobjdata(arg(1).c_str(), deep); });
    }
    if (cmd == "load") {
        if (n != 1) return usage();
        std::string text;
        if (!read_input(args[1].data(), text)) {
            std::fprintf(stderr, "qmcfg: load: cannot read %s\n", args[1].data());
            return kExitFailure;
        }
        std::string message;
        int rc = change("load", save, [&] { return quelm::platform::load_text(text, message); });
        if (rc != 0 && !message.empty()) std::fprintf(stderr, "qmcfg: load: %s\n", message.c_str());
        return rc;
    }
    if (n != 0) return usage();
    if (cmd == "commit") return change("commit", false, [] { return QM_FILE_commit(0); });
    if (cmd == "revert") return change("revert", false, [] { return QM_FILE_revert(); });
    return change("factory", false, [] { return QM_FILE_factory(2); });
}

int run(const std::vector<std::string_view> &args, bool save) {
    std::string_view cmd = args[0];
    if (cmd == "init") {
        if (args.size() != 1) return usage();
        std::string message;
        if (quelm::platform::init_root(message) != 0) {
            std::fprintf(stderr, "qmcfg: init: %s\n", message.c_str());
            return kExitFailure;
        }
        return 0;
    }

    static constexpr std::string_view kKnown[] = {"get",   "set",  "type", "count",  "create", "delete",
                                                  "reset", "dump", "load", "commit", "revert", "factory"};
    bool known = false;
    for (std::string_view k : kKnown) known = known || k == cmd;
    if (!known) {
        std::fprintf(stderr, "qmcfg: unknown command '%.*s'\n", static_cast<int>(cmd.size()), cmd.data());
        return usage();
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
    if (!args.empty() && args[0] == "-n") {
        save = false;
        args.erase(args.begin());
    }
    if (args.empty()) return usage();
    try {
        int rc = run(args, save);
        if (std::fflush(stdout) != 0) return kExitFailure;
        return rc;
    } catch (...) {
        std::fputs("qmcfg: out of memory\n", stderr);
        return kExitFailure;
    }
}
