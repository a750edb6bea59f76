// The host platform's C++ surface beside the C library calls: the gateway
// paths it owns, setting up a gateway root, and the bulk text forms of the
// data model used by qmcfg.
//
// Files under the root (every path goes through quelm::root_path):
//   /etc/quelm/config.default/schema.xml    object tree and type codes
//   /etc/quelm/config.default/factory.conf  factory defaults, Name=Value lines
//   /var/quelm/config/config.db             SQLite database: running and saved
//   /var/quelm/config/config.lock           flock'ed by QM_FILE_lock
//   /var/quelm/platform/events.log          reboot, factory and status requests
//   /var/quelm/platform/apply.log           property changes handed to services
#pragma once

#include <string>
#include <string_view>

#include "qm_export.h"

namespace quelm::platform {

inline constexpr std::string_view kDefaultsDir = "/etc/quelm/config.default";
inline constexpr std::string_view kSchemaFile = "/etc/quelm/config.default/schema.xml";
inline constexpr std::string_view kFactoryFile = "/etc/quelm/config.default/factory.conf";
inline constexpr std::string_view kDatabaseFile = "/var/quelm/config/config.db";
// Change counter of the database (see generation.h).
inline constexpr std::string_view kGenerationFile = "/var/quelm/config/generation";
inline constexpr std::string_view kLockFile = "/var/quelm/config/config.lock";
// reboot, factory and status requests (see event_log.h).
inline constexpr std::string_view kEventLogPath = "/var/quelm/platform/events.log";
// Property changes handed to the services ("apply <name>").
inline constexpr std::string_view kApplyLogPath = "/var/quelm/platform/apply.log";

// Directories a gateway root needs.
inline constexpr std::string_view kRootDirectories[] = {
    "/var/quelm/config",
    "/var/quelm/session",
    "/var/quelm/webiad.d",
    "/var/quelm/platform",
    "/var/quelm/wifi.d",
    "/var/tmp",
    "/tmp",
    "/etc/quelm/config.default",
    "/etc/quelm/init.d",
    "/var/mnt",
    "/lib",
};

constexpr std::size_t kMaxDataFileSize = 4 * 1024 * 1024;  // schema, defaults, load files

// Sets up the root named by QUELM_ROOT: creates its directories, installs
// the schema and factory defaults from the source data folder (replacing
// older copies), and creates the database with the factory defaults
// (running and saved) when there is none. An existing database keeps its
// values. Returns 0, or a QM_ERR_ number with a message.
QM_EXPORT int init_root(std::string &message);

// Applies "Name=Value" lines (the factory defaults format) to the running
// configuration in one transaction, creating missing List and Array
// instances; on any error nothing changes. Returns 0 or a QM_ERR_ number
// with a message naming the line.
QM_EXPORT int load_text(std::string_view text, std::string &message);

// "Name=Value\n" for every property of the object (or of the whole running
// configuration when object is empty), in schema order. Returns 0 (also
// for an existing object without properties) or a QM_ERR_ number.
QM_EXPORT int dump_text(std::string_view object, std::string &out);

// Reads a whole file of at most kMaxDataFileSize bytes.
QM_EXPORT bool read_file(const std::string &path, std::string &out);
// The same; on failure message says "cannot read <path>".
QM_EXPORT bool read_file(const std::string &path, std::string &out, std::string &message);

}  // namespace quelm::platform
