/*
 * Value cipher, base64 and SHA-256 signatures shared by the login CGI, the
 * data-model front end and plugins.
 *
 * Pages send passwords and other secret values encrypted with a small
 * reversible cipher keyed by a text (the session token, or a token field of
 * the form): each character becomes two upper-case hex digits. The browser
 * side encrypts so that decrypt_post_value gives the intended text; the two
 * functions here are not exact inverses (see decrypt_post_value).
 *
 * A signed login proves the password without sending it: the page posts
 *   hex-SHA-256(base64(cipher(session token, user ":" password)))
 * and check_sha_sig recomputes it from the stored password.
 *
 * Not thread-safe (get_sha_signature answers in a static buffer), like the
 * rest of the process.
 */
#ifndef QM_LOGIN_H
#define QM_LOGIN_H

#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_CRYPT_BUFFER_SIZE = 1024, /* cipher and base64 buffers of the login */
    QM_SHA_SIGNATURE_LENGTH = 64 /* hex digits of a SHA-256 signature */
};

/* Base64 of length bytes of input, without line breaks, into output (size
 * bytes, zeroed first). Returns output, or null when the text and its
 * terminator do not fit. */
QM_EXPORT char *encode64(const void *input, size_t length, char *output, size_t size);

/* Decodes base64 text (no line breaks) into output (size bytes, zeroed
 * first). Returns output when between 1 and size - 1 bytes came out, else
 * null (output then all zero). */
QM_EXPORT char *decode64(const char *text, char *output, size_t size);

/* Encrypts plain with key (used cyclically; an empty or null key counts as
 * all zero bytes). Each character, taken as a signed byte p with key byte
 * k: v = p + k; v >= 94 gives v - 94; then v >= 127 gives v - 94 again;
 * written as "%02X" of v's low byte. Returns 1, or 0 when output (size
 * bytes) cannot hold two digits per character and the terminator; output
 * is then "". */
QM_EXPORT int encrypt_post_buffer(const char *key, const char *plain, char *output, size_t size);

/* Decrypts hex text (pairs of hex digits of either case) with key:
 * v = pair - k + 94, v < 33 gives v + 94, stored as a byte. A character
 * whose p + k was below 94 therefore comes back as p + 94. Returns output
 * (size bytes, zeroed first, always terminated), or null for an odd
 * length, a pair that is not two hex digits, or a result that does not fit
 * with its terminator. */
QM_EXPORT char *decrypt_post_value(const char *key, const char *hex, char *output, size_t size);

/* Lower-case hex SHA-256 of length bytes, in a static buffer that the next
 * call overwrites (QM_SHA_SIGNATURE_LENGTH digits and a terminator). */
QM_EXPORT const char *get_sha_signature(const void *data, size_t length);

/* 1 when signature is hex-SHA-256(base64(cipher(key, user ":" password))),
 * compared in constant time; else 0. */
QM_EXPORT int check_sha_sig(const char *user, const char *password, const char *key, const char *signature);

/* The "login.cgi" handler: signs the session in (plain or signed password)
 * or changes a password, and answers with a redirect or JSON. 0 on success. */
QM_EXPORT int login_cgi(int argc, char **argv);

#ifdef __cplusplus
}
#endif

#endif
