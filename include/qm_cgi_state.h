/*
 * State shared by the form-handling CGIs, device functions and plugins:
 *
 *  - the one-shot CGI error number kept in "/var/tmp/cgierror" from the
 *    request that failed to the page that shows it;
 *  - the configuration lock around changes;
 *  - the fixed HTML error and reboot pages;
 *  - the page the browser is sent to after a form post (url_page and
 *    url_expert, chosen from the form fields "sSuccessPage", "sErrorPage"
 *    and "iExpert", composed and sent by branch_dest_url);
 *  - typed get/set helpers over the data model's object properties.
 *
 * Everything writes its response through cgi_output.h. Not thread-safe,
 * like the rest of the process.
 */
#ifndef QM_CGI_STATE_H
#define QM_CGI_STATE_H

#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_URL_PAGE_SIZE = 256 /* url_page, including the terminator */
};

/* Values of url_expert (the "iExpert" form field). Any other positive value
 * counts as the expert tree. */
enum {
    QM_DEST_BASIC = 0,        /* ../basic/<page>, with the language when enabled */
    QM_DEST_EXPERT = 1,       /* ../expert/<page>, with the language when enabled */
    QM_DEST_REFERER_TREE = 3, /* the referring page's two directory levels */
    QM_DEST_PARENT = -1,      /* ../<page> */
    QM_DEST_AS_GIVEN = -2     /* <page> unchanged */
};

/* The destination last chosen by set_dest_url; initially "" and basic. */
QM_EXPORT extern char url_page[QM_URL_PAGE_SIZE];
QM_EXPORT extern int url_expert;

/* ---- One-shot CGI error ------------------------------------------------ */

/* Stores code ("%d", no newline) for the next page; 0 removes it. A file
 * that cannot be written is ignored. Returns code. */
QM_EXPORT int set_cgierror(int code);
/* Puts the stored error's text into Ssi and removes the file, so it is
 * shown once; Ssi is "0" when there is none (or the line does not fit).
 * Always returns 0. */
QM_EXPORT int get_cgierror(void);

/* ---- Configuration lock -------------------------------------------------- */

/* QM_FILE_lock. On failure the code also goes into the shared error code
 * and the CGI error file, and the browser is redirected to the form's
 * error page (or gets generic_error("sharing.cgi") when the request cannot
 * be parsed). Returns the lock's result. */
QM_EXPORT int cgi_lock_config(void);
/* QM_FILE_unlock. */
QM_EXPORT int cgi_unlock_config(void);

/* ---- Fixed pages ----------------------------------------------------------- */

/* "Internal Server Error <text>" page body; writes no header. */
QM_EXPORT void generic_error(const char *text);
/* Content type and the "firmware upgrade complete, rebooting" page with a
 * link to http://<host>/. */
QM_EXPORT void reboot_page(const char *host);

/* ---- Destination after a form post ----------------------------------------- */

/* Chooses page with mode (QM_DEST_*). An empty page changes nothing. The
 * page is cut to QM_URL_PAGE_SIZE - 1 bytes. "index.htm" always goes to the
 * basic tree unless mode is QM_DEST_REFERER_TREE. */
QM_EXPORT void set_dest_url(const char *page, int mode);
/* From "sSuccessPage" and "iExpert"; without the field, "index.htm" basic.
 * Clobbers Line. */
QM_EXPORT void getset_success_url(void);
/* From "sErrorPage" and "iExpert"; without the field the previous
 * destination stays. Clobbers Line. Returns the page field's form result. */
QM_EXPORT int getset_error_url(void);
/* Composes the destination into Line and sends it with cgiHeaderLocation.
 * The shared error code (QM_err_get) is the same on return as on entry. */
QM_EXPORT void branch_dest_url(void);

/* Form integer "iDelay", 0 when absent. */
QM_EXPORT int get_shelldelay(void);

/* ---- Data-model property helpers ------------------------------------------
 * Getters return the shared error code after the read (0 when a value was
 * found); setters return QM_DAT_setobjproperty's result. */

/* Releases a value returned by QM_DAT_getobjproperty; null is ignored. */
QM_EXPORT void FreePropertyValue(char *value);
/* Copies at most length bytes of the value into dest, padding with zeros
 * like strncpy: no terminator when the value has length bytes or more.
 * dest is untouched when there is no value. */
QM_EXPORT int GetPropertyStrValue(const char *object, const char *property, char *dest, size_t length);
QM_EXPORT int SetPropertyStrValue(const char *object, const char *property, const char *value);
/* *out = the value read with "%d"; 0 when there is none (or no number). */
QM_EXPORT int GetPropertyIntValue(const char *object, const char *property, int *out);
QM_EXPORT int SetPropertyIntValue(const char *object, const char *property, int value);

#ifdef __cplusplus
}
#endif

#endif
