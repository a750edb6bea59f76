/*
 * CGI request layer: the current request's environment, its form fields
 * and cookies, and the response header writers.
 *
 * Every built-in CGI calls cgiInitResources() first and cgiFreeResources()
 * last; between the two the globals below describe the request and the
 * accessors search its form entries. Plugins use the same calls.
 *
 * This header includes <fcgi_stdio.h> with NO_FCGI_DEFINES, so the FastCGI
 * stream functions are called by their FCGI_ names. A plugin that wants the
 * stdio names mapped onto the FastCGI streams includes <fcgi_stdio.h> before
 * this header.
 */
#ifndef CGIC_H
#define CGIC_H

#include <signal.h>
#include <stddef.h>

#ifndef NO_FCGI_DEFINES
#define NO_FCGI_DEFINES
#endif
#include <fcgi_stdio.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fixed sizes of the request layer, in bytes including the terminator. */
enum {
    CGIC_CONTENT_TYPE_SIZE = 1024, /* cgiContentType */
    CGIC_TEMP_NAME_SIZE = 1024     /* a buffer for getTempFileName() */
};

/* One form field. All strings are owned by the list and released by
 * cgiFreeResources(); callers only read them. */
typedef struct cgiFormEntryStruct {
    char *attr;        /* field name, unescaped */
    char *value;       /* value, zero-terminated; may be null for a multipart part */
    int valueLength;   /* strlen(value); for a file part the bytes written so far */
    char *fileName;    /* "" for urlencoded fields; a file part's "filename" or null */
    char *contentType; /* "" for urlencoded fields; null for multipart parts */
    char *tfileName;   /* "" for urlencoded fields; a file part's temporary file */
    struct cgiFormEntryStruct *next;
} cgiFormEntry;

/* Results of the form and cookie accessors; the values are fixed. */
typedef enum {
    cgiFormSuccess = 0,
    cgiFormTruncated = 1,
    cgiFormBadType = 2,
    cgiFormEmpty = 3,
    cgiFormNotFound = 4,
    cgiFormConstrained = 5,
    cgiFormNoSuchChoice = 6,
    cgiFormMemory = 7,
    cgiFormNoFileName = 8,
    cgiFormNoContentType = 9,
    cgiFormNotAFile = 10,
    cgiFormOpenFailed = 11,
    cgiFormIO = 12
} cgiFormResultType;

/* An open uploaded file; made by cgiFormFileOpen, freed by cgiFormFileClose. */
typedef struct cgiFileStruct *cgiFilePtr;

/* ---- Request globals, set by cgiInitResources ------------------------- */

/* The request's CGI variables; never null after cgiInitResources (an unset
 * variable reads ""). */
QM_EXPORT extern const char *cgiServerSoftware;   /* SERVER_SOFTWARE */
QM_EXPORT extern const char *cgiServerName;       /* SERVER_NAME */
QM_EXPORT extern const char *cgiGatewayInterface; /* GATEWAY_INTERFACE */
QM_EXPORT extern const char *cgiServerProtocol;   /* SERVER_PROTOCOL */
QM_EXPORT extern const char *cgiServerPort;       /* SERVER_PORT */
QM_EXPORT extern const char *cgiRequestMethod;    /* REQUEST_METHOD */
QM_EXPORT extern const char *cgiPathInfo;         /* PATH_INFO */
QM_EXPORT extern const char *cgiPathTranslated;   /* PATH_TRANSLATED */
QM_EXPORT extern const char *cgiScriptName;       /* SCRIPT_NAME */
QM_EXPORT extern const char *cgiQueryString;      /* QUERY_STRING */
QM_EXPORT extern const char *cgiRemoteHost;       /* REMOTE_HOST */
QM_EXPORT extern const char *cgiRemoteAddr;       /* REMOTE_ADDR */
QM_EXPORT extern const char *cgiAuthType;         /* AUTH_TYPE */
QM_EXPORT extern const char *cgiRemoteUser;       /* REMOTE_USER */
QM_EXPORT extern const char *cgiRemoteIdent;      /* REMOTE_IDENT */
QM_EXPORT extern const char *cgiHttpHost;         /* HTTP_HOST */
QM_EXPORT extern const char *cgiXForwardedFor;    /* X_FORWARDED_FOR */
QM_EXPORT extern const char *cgiAccept;           /* HTTP_ACCEPT */
QM_EXPORT extern const char *cgiUserAgent;        /* HTTP_USER_AGENT */
QM_EXPORT extern const char *cgiReferrer;         /* HTTP_REFERER */
QM_EXPORT extern const char *cgiCookie;           /* HTTP_COOKIE */

/* CONTENT_TYPE (at most 1023 characters) cut at its first ";". */
QM_EXPORT extern char cgiContentType[CGIC_CONTENT_TYPE_SIZE];
/* The "boundary=" parameter of CONTENT_TYPE (points into cgiContentType), or "". */
QM_EXPORT extern const char *cgiMultipartBoundary;
/* Body length; for GET the length of the query string. */
QM_EXPORT extern int cgiContentLength;
/* The request's FastCGI input and output streams. */
QM_EXPORT extern FCGI_FILE *cgiIn;
QM_EXPORT extern FCGI_FILE *cgiOut;
/* Head of the form entry list, null when there are no fields. Urlencoded
 * fields stand in input order, multipart parts in reverse input order. */
QM_EXPORT extern cgiFormEntry *cgiFormEntryFirst;
/* Always 0: requests are never restored from a capture. */
QM_EXPORT extern int cgiRestored;
/* 1 once a cgiInitResources() of this process has succeeded. */
QM_EXPORT extern int firstCookie;
/* Cleared per request; the multipart parser stops when it is set. */
QM_EXPORT extern volatile sig_atomic_t got_sigpipe;
/* Hex digit values: '0'-'9', 'A'-'F', 'a'-'f'; every other byte 0. */
QM_EXPORT extern int cgiHexValue[256];

/* ---- Request set-up and parsing --------------------------------------- */

/* Reads the environment and parses the request. upload_sink is null for
 * ordinary CGIs; the firmware upload passes the stream that receives the
 * uploaded file, which also lifts the body size limit. Returns 0 when the
 * handler may go on, -1 when it must answer with its own error (body too
 * large, unusable length, failed urlencoded parse). */
QM_EXPORT int cgiInitResources(FCGI_FILE *upload_sink);
/* Frees every form entry (unlinking temporary files) and empties the list. */
QM_EXPORT void cgiFreeResources(void);
/* Why the last cgiInitResources refused the request, as an HTTP status: 413
 * for a body over the limit, 400 for an unusable length or a short body,
 * 500 when memory ran out; 0 when nothing was refused. Cleared by the next
 * cgiInitResources or cgiFreeResources. */
QM_EXPORT int cgiRefusedStatus(void);

/* Urlencoded parsers. Results: 0 success, 1 out of memory, 2 short read
 * (fewer bytes than the content length), 3 nothing read. */
QM_EXPORT int cgiParseGetFormInput(void);
QM_EXPORT int cgiParsePostFormInput(void);
/* Parses exactly length bytes of data and appends the fields to the list. */
QM_EXPORT int cgiParseFormInput(const char *data, int length);
/* Parses a multipart body of cgiContentLength bytes from cgiIn. */
QM_EXPORT int cgiParsePostMultipartInput(FCGI_FILE *upload_sink);

/* URL-unescapes length bytes of text into a fresh malloc'd string
 * (*result, freed by the caller). 0 on success, 1 out of memory. */
QM_EXPORT int cgiUnescapeChars(char **result, const char *text, int length);
QM_EXPORT void cgiSetupConstants(void);
/* *target = getenv(name), or "" when unset. */
QM_EXPORT void cgiGetenv(const char **target, const char *name);
/* getenv(name), faster for the request's CGI variables: they are read from
 * a table taken in one pass over the environment and taken again whenever
 * the environment changes. Null when unset. */
QM_EXPORT const char *cgiRequestVariable(const char *name);
/* Creates an empty temporary file "/var/tmp/cgicXXXXXX" (under QUELM_ROOT)
 * with mode 0777 and writes its path into buffer (size bytes; use
 * CGIC_TEMP_NAME_SIZE). 0 on success, 2 when the path does not fit or the
 * file cannot be made. */
QM_EXPORT int getTempFileName(char *buffer, size_t size);
QM_EXPORT cgiFormEntry *getFormEntries(void);
/* Reads and discards length bytes of cgiIn, stopping early at end of input. */
QM_EXPORT void flushinput(int length);

/* ---- POST protection hooks -------------------------------------------- */

QM_EXPORT void cgiSecureInit(const char *cgi_name);
/* 1 to serve the request, 0 to refuse it. */
QM_EXPORT int cgiSecurePostAllowed(void);
/* Writes the refusal response. */
QM_EXPORT int cgiSecurePostAbort(void);
/* Per-field hook of the form lookup: nonzero when the field may be read. */
QM_EXPORT int cgiSecurePostVar(const char *name);

/* ---- Form accessors ---------------------------------------------------- */

/* Lookup: the first (then next) entry named exactly name that the
 * per-field hook accepts; null when there is none. */
QM_EXPORT cgiFormEntry *cgiFormEntryFindFirst(const char *name);
QM_EXPORT cgiFormEntry *cgiFormEntryFindNext(void);

/* Copies at most max - 1 bytes, always terminated. cgiFormString turns each
 * run of CR/LF into LFs, cgiFormStringNoNewlines drops such runs. */
QM_EXPORT cgiFormResultType cgiFormString(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiFormStringNoNewlines(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiFormStringSpaceNeeded(const char *name, int *length);
/* All values of name; free the array with cgiStringArrayFree. */
QM_EXPORT cgiFormResultType cgiFormStringMultiple(const char *name, char ***ptrToStringArray);
QM_EXPORT void cgiStringArrayFree(char **stringArray);

QM_EXPORT cgiFormResultType cgiFormInteger(const char *name, int *result, int defaultV);
QM_EXPORT cgiFormResultType cgiFormIntegerBounded(const char *name, int *result, int min, int max,
                                                  int defaultV);
QM_EXPORT cgiFormResultType cgiFormDouble(const char *name, double *result, double defaultV);
QM_EXPORT cgiFormResultType cgiFormDoubleBounded(const char *name, double *result, double min,
                                                 double max, double defaultV);

QM_EXPORT cgiFormResultType cgiFormSelectSingle(const char *name, const char *const *choicesText,
                                                int choicesTotal, int *result, int defaultV);
QM_EXPORT cgiFormResultType cgiFormSelectMultiple(const char *name, const char *const *choicesText,
                                                  int choicesTotal, int *result, int *invalid);
QM_EXPORT cgiFormResultType cgiFormCheckboxSingle(const char *name);
QM_EXPORT cgiFormResultType cgiFormCheckboxMultiple(const char *name, const char *const *valuesText,
                                                    int valuesTotal, int *result, int *invalid);
QM_EXPORT cgiFormResultType cgiFormRadio(const char *name, const char *const *valuesText, int valuesTotal,
                                         int *result, int defaultV);

/* Uploaded files (multipart parts with a temporary file). */
QM_EXPORT cgiFormResultType cgiFormFileName(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiFormFileContentType(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiFormTmpFileName(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiFormFileSize(const char *name, int *sizeP);
QM_EXPORT cgiFormResultType cgiFormFileOpen(const char *name, cgiFilePtr *cfpp);
QM_EXPORT cgiFormResultType cgiFormFileRead(cgiFilePtr cfp, char *buffer, int bufferSize, int *gotP);
QM_EXPORT cgiFormResultType cgiFormFileClose(cgiFilePtr cfp);

/* Distinct field names, in list order; free with cgiStringArrayFree. */
QM_EXPORT cgiFormResultType cgiFormEntries(char ***ptrToStringArray);

/* ---- Cookies ------------------------------------------------------------ */

QM_EXPORT cgiFormResultType cgiCookieString(const char *name, char *result, int max);
QM_EXPORT cgiFormResultType cgiCookieInteger(const char *name, int *result, int defaultV);
/* All cookie names; free with cgiStringArrayFree. */
QM_EXPORT cgiFormResultType cgiCookies(char ***ptrToStringArray);

/* ---- Header writers (to cgiOut) ---------------------------------------- */

/* One header line "CONTENT-LANGUAGE: <HTTP_ACCEPT_LANGUAGE>", written only
 * when the browser sent that header and its value is printable ASCII (a
 * line break in it would add header lines of the visitor's own). */
QM_EXPORT void cgiHeaderContentLanguage(void);
/* Each of these three ends the header block: call exactly one of them,
 * after any cookie headers. */
QM_EXPORT void cgiHeaderContentType(const char *mimeType);
QM_EXPORT void cgiHeaderStatus(int status, const char *statusMessage);
/* Redirects through a script in a small HTML page (no Location header). */
QM_EXPORT void cgiHeaderLocation(const char *redirectUrl);
QM_EXPORT void cgiHeaderCookieSetString(const char *name, const char *value, int secondsToLive,
                                        const char *path, const char *domain);
QM_EXPORT void cgiHeaderCookieSetInteger(const char *name, int value, int secondsToLive,
                                         const char *path, const char *domain);

/* ---- Small string helpers ---------------------------------------------- */

/* 1 when a and b are equal ignoring the case of letters, else 0. */
QM_EXPORT int cgiStrEqNc(const char *a, const char *b);
/* 1 when s begins with prefix ignoring the case of letters, else 0. */
QM_EXPORT int cgiStrBeginsNc(const char *s, const char *prefix);
/* The first character of s after blanks (space, LF, CR, tab); 0 at the end. */
QM_EXPORT int cgiFirstNonspaceChar(const char *s);

#ifdef __cplusplus
}
#endif

#endif
