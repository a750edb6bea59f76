/*
 * Plugins: CGIs and data-model functions that other packages register in
 * /etc/quelm/config.default/web.xml and serve from a shared library under
 * /lib (or, for functions, from a command).
 *
 * A registry entry is a child element of the document's root with the
 * attributes "name", "methods", "call" ("library!symbol", or a command
 * without "!" for functions) and "no_session" (plugins: "1..." serves the
 * CGI without session, cookie or POST protection).
 *
 * Results: -1 when the registry is missing or has no matching entry, 1 when
 * the entry is registered but its library or symbol cannot be used (or is
 * refused), otherwise the entry's own result.
 */
#ifndef QM_PLUGIN_H
#define QM_PLUGIN_H

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Entry point of a plugin CGI: the request's argc/argv; writes the whole
 * response (headers and body) and returns 0 for success. */
typedef int (*qm_plugin_cgi_entry)(int argc, char **argv);

/* Entry point of a plugin function: the registered name, the caller's method
 * ("cgi" from generic.cgi's "fct" field, "ssi" from a page's "fct=") and the
 * text after ":" (may be null). Its result is passed back unchanged. */
typedef int (*qm_plugin_function_entry)(const char *name, const char *method, const char *param);

/* Calls the entry whose "name" equals `name` and whose "methods" contains
 * `method` ("plugin" for CGIs). */
QM_EXPORT int call_shared_genericplugin(const char *method, const char *name, int argc, char **argv);
/* Calls the function entry whose "name" equals `name` and whose "methods"
 * contains `method`. */
QM_EXPORT int call_shared_genericfct(const char *method, const char *name, const char *param);

/* Loads `call` ("library!symbol") and runs its plugin entry point. */
QM_EXPORT int call_external_plugin(const char *name, const char *method, int argc, char **argv, const char *call);
/* Runs one function entry: by library symbol, or for a `call` without "!"
 * the command whose program and arguments are the words of `call`, followed
 * by name, method and param as three arguments, with KEYWORD=name and
 * PARAM=param in its environment; returns the status as system() does. */
QM_EXPORT int call_external_function(const char *name, const char *method, const char *param, const char *call);

#ifdef __cplusplus
}
#endif

#endif
