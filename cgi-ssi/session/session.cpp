// Browser session store: one small text file per session under
// /var/quelm/session, named "<realm>_<token>", whose modification time is the
// session's last activity. Several responder processes share the directory
// without locks: files are created by mkstemp, entries are appended with one
// write, and entries are removed by writing a copy and renaming it over.
#include "session/session_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "cgic.h"
#include "qm_config.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_kept_file.h"
#include "quelm_log.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "request/variables.h"
#include "session/token_name.h"

extern "C" {

const char *QM_SessionRealm = nullptr;
char QM_SessionName[QM_SESSION_NAME_SIZE] = "";
char *QM_SessionToken = nullptr;
char QM_SessionFullPath[QM_SESSION_FULL_PATH_SIZE] = "";
int QM_SessionMaxLimit = 0;
int QM_CurrentSession = 0;
char QM_HttpServerId[QM_HTTP_SERVER_ID_SIZE] = "";
}

namespace cgissi::session {
namespace {

constexpr const char *kSessionPath = "/var/quelm/session";
constexpr int kSessionFlushTime = 1200;  // seconds of idle time
constexpr std::size_t kPathSize = 128;   // gateway path of a session file
constexpr std::size_t kCreatePathSize = 1024;
constexpr std::size_t kAddressSize = 64;
constexpr std::size_t kUserAgentSize = 1024;
// A session file holds a handful of short lines; anything larger is not ours.
constexpr off_t kMaxSessionFile = 64 * 1024;
// The directory holds passwords: nobody but the responder lists or reads it.
constexpr mode_t kStoreMode = 0700;

using quelm::UniqueFd;

const char *realm() { return QM_SessionRealm != nullptr ? QM_SessionRealm : ""; }
const char *or_empty(const char *s) { return s != nullptr ? s : ""; }

bool has_line_break(std::string_view s) { return s.find_first_of("\r\n") != std::string_view::npos; }

// Gateway path of a session file, cut at kPathSize - 1 bytes like the page
// scripts that build the same names expect. Built in a buffer of that size:
// the session step of every request needs it without allocating.
struct SessionPath {
    char text[kPathSize];

    explicit SessionPath(const char *token) {
        std::size_t at = 0;
        for (std::string_view part : {std::string_view(kSessionPath), std::string_view("/"), std::string_view(realm()),
                                      std::string_view("_"), std::string_view(or_empty(token))}) {
            const std::size_t n = std::min(part.size(), kPathSize - 1 - at);
            std::memcpy(text + at, part.data(), n);
            at += n;
        }
        text[at] = '\0';
    }
    const char *c_str() const { return text; }
};

std::string session_path(const char *token) { return SessionPath(token).c_str(); }

bool valid_token(const char *token) { return token != nullptr && cgissi::session::valid_token(token); }

bool expired(const struct stat &st, std::time_t now, long lifetime) { return lifetime < now - st.st_mtime; }

}  // namespace

long idle_lifetime() {
    static const std::string object = "Services_IADConfigurator";
    std::string value;
    int delay = kSessionFlushTime;
    if (!kept_property(object, "SessionDelay", value)) return delay;
    // As sscanf's "%d" reads it (strtol's number, kept as an int), without
    // the formatter.
    const char *end = nullptr;
    const long parsed = quelm::parse_long(value.c_str(), &end);
    if (end != value.c_str()) delay = static_cast<int>(parsed);
    return delay;
}

namespace {

// Reads an open session file whose status is st; false when it is no
// regular file of a session's size.
bool read_open_file(int fd, const struct stat &st, std::string &content) {
    if (!S_ISREG(st.st_mode) || st.st_size > kMaxSessionFile) return false;
    content.resize(static_cast<std::size_t>(st.st_size));
    std::size_t got = 0;
    while (got < content.size()) {
        ssize_t n = ::read(fd, content.data() + got, content.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    content.resize(got);
    return true;
}

}  // namespace

bool read_session_file(const std::string &mapped, std::string &content) {
    UniqueFd fd(::open(mapped.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    struct stat st {};
    return ::fstat(fd.get(), &st) == 0 && read_open_file(fd.get(), st, content);
}

namespace {

// A new session file of this realm with a fresh token, holding content;
// it becomes the request's session. False (and nothing changed) when the
// file could not be made; a short write leaves the session as written.
bool create_session_file(const std::string &content) {
    std::string path = std::string(kSessionPath) + "/" + realm() + "_XXXXXX";
    if (path.size() >= kCreatePathSize) return false;
    std::string mapped = quelm::root_path(path);
    UniqueFd fd(::mkostemp(mapped.data(), O_CLOEXEC));
    if (!fd) return false;
    std::free(QM_SessionToken);
    QM_SessionToken = strndup(mapped.c_str() + mapped.size() - kTokenLength, kTokenLength);
    path.replace(path.size() - kTokenLength, kTokenLength, or_empty(QM_SessionToken));
    quelm::copy_cut(QM_SessionFullPath, sizeof QM_SessionFullPath, path.c_str());
    ssize_t written = ::write(fd.get(), content.data(), content.size());
    (void)written;
    return true;
}

}  // namespace

bool find_entry(std::string_view content, std::string_view key, std::string_view &value) {
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = content.find('\n', pos);
        if (end == std::string_view::npos) end = content.size();
        std::string_view line = content.substr(pos, end - pos);
        if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == '=') {
            value = line.substr(key.size() + 1);
            return true;
        }
        pos = end + 1;
    }
    return false;
}

namespace {

// A token's session file: the name that is logged, the mapped name, and
// whether the token is well formed and its file there (st is then its status).
struct SessionFile {
    std::string path;
    std::string mapped;
    struct stat st {};
    bool found = false;
};

SessionFile find_session(const char *token) {
    SessionFile file;
    file.path = session_path(token);
    file.mapped = quelm::root_path(file.path);
    file.found = valid_token(token) && ::stat(file.mapped.c_str(), &file.st) == 0;
    return file;
}

void log_missing(const char *function, const char *path) {
    // compat: the message as log readers in the field match it.
    quelm::log::print(LOG_ERR, "%s has failed : reason file session doesn't exists anymore '%s'", function, path);
}

// The token's session file for the check, opened and read once: found as a
// status call finds it, readable when it holds a session's text (the kept
// copy's, when that was still good).
struct CheckedFile {
    explicit CheckedFile(const char *token) : path(token) {}

    SessionPath path;
    struct stat st {};
    bool found = false;
    bool readable = false;
    bool kept = false;
    std::string read;  // the text read now, when not kept

    std::string_view text() const;
};

// The session file the last check read. A signed-in visitor's requests
// check the same file again and again; while a status call finds it
// unchanged, its text is taken from here.
quelm::KeptFile &kept_session() {
    static quelm::KeptFile kept;
    return kept;
}

std::string_view CheckedFile::text() const { return kept ? std::string_view(kept_session().bytes) : read; }

void check_file(const char *token, CheckedFile &file) {
    if (!valid_token(token)) return;
    const quelm::RootPath mapped(file.path.c_str());
    quelm::KeptFile &kept = kept_session();
    if (kept.unchanged(mapped.c_str(), file.st)) {
        file.found = file.readable = file.kept = true;
        return;
    }
    const quelm::FolderStamp stamp = quelm::folder_stamp(mapped.view());
    UniqueFd fd(::open(mapped.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd) {
        file.found = ::fstat(fd.get(), &file.st) == 0;
        file.readable = file.found && read_open_file(fd.get(), file.st, file.read);
    } else {
        // There but not to be opened: found, and no session's text.
        file.found = ::stat(mapped.c_str(), &file.st) == 0;
    }
    if (file.readable && quelm::settled(file.st)) {
        kept.path = mapped.view();
        kept.status = file.st;
        kept.bytes = file.read;
        kept.stamp = quelm::stamp_if_own(stamp, mapped.c_str(), file.st);
    }
}

// Copies key's value into out (size bytes, zero-filled first); false when
// content has no such entry. A value that fills out is not terminated, so
// callers keep one spare byte.
bool copy_entry(std::string_view content, const char *key, char *out, std::size_t size) {
    std::memset(out, 0, size);
    std::string_view value;
    if (key == nullptr || !find_entry(content, key, value)) return false;
    std::memcpy(out, value.data(), value.size() < size ? value.size() : size);
    return true;
}

// Whether an entry of the checked file, read as QM_GetSessionInfo would read
// it into a buffer of size bytes (cut there, and at a NUL), is `expected`.
bool checked_entry_is(const CheckedFile &file, const char *key, std::size_t size, const char *expected) {
    if (!file.readable) {
        log_missing("QM_GetSessionInfo", file.path.c_str());
        return false;
    }
    std::string_view value;
    if (!find_entry(file.text(), key, value)) return false;
    value = value.substr(0, size);
    return value.substr(0, value.find('\0')) == expected;
}

// The host begins with an address of the gateway. The character after the
// address must end the host name ("192.168.1.1.example.net" is not us).
bool starts_with_address(std::string_view host, std::string_view address, bool ignore_case) {
    if (address.empty() || host.size() < address.size()) return false;
    std::string_view head = host.substr(0, address.size());
    if (ignore_case ? !quelm::equal_ascii_no_case(head, address) : head != address) return false;
    if (host.size() == address.size()) return true;
    char next = host[address.size()];
    return next == ':' || next == ']';
}

// The host is one item of the comma-separated alias list.
bool in_alias_list(std::string_view aliases, std::string_view host) {
    return !quelm::split(aliases, ',', [&](std::string_view alias) { return alias != host; });
}

}  // namespace

bool renew_session() {
    return quelm::guarded(false, __func__, [&] {
        if (QM_SessionToken == nullptr || QM_SessionFullPath[0] == '\0') return false;
        const std::string old_mapped = quelm::root_path(QM_SessionFullPath);
        std::string content;
        if (!read_session_file(old_mapped, content) || !create_session_file(content)) {
            quelm::log::print(LOG_ERR, "failed to renew the session at login");
            return false;
        }
        ::unlink(old_mapped.c_str());
        note_sessions_changed();
        return true;
    });
}

void secure_store_directory() {
    const std::string mapped = quelm::root_path(kSessionPath);
    if (::mkdir(mapped.c_str(), kStoreMode) != 0 && errno != EEXIST) {
        quelm::log::print(LOG_ERR, "%s: cannot create %s", __func__, kSessionPath);
        return;
    }
    quelm::UniqueFd dir(::open(mapped.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!dir || ::fstat(dir.get(), &st) != 0 || st.st_uid != ::geteuid()) {
        quelm::log::print(LOG_ERR, "%s: %s is not a directory of this user", __func__, kSessionPath);
        return;
    }
    if ((st.st_mode & 07777) != kStoreMode) ::fchmod(dir.get(), kStoreMode);
}

void begin_request() {
    // The token belongs to the request that presented it.
    std::free(QM_SessionToken);
    QM_SessionToken = nullptr;
    QM_SessionFullPath[0] = '\0';
}

}  // namespace cgissi::session

using namespace cgissi::session;

extern "C" {

int QM_GetFullPath(const char *token, char *out, int size) {
    return quelm::guarded(0, __func__, [&]() -> int {
        if (out == nullptr || size <= 0) return 1;
        std::string mapped = quelm::root_path(session_path(token));
        quelm::copy_cut(out, static_cast<std::size_t>(size), mapped.c_str());
        return 1;
    });
}

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
int QM_clean_session(void) {
    QM_SessionFullPath[0] = '\0';
    return 0;
}

int QM_CreateSession(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        if (QM_SessionMaxLimit != 0 && QM_CurrentSession >= QM_SessionMaxLimit) {
            quelm::log::print(LOG_ERR, "Max session limit reached, aborting");
            return -1;
        }
        const char *address = or_empty(cgiRemoteAddr);
        const char *agent = or_empty(cgiUserAgent);
        // A line break would let the visitor write entries of his own.
        if (has_line_break(address) || has_line_break(agent) || has_line_break(realm())) {
            quelm::log::print(LOG_ERR, "failed to create session, aborting");
            return 0;
        }
        make_room_for_anonymous(address);
        std::string content = std::string("REMOTE_ADDR=") + address + "\nHTTP_USER_AGENT=" + agent +
                              "\nREALM=" + realm() + "\n";
        if (!create_session_file(content)) {
            quelm::log::print(LOG_ERR, "failed to create session, aborting");
            return 0;
        }
        note_session_created();
        return 1;
    });
}

namespace {

// The check of QM_CheckSession; `file` is left with the session file as the
// check found it.
int check_session(const char *token, CheckedFile &file) {
    if (token == nullptr || std::strlen(token) != kTokenLength) {
        // compat: "lenght" as log readers in the field match it.
        quelm::log::print(LOG_ERR, "CheckSession has failed : token has bad lenght");
        return 0;
    }
    check_file(token, file);
    const char *path = file.path.c_str();
    if (!file.found) {
        // compat: "doesn't exists" as log readers in the field match it.
        quelm::log::print(LOG_ERR, "CheckSession has failed : file session doesn't exists anymore : %s", path);
        return 0;
    }
    if (expired(file.st, std::time(nullptr), idle_lifetime())) {
        quelm::log::print(LOG_ERR, "CheckSession has failed : session has expired : %s", path);
        QM_DestroySession();
        return 0;
    }
    // Both entries must be present: an empty or damaged file is no session,
    // even for a request without address or agent.
    if (!checked_entry_is(file, "REMOTE_ADDR", kAddressSize, or_empty(cgiRemoteAddr))) {
        quelm::log::print(LOG_ERR, "CheckSession has failed : saved IP and current IP are not equal");
        return 0;
    }
    if (checked_entry_is(file, "HTTP_USER_AGENT", kUserAgentSize, or_empty(cgiUserAgent))) return 1;
    quelm::log::print(LOG_ERR, "CheckSession has failed : saved UserAgent and current UserAgent are not equal");
    return 0;
}

}  // namespace

int QM_CheckSession(const char *token) {
    return quelm::guarded(0, __func__, [&]() -> int {
        CheckedFile file(token);
        return check_session(token, file);
    });
}

int QM_InitSession(const char *token) {
    return quelm::guarded(0, __func__, [&]() -> int {
        std::free(QM_SessionToken);
        QM_SessionToken = token != nullptr ? strdup(token) : nullptr;
        CheckedFile file(token);
        if (valid_token(token)) {
            quelm::copy_cut(QM_SessionFullPath, sizeof QM_SessionFullPath, file.path.c_str());
        } else {
            QM_SessionFullPath[0] = '\0';
        }
        if (check_session(token, file) == 0) {
            if (QM_SessionFullPath[0] != '\0') ::unlink(quelm::root_path(QM_SessionFullPath).c_str());
            note_sessions_changed();
            QM_SessionFullPath[0] = '\0';
            std::free(QM_SessionToken);
            QM_SessionToken = nullptr;
            return 0;
        }
        // Lifetimes count whole seconds: a file already stamped this second
        // is as fresh as a refresh would make it.
        if (file.st.st_mtime != std::time(nullptr)) QM_refreshSession(QM_SessionToken);
        return 1;
    });
}

int QM_refreshSession(const char *token) {
    return quelm::guarded(-1, __func__, [&]() -> int {
        if (!valid_token(token) || ::utime(quelm::root_path(session_path(token)).c_str(), nullptr) != 0) {
            quelm::log::print(LOG_ERR, "RefreshSession has failed : can't update tokenfile timestamp");
            return -1;
        }
        return 0;
    });
}

int QM_HasSession(void) { return QM_SessionToken != nullptr ? 1 : 0; }

int QM_DestroySession(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        if (QM_SessionToken == nullptr) {
            // compat: "does'nt" as log readers in the field match it.
            quelm::log::print(LOG_ERR, "try to destroy current session but it does'nt exist");
            return 0;
        }
        if (QM_SessionFullPath[0] != '\0') ::unlink(quelm::root_path(QM_SessionFullPath).c_str());
        note_sessions_changed();
        std::free(QM_SessionToken);
        QM_SessionToken = nullptr;
        QM_SessionFullPath[0] = '\0';
        return 1;
    });
}

int QM_GetSessionInfo(const char *token, const char *key, char *out, int size) {
    return quelm::guarded(0, __func__, [&, function = __func__]() -> int {
        if (out == nullptr || size <= 0) return 0;
        std::memset(out, 0, static_cast<std::size_t>(size));
        std::string path = session_path(token);
        std::string content;
        if (!valid_token(token) || !read_session_file(quelm::root_path(path), content)) {
            log_missing(function, path.c_str());
            return 0;
        }
        return copy_entry(content, key, out, static_cast<std::size_t>(size)) ? 1 : 0;
    });
}

int QM_SetSessionInfo(const char *token, const char *key, const char *value) {
    return quelm::guarded(0, __func__, [&, function = __func__]() -> int {
        const SessionFile file = find_session(token);
        const std::string &path = file.path;
        if (!file.found) {
            log_missing(function, path.c_str());
            return 0;
        }
        if (key == nullptr || value == nullptr || has_line_break(key) || has_line_break(value) ||
            std::strchr(key, '=') != nullptr) {
            quelm::log::print(LOG_ERR, "%s has failed : refused entry for %s", function, path.c_str());
            return 0;
        }
        UniqueFd fd(::open(file.mapped.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        if (!fd) {
            quelm::log::print(LOG_ERR, "%s has failed : can't open %s", function, path.c_str());
            return 1;
        }
        std::string line = std::string(key) + "=" + value + "\n";
        ssize_t written = ::write(fd.get(), line.data(), line.size());
        (void)written;
        note_sessions_changed();
        return 1;
    });
}

int QM_RemoveSessionInfo(const char *token, const char *key) {
    return quelm::guarded(0, __func__, [&, function = __func__]() -> int {
        std::string path = session_path(token);
        std::string mapped = quelm::root_path(path);
        std::string content;
        if (!valid_token(token) || !read_session_file(mapped, content)) {
            log_missing(function, path.c_str());
            return 0;
        }
        std::string_view key_view = or_empty(key);
        std::string kept;
        std::size_t pos = 0;
        while (pos < content.size()) {
            std::size_t end = content.find('\n', pos);
            end = end == std::string::npos ? content.size() : end + 1;
            std::string_view line(content.data() + pos, end - pos);
            // Prefix match without the "=": removing USER also removes USERNAME.
            if (!line.starts_with(key_view)) kept.append(line);
            pos = end;
        }
        std::string temp = mapped + ".tmpXXXXXX";
        UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
        if (!fd) return 0;
        if (::write(fd.get(), kept.data(), kept.size()) == static_cast<ssize_t>(kept.size())) {
            ::rename(temp.c_str(), mapped.c_str());
            note_sessions_changed();
        } else {
            ::unlink(temp.c_str());
        }
        return 0;
    });
}

unsigned int checkLocalIP(const char *address) {
    int a, b, c, d;
    if (address == nullptr || std::sscanf(address, "%d.%d.%d.%d", &a, &b, &c, &d) != 4) return 0xFFFFFFFFu;
    for (int part : {a, b, c, d}) {
        if (part < 0 || part > 255) return 0xFFFFFFFFu;
    }
    return (static_cast<unsigned>(a) << 24) | (static_cast<unsigned>(b) << 16) | (static_cast<unsigned>(c) << 8) |
           static_cast<unsigned>(d);
}

int QM_GetHostSession(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        std::string_view host = cgissi::request::variable_text(cgissi::request::Variable::HttpHost);
        const HostIdentity &gateway = host_identity();
        const std::string &hostname = gateway.hostname;
        const std::string &aliases = gateway.aliases;
        const std::string &lan_address = gateway.lan_address;
        const std::string &ipv6 = gateway.ipv6;

        if (!host.empty() && host[0] == '[') {
            host.remove_prefix(1);
        } else {
            host = host.substr(0, host.find(':'));
        }

        const char *request_realm = cgissi::request::variable(cgissi::request::Variable::QuelmRealm);
        if (request_realm != nullptr && std::strcmp(request_realm, "rmt") == 0) {
            unsigned mask = checkLocalIP(gateway.lan_mask.c_str());
            if ((checkLocalIP(lan_address.c_str()) & mask) != (checkLocalIP(std::string(host).c_str()) & mask)) return 1;
        }
        if (quelm::equal_ascii_no_case(host, hostname) || quelm::equal_ascii_no_case(host, aliases) ||
            starts_with_address(host, lan_address, true)) {
            return 1;
        }
        // The host name with the domain, "<Hostname>.<Domain>", compared as it stands.
        if (host.size() == hostname.size() + 1 + gateway.domain.size() && host.starts_with(hostname) &&
            host[hostname.size()] == '.' && host.ends_with(gateway.domain)) {
            return 1;
        }
        if (starts_with_address(host, ipv6, false)) return 1;
        if (!aliases.empty() && aliases.find(',') != std::string::npos && in_alias_list(aliases, host)) return 1;
        return 0;
    });
}

int srv_skip_session(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        const char *index = cgissi::request::variable(cgissi::request::Variable::QuelmSrvIdx);
        if (index == nullptr) return 0;
        quelm::copy_cut(QM_HttpServerId, sizeof QM_HttpServerId, index);
        std::string use;
        return kept_property(std::string("HttpServer_") + QM_HttpServerId, "UseSession", use) && use[0] == '0' ? 1
                                                                                                            : 0;
    });
}

int get_server_type(void) {
    // Cached for the process: the serving HTTP server does not change.
    static int type = -1;
    if (type < 0) {
        const char *name = std::getenv("SERVER_NAME");
        type = name == nullptr ? 0 : (std::strstr(name, "lighty") != nullptr ? 2 : 1);
    }
    return type;
}
}
