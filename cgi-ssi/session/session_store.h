// Session store internals used by the request loop.
#pragma once

#include <string>
#include <string_view>

#include "qm_session.h"

namespace cgissi::session {

// Forgets the previous request's session: the token held by the process
// belongs to the request that presented it.
void begin_request();

// The request loop's session step. read_session_limit reads the limit file
// ("%d"; missing or empty: no limit; no number: the previous limit) again
// only when its status changed. flush_sessions_if_due removes expired files
// and recounts the realm's sessions, at most once a second per
// process unless something the count depends on changed.
void read_session_limit();
void flush_sessions_if_due();

// What this process did to the store, for the count kept between passes: a
// new session file, or a change that may move the count (a file removed, an
// entry written or removed), after which the next request passes again.
void note_session_created();
void note_sessions_changed();

// Makes the session directory the responder's alone (0700): session files
// hold the logged-in users' passwords. Created when missing; a directory
// of another owner, or a link, is left alone and reported. Called once at
// process start.
void secure_store_directory();

// Moves the request's session to a fresh token (its entries kept, the old
// file removed), so that a token known before a login is worth nothing
// after it. False, with the session unchanged, when it could not.
bool renew_session();

// Idle lifetime of a session in seconds ("SessionDelay" of
// Services_IADConfigurator, 1200 when it cannot be read).
long idle_lifetime();

// A data-model property the session step reads on every request, as
// QM_DAT_getobjproperty gives it (false when it gives none), with the error
// code that read left. It is read again only when the data model's change
// stamp moved or the gateway root changed; a kept answer sets the same
// error code as the read did.
bool kept_property(const std::string &object, const char *name, std::string &value);

// Reads a whole session file (a mapped path); false when it is missing or
// not a session.
bool read_session_file(const std::string &mapped, std::string &content);

// Value of the first line "key=value"; false when no line has that key.
bool find_entry(std::string_view content, std::string_view key, std::string_view &value);

// Whether the session file `name` (mapped: its path on this host) counts
// towards the realm's session limit. By default only signed-in sessions of
// exactly this realm count, so anonymous visitors never lock a signed-in
// one out; the legacy policy counts every file whose name starts with the
// realm.
bool counts_towards_limit(std::string_view name, const std::string &mapped);

// The session is signed in with the admin level of its realm: its SERVICES
// hold "web_<realm>_admin" as one of their ","-separated items.
bool admin_session();

// By default a client address keeps at most kAnonymousPerClient sessions
// that never signed in: before a new one is made, the oldest of that
// client's are removed. Nothing with the legacy policy.
constexpr std::size_t kAnonymousPerClient = 8;
void make_room_for_anonymous(const char *address);

// The gateway's names as the data model gives them (empty when unset),
// kept while the data model's change stamp stays.
struct HostIdentity {
    std::string hostname;
    std::string aliases;
    std::string domain;
    std::string lan_address;
    std::string lan_mask;
    std::string ipv6;
};
const HostIdentity &host_identity();

}  // namespace cgissi::session
