/*
 * Value output of the SSI page engine, for built-in producers and plugins.
 *
 * A value inserted into a page (or into a JSON answer) is printed with
 * ssiprintf, which escapes it for the current output mode:
 *   SSI_MODE_PLAIN  0  as is
 *   SSI_MODE_JS     1  inside a JavaScript string  ("jsvar" of echo)
 *   SSI_MODE_JSON   2  inside a JSON string        ("jsonvar", generic.cgi)
 * Any other mode prints nothing. The mode is process-wide and stays until
 * the next echo directive or front end sets it.
 *
 * Escaped output is staged in the shared buffer Ssi (ssi_buffer.h), which
 * ssiprintf leaves empty: a producer must not call ssiprintf while its own
 * text in Ssi is still to be printed. Not thread-safe.
 */
#ifndef SSI_H
#define SSI_H

#include <stddef.h>

#include "qm_export.h"
#include "ssi_buffer.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SSI_MODE_PLAIN = 0,
    SSI_MODE_JS = 1,
    SSI_MODE_JSON = 2,
    SSI_FORMAT_SIZE = 4096 /* ssiprintf formats at most 4095 characters */
};

/* The current output mode; prefer SSI_Set_Mode / SSI_Get_Mode. */
QM_EXPORT extern int Ssi_mode;

/* Built-in SSI symbols ("iCgiError", ...): a producer writes its text into
 * Ssi and returns its result code. get_nbplugins() gives the row count. */
enum { SSI_SYMBOL_NAME_SIZE = 64 };
typedef struct ssi_builtin_symbol {
    char name[SSI_SYMBOL_NAME_SIZE];
    int (*producer)(void);
} ssi_builtin_symbol;
QM_EXPORT extern const ssi_builtin_symbol plugins[];
QM_EXPORT int get_nbplugins(void);

/* The symbol callback that "echo" calls for every variable name that is
 * not an environment variable. The request loop installs do_plugin with
 * set_ssi_do_plugin at every request. */
typedef int (*ssi_symbol_callback)(const char *symbol);
void set_ssi_do_plugin(ssi_symbol_callback callback);
/* Prints the symbol's value through ssiprintf: a built-in symbol, or one of
 * the routed forms "token=", "cli=", "fct=", "create=". The outcome is only
 * logged; always 0. */
int do_plugin(const char *symbol);

/* The SSI page renderer, the first built-in CGI: serves the page named by
 * SCRIPT_FILENAME. 0, or 1 when the page could not be served. */
int ssi(int argc, char **argv);

QM_EXPORT void SSI_Set_Mode(int mode);
QM_EXPORT int SSI_Get_Mode(void);

/* Formats (cut at SSI_FORMAT_SIZE - 1 characters) and writes the text to
 * the response, escaped for the current mode. Returns the length the
 * formatting produced before any cut, or -1 on a format error. */
QM_EXPORT int ssiprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The bytes ssiprintf("%.*s", len, text) prints in the current mode,
 * written to out instead of the response: the text cut at its first NUL or
 * at SSI_FORMAT_SIZE - 1 bytes, then escaped; nothing in a mode that prints
 * nothing. Like ssiprintf it leaves Ssi empty in the JS and JSON modes. out
 * must hold six bytes for each byte of text taken (SSI_ESCAPED_MAX at
 * most). Returns the number of bytes written. */
enum { SSI_ESCAPED_MAX = 6 * (SSI_FORMAT_SIZE - 1) };
QM_EXPORT size_t ssi_escape_value(const char *text, size_t len, char *out);

/* Stores byte at position pos of Ssi and returns the next position. When
 * pos has reached SSI_BUFFER_SIZE - 1, the staged text is written first and
 * the byte goes to position 0, so any length leaves in 4095-byte chunks. */
QM_EXPORT int ssisendbyte(int pos, char byte);

#ifdef __cplusplus
}
#endif

#endif
