/*
 * Access tokens: what the script of a served page may read and write
 * through the data-model front end without a login of its own.
 *
 * A token is the six characters that mkstemp put in place of "XXXXXX" in
 * "/var/tmp/CGI_Token_XXXXXX". Its file holds:
 *   line 1  lifetime in seconds ("%d")
 *   line 2  the rights: object names separated by ",", or "all"
 *   more    lines added by the page's "create=" texts (kept by rewrites)
 * and its modification time is the moment it expires (now + lifetime,
 * renewed at each use); the access time is the last use.
 *
 * Paths passed to and held by this interface are gateway paths
 * ("/var/tmp/CGI_Token_abc123"); open them through quelm::root_path. Only
 * paths of exactly that form are accepted.
 *
 * One request at a time per process; not thread-safe.
 */
#ifndef QM_TOKEN_H
#define QM_TOKEN_H

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_TOKEN_LENGTH = 6,              /* characters of a token */
    QM_TOKEN_MESSAGE_SIZE = 1024,     /* latest message, with terminator */
    QM_TOKEN_RIGHTS_SIZE = 400,       /* rights text, with terminator */
    QM_TOKEN_ERROR_TEXT_SIZE = 20000, /* accumulated errors, with terminator */
    QM_TOKEN_FIELD_SIZE = 200,        /* the form's "token" field as read, with terminator */
    QM_TOKEN_LINE_SIZE = 401          /* a line of a token file (400 characters), with terminator */
};

/* Results of get_token_rights. */
enum {
    QM_TOKEN_VALID = 0,
    QM_TOKEN_MISSING = -1,    /* no "token" field */
    QM_TOKEN_UNKNOWN = -2,    /* malformed, or no such token (-ENOENT) */
    QM_TOKEN_EXPIRED = -3,    /* expiry passed; the file is removed (-ESRCH) */
    QM_TOKEN_UNREADABLE = -4  /* the file cannot be read (-EINTR) */
};

/* The part of a data-model request that get_token_rights fills. The front
 * end keeps it for the whole request and appends its own errors to
 * error_text the same way (always terminated, cut below
 * QM_TOKEN_ERROR_TEXT_SIZE). */
typedef struct token_context {
    char message[QM_TOKEN_MESSAGE_SIZE];       /* latest message */
    char rights[QM_TOKEN_RIGHTS_SIZE];         /* rights of the request's token */
    char error_text[QM_TOKEN_ERROR_TEXT_SIZE]; /* every message, in order */
} token_context;

/* Gateway path of the token created or presented in the current request
 * (malloc'd), or null. Freed at the end of every request. */
QM_EXPORT extern char *last_token_name;
/* Lifetime in seconds of that token. */
QM_EXPORT extern int last_token_lifetime;
/* Set while an SSI data-model query with ":write" runs: the objects it
 * resolves are added to the current token. */
QM_EXPORT extern int token_ssi_autolearn;
/* 1 (default) masks secret values in JSON output; 0 after ":show". */
QM_EXPORT extern int token_shadow_password;

/* SSI hook "token=": text is an optional decimal lifetime and a blank, then
 * the rights (900 s when the lifetime is absent, 0 or not a number). Writes
 * the new token to the page as a JSON string ("\"abc123\"") and holds it as
 * the current token unless one is held already. 0, or -1 when the text has
 * 400 characters or more or the file cannot be made. */
QM_EXPORT int create_token(const char *text);

/* SSI hook "create=": appends the text as a line of the current token's
 * file and writes an empty JSON string ("\"\"") to the page. 0, or -1 when
 * there is no current token or its file cannot be opened. */
QM_EXPORT int extend_token_create(const char *text);

/* Adds "," name to the rights line of the token file at path (rewritten
 * through path "~" and a rename; its other lines and time stamps are kept).
 * Always 0. */
QM_EXPORT int extend_token(const char *path, const char *name);

/* Access time now, modification (expiry) time now + lifetime. 0, or -1 for
 * an empty, null or foreign path or a failed update. */
QM_EXPORT int refresh_token_timestamp(const char *path, int lifetime);

/* Checks the request's "token" form field and loads its rights into
 * context->rights; renews its expiry and makes it the current token.
 * Returns a QM_TOKEN_* code; on failure the reason is in context->message
 * and appended to context->error_text. */
QM_EXPORT int get_token_rights(token_context *context);

/* 1 when rights allow object: rights exactly "all", or one of its
 * ","-separated (non-empty) items occurs anywhere inside object. Else 0. */
QM_EXPORT int has_right(const char *rights, const char *object);

/* Removes the token files whose expiry has passed. */
QM_EXPORT void flush_tokens(void);

/* Deletes the current token's file (the name stays held). */
QM_EXPORT void remove_current_token(void);

/* Forgets the current token (end of every request). */
QM_EXPORT void remove_last_token_name(void);

/* Reads one "%d" number of a ","-separated list into *out and returns the
 * text after the next ",", or null at the end (*out still written) or when
 * no number can be read (*out unchanged). */
QM_EXPORT char *next_item(const char *list, int *out);

#ifdef __cplusplus
}
#endif

#endif
