/*
 * Browser sessions: per-process session state and the session store.
 *
 * A session is a file "<realm>_<token>" under /var/quelm/session holding
 * "KEY=value" lines; its token (six letters or digits) travels in the cookie
 * named "QM_<realm>_ID". One request at a time per process.
 */
#ifndef QM_SESSION_H
#define QM_SESSION_H

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_SESSION_NAME_SIZE = 256,
    QM_SESSION_FULL_PATH_SIZE = 256,
    QM_HTTP_SERVER_ID_SIZE = 256
};

/* State of the current request. */
QM_EXPORT extern const char *QM_SessionRealm;  /* from QUELM_REALM; "" when unset */
QM_EXPORT extern char QM_SessionName[QM_SESSION_NAME_SIZE];   /* cookie name */
QM_EXPORT extern char *QM_SessionToken;        /* current session's token, or null */
QM_EXPORT extern char QM_SessionFullPath[QM_SESSION_FULL_PATH_SIZE];
QM_EXPORT extern int QM_SessionMaxLimit;       /* sessions allowed per realm; 0 = no limit */
QM_EXPORT extern int QM_CurrentSession;        /* live sessions counted by the last flush */
QM_EXPORT extern char QM_HttpServerId[QM_HTTP_SERVER_ID_SIZE];

/* Writes the session file's path (under the gateway root); always 1. */
QM_EXPORT int QM_GetFullPath(const char *token, char *out, int size);
QM_EXPORT int QM_clean_session(void);
QM_EXPORT int QM_FlushSessions(void);
/* 1 created, 0 the file could not be created, -1 session limit reached. */
QM_EXPORT int QM_CreateSession(void);
/* 1 when the token names a live session of this client (now current). */
QM_EXPORT int QM_InitSession(const char *token);
QM_EXPORT int QM_CheckSession(const char *token);
QM_EXPORT int QM_refreshSession(const char *token);
QM_EXPORT int QM_HasSession(void);
QM_EXPORT int QM_DestroySession(void);
/* Copies at most `size` bytes of the first "key=" entry; a value that fills
 * `size` is not terminated, so keep a spare zero byte after `size`. */
QM_EXPORT int QM_GetSessionInfo(const char *token, const char *key, char *out, int size);
/* Appends "key=value"; values with CR or LF are refused (returns 0). */
QM_EXPORT int QM_SetSessionInfo(const char *token, const char *key, const char *value);
/* Removes every line that begins with `key`; always 0. */
QM_EXPORT int QM_RemoveSessionInfo(const char *token, const char *key);
/* Dotted IPv4 text as a number (first octet high), 0xFFFFFFFF when invalid. */
QM_EXPORT unsigned int checkLocalIP(const char *address);
/* 1 when the request's Host names this gateway, so that a session applies. */
QM_EXPORT int QM_GetHostSession(void);
/* 1 when this web-server instance does not use sessions. */
QM_EXPORT int srv_skip_session(void);
/* 0 SERVER_NAME unset, 2 lighttpd, 1 another server. */
QM_EXPORT int get_server_type(void);

#ifdef __cplusplus
}
#endif

#endif
