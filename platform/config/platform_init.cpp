// Setting up a gateway root: directories, installed definitions, and the
// database with the factory defaults.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "library_state.h"
#include "platform.h"
#include "qm_config.h"
#include "quelm_owned.h"
#include "quelm_root.h"

#ifndef QUELM_DATA_DIR
#error "QUELM_DATA_DIR must name the folder of schema.xml and factory.conf"
#endif

namespace quelm::platform {
namespace {

constexpr std::string_view kDataDir = QUELM_DATA_DIR;
constexpr std::string_view kDatabaseBuildSuffix = ".new";

std::string errno_text() { return std::strerror(errno); }

// mkdir -p of an already mapped path.
bool make_directories(const std::string &path, std::string &message) {
    for (std::size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/') continue;
        std::string part = path.substr(0, pos);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            message = "cannot create " + part + ": " + errno_text();
            return false;
        }
        struct stat st {};
        if (::stat(part.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            message = part + " is not a directory";
            return false;
        }
    }
    return true;
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Copies source over target through a temporary file and a rename, so a
// reader sees the old or the new file, never a part.
bool install_file(const std::string &source, const std::string &target, std::string &message,
                  mode_t mode = 0644) {
    std::string data;
    if (!read_file(source, data, message)) return false;
    std::string temp = target + ".XXXXXX";
    UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
    if (!fd) {
        message = "cannot create a file beside " + target + ": " + errno_text();
        return false;
    }
    bool ok = ::fchmod(fd.get(), mode) == 0 && write_all(fd.get(), data) && ::fsync(fd.get()) == 0;
    fd.reset();
    if (!ok || ::rename(temp.c_str(), target.c_str()) != 0) {
        message = "cannot write " + target + ": " + errno_text();
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

// The host simulators of the gateway's tools (platform/sim/root/<gateway path>)
// go to the same paths under the root, executables staying executable. Only
// into a root: on a real gateway the real tools are there.
bool install_simulators(std::string &message) {
    namespace fs = std::filesystem;
    if (quelm::root_prefix().empty()) return true;
    const fs::path sim_dir = fs::path(std::string(kDataDir)).parent_path() / "sim" / "root";
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(sim_dir, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        if (!it->is_regular_file()) continue;
        const std::string gateway_path = "/" + fs::relative(it->path(), sim_dir).string();
        const std::string target = quelm::root_path(gateway_path);
        if (!make_directories(fs::path(target).parent_path().string(), message)) return false;
        const bool executable = (it->status().permissions() & fs::perms::owner_exec) != fs::perms::none;
        if (!install_file(it->path().string(), target, message, executable ? 0755 : 0644)) return false;
    }
    return true;
}

void remove_database_files(const std::string &path) {
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((path + suffix).c_str());
}

// Builds the database beside its final name and renames it into place, so
// that no process ever opens a database without its defaults.
int create_database(const std::string &path, const Schema &schema, const FactoryDefaults &factory,
                    std::string &message) {
    std::string building = path + std::string(kDatabaseBuildSuffix);
    remove_database_files(building);
    int code = QM_ERR_NONE;
    {
        auto db = Database::open(building, true, message);
        if (!db) {
            code = QM_ERR_STORAGE;
        } else {
            DataModel model(schema, *db, factory);
            code = model.factory(message);
            if (code != QM_ERR_NONE) message = quelm::root_path(kFactoryFile) + ": " + message;
        }
    }  // closed: the WAL is checkpointed into the file
    if (code == QM_ERR_NONE && ::rename(building.c_str(), path.c_str()) != 0) {
        message = "cannot create " + path + ": " + errno_text();
        code = QM_ERR_STORAGE;
    }
    if (code != QM_ERR_NONE) remove_database_files(building);
    return code;
}

}  // namespace

int init_root(std::string &message) {
    try {
        for (std::string_view dir : kRootDirectories)
            if (!make_directories(quelm::root_path(dir), message)) return QM_ERR_STORAGE;
        for (std::string_view file : {kSchemaFile, kFactoryFile}) {
            std::string_view base = file.substr(file.rfind('/'));
            if (!install_file(std::string(kDataDir) + std::string(base), quelm::root_path(file), message))
                return QM_ERR_STORAGE;
        }
        if (!install_simulators(message)) return QM_ERR_STORAGE;
        std::unique_ptr<Schema> schema;
        std::unique_ptr<FactoryDefaults> factory;
        if (int code = detail::load_definitions(schema, factory, message)) return code;
        // A state opened before may hold older definitions.
        detail::drop_state();

        // Two inits at once must not both build the database.
        FileLock lock;
        if (int code = lock.acquire(quelm::root_path(kLockFile), lock_wait_from_environment())) {
            message = code == QM_ERR_LOCKED ? "the configuration is locked by another process"
                                            : "cannot open " + quelm::root_path(kLockFile);
            return code;
        }
        std::string db_path = quelm::root_path(kDatabaseFile);
        if (::access(db_path.c_str(), F_OK) == 0) {
            // Keep the values; just make sure the database opens.
            return Database::open(db_path, false, message) ? QM_ERR_NONE : QM_ERR_STORAGE;
        }
        return create_database(db_path, *schema, *factory, message);
    } catch (...) {
        message = "out of memory";
        return QM_ERR_STORAGE;
    }
}

}  // namespace quelm::platform
