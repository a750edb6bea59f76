/*
 * Generic access to the data model: the path language, object creation on
 * behalf of an access token, the "generic.cgi" front end, the SSI hooks
 * "cli=" and "fct=", and the output path of device functions.
 *
 * Path language (every read and write names its target with one path):
 *   Obj, Obj_3, Obj_3_Name        plain; Obj_Count and Obj_List give the
 *                                 instance list (List) or count (Array)
 *   Obj_*>2<=5[Enable=1]_Name     every instance, instance-number filters
 *                                 (= != < <= > >=), where clauses, remainder
 *   Obj_{1,4,7} Obj_{Other_Prop}  explicit instance set, or the one held by
 *   Obj_{}                        a property; closing "}" mandatory
 *   [field OP value]              OP: = != (texts) < <= > >= (decimal)
 *                                 ?= (value is an item of the ","-list)
 *   Obj_[Field=Value]_rest        the first instance whose Field is Value
 *   Obj_0_rest                    the instance the latest "create" made
 *   Obj_[Other_N_Prop]_rest       the instance number held by a property
 * Where clauses and lookups never match on secret properties (types 14 and
 * 28), and an indirect instance number must be decimal digits.
 *
 * Texts returned by these calls are malloc'd and freed by the caller. Not
 * thread-safe, like the rest of the process.
 *
 * No C++ exception leaves these calls: an internal failure (memory
 * exhaustion included) is logged with the function's name and gives the
 * call's failure result: null for texts and records, 0 for yes/no checks,
 * -1 for compute_generic_list, create_object and get_lock, the shared
 * error code for the SSI hooks, 0 for generic_cgi and tfprintf.
 */
#ifndef QM_GENERIC_H
#define QM_GENERIC_H

#include <stddef.h>

#include "qm_config.h"
#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_INDEX_FLAGS_SIZE = 1024, /* entries of the index flag table; instance numbers stay below */
    QM_COMPUTED_NAME_SIZE = 128 /* compute_name results hold at most 127 characters */
};

/* ---- Path language ------------------------------------------------------ */

/* First record whose name ends with suffix, or null. */
QM_EXPORT QM_DAT_record *find_field(QM_DAT_record *records, const char *suffix);
/* Copy of the name of the first record whose name ends with suffix and
 * whose value equals value exactly, or null. */
QM_EXPORT char *find_field_value(QM_DAT_record *records, const char *suffix, const char *value);
/* 1 when word equals one of the ","-separated items of list, else 0 (also
 * for a null or empty list). */
QM_EXPORT int find_in_list_word(const char *list, const char *word);
/* Resolves the indirect forms "Obj_[Field=Value]rest", "..._0_..." and
 * "Obj_[Other_N_Prop]_rest" into a plain name (at most 127 characters), or
 * null when the path does not resolve. */
QM_EXPORT char *compute_name(const char *path);
/* Applies the instance-number filters at the start of filter_text (the
 * text after "_*") to flags (QM_INDEX_FLAGS_SIZE entries: 1 selected, 0
 * not, -1 end mark). Returns the length of the text after the filters, or
 * -1 for an unknown operator while an instance is still selected. */
QM_EXPORT int compute_generic_list(const char *filter_text, int *flags);
/* 1 when the where clause ("field OP value", without brackets) holds for
 * the instance instance_name, else 0. records, when given, are searched
 * for the property before the data model is asked. */
QM_EXPORT int Where_check(QM_DAT_record *records, const char *instance_name, const char *clause);
/* Creates the next free instance of list_name as the current access token
 * allows (a line "<list>,<first>,<field=value,...>" of its file), sets the
 * defaults and gives the token the new instance's other fields. Returns
 * the instance number (at least 1) or -1. */
QM_EXPORT int create_object(const char *list_name);
/* Zero-filled allocation, null when memory is exhausted. */
QM_EXPORT void *malloczero(size_t size);

/* Instance made by the latest successful "create" field of the current
 * "generic.cgi" request, -1 before any; resolves the "_0_" form. Cleared
 * before and after every "generic.cgi" request: it is never another
 * request's. */
QM_EXPORT extern int last_created_indice;

/* ---- Front ends ------------------------------------------------------------ */

/* Handler of "generic.cgi" in the built-in CGI table. */
QM_EXPORT int generic_cgi(int argc, char **argv);
/* SSI hook "cli=": prints one data-model read as JSON. The argument may end
 * in ":write" (autolearn), ":show" (secrets in clear) or ":shadow".
 * Returns the shared error code. */
QM_EXPORT int generic_ssi(const char *argument);
/* SSI hook "fct=": runs "name:arguments" from the shared-library functions
 * or else the device function table. Returns the shared error code. */
QM_EXPORT int generic_fct(const char *argument);

/* Configuration lock of the current "generic.cgi" request: QM_FILE_lock
 * only when is_lock is 0, then is_lock is 1 (whatever the lock answered).
 * Returns what QM_FILE_lock returned, or 0 when it was held already. */
QM_EXPORT int get_lock(void);
QM_EXPORT extern int is_lock;

/* Set by the reboot and factory-reset device functions; acted on after
 * the response of the "generic.cgi" request that set them. Cleared when a
 * request starts. */
QM_EXPORT extern int need_reboot;
QM_EXPORT extern int need_factory;

/* ---- Output of device functions ---------------------------------------- */

/* Formats into a new text and puts it in front of fct_buffer (texts
 * accumulate newest first); when direct is not 0 the buffer is then
 * written to the response and emptied. The stream is ignored. Returns 0. */
QM_EXPORT int tfprintf(void *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Pending device-function output (malloc'd), null when empty. */
QM_EXPORT extern char *fct_buffer;
/* 1 (initially): tfprintf writes at once; 0: it accumulates. */
QM_EXPORT extern int direct;

/* A row of the device function table. The handler gets the mode ("cgi" or
 * "ssi") and the text after the first ":" of the call (or null), answers
 * through tfprintf or by filling Ssi, and returns 0 for success. A lock of
 * 1 means it changes the configuration: "generic.cgi" takes the
 * configuration lock before the call. */
enum { QM_CGI_PLUGIN_NAME_SIZE = 64 };
typedef int (*cgi_plugin_handler)(const char *mode, const char *argument);
typedef struct cgi_plugin {
    char name[QM_CGI_PLUGIN_NAME_SIZE];
    cgi_plugin_handler handler;
    char lock;
} cgi_plugin;

/* The device function table, defined with the device functions: its rows
 * and their number. Every row whose name equals the called name is run. */
QM_EXPORT extern const cgi_plugin cgi_plugins[];
QM_EXPORT int get_nbcgiplugins(void);

#ifdef __cplusplus
}
#endif

#endif
