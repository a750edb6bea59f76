/*
 * Web authentication library: checks a visitor's credentials against the
 * enabled web users of the data model.
 */
#ifndef QM_WEBAUTH_H
#define QM_WEBAUTH_H

#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    WEBAUTH_MAX_USERNAME = 63,     /* longer names are never accepted */
    WEBAUTH_MAX_PASSWORD = 63,
    WEBAUTH_MAX_AUTHORIZATION = 255
};

/*
 * Checks `authorization`, the text
 *   Embedded username="NAME" password="PASSWORD"
 * (the password runs to the last double quote, so it may hold quotes)
 * against the users of the data model: an instance User_N matches when its
 * Enable and User are non-zero, its Username equals NAME and its Password
 * equals PASSWORD (compared in constant time; an empty stored password
 * matches only an empty one). With a realm set, the user's Services must
 * also contain the realm.
 * `flags` and `reserved` are 0; `path` (the requested path) and
 * `remote_addr` are not used by this check and may be null; `realm` is the
 * serving realm, may be null or empty.
 * Returns -1 when the visitor is not authorised (also for a malformed text
 * or an empty name), 0 when authorised for everything (the user's Services
 * contain "<realm>_admin", or no realm is set), 1 when authorised subject
 * to the user's services list. The shared error code of the configuration
 * library is left as it was.
 */
QM_EXPORT int webauth_check_auth(int flags, int reserved, const char *path, const char *authorization,
                                 const char *realm, const char *remote_addr);

/*
 * Formats a complete CGI error response (Status line, headers and a short
 * HTML body) for `status` (100..599) into `out` (at most `size` bytes,
 * always terminated). `reason` may be null for the standard phrase; line
 * breaks in it are written as blanks, and it is HTML-escaped in the body.
 * Returns the length written, or -1 when it did not fit or the arguments
 * are bad (out then holds "" when size allows).
 */
QM_EXPORT int webauth_send_http_error_message(int status, const char *reason, char *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
