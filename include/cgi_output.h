/*
 * Response output. Everything a handler writes goes through these calls to
 * the FastCGI output stream of the current request. Formatting is done here
 * with vsnprintf (libfcgi's own formatter does not know every conversion and
 * silently cuts the output), then the bytes are written.
 */
#ifndef CGI_OUTPUT_H
#define CGI_OUTPUT_H

#include <stdarg.h>
#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writes len bytes; returns len, or -1 on a write error. */
QM_EXPORT int cgi_out_write(const void *data, size_t len);
/* Formats and writes; returns the number of bytes written, or -1. */
QM_EXPORT int cgi_out_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
QM_EXPORT int cgi_out_vprintf(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
QM_EXPORT int cgi_out_flush(void);
/* Ends the answer: a FastCGI request is finished, so the rest of the output
 * leaves with the request's closing records in one write; a plain CGI
 * flushes its output. Nothing may be written after it. */
QM_EXPORT void cgi_out_finish(void);
/* Writes a whole header block, "Status: <status> <reason>\r\nContent-type:
 * <content_type>\r\n\r\n", for answers the product makes of its own accord
 * (refused requests, unknown names, no session). Known statuses: 400, 403,
 * 404, 413, 500, 503; any other is written with the reason "Error". */
QM_EXPORT int cgi_out_status_header(int status, const char *content_type);

#ifdef __cplusplus
}
#endif

#endif
