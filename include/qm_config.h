/*
 * Gateway configuration library: the data model, its schema, the shared
 * error code, the configuration file (lock, commit, revert, factory) and
 * the system calls (reboot, status) that the web back end uses.
 *
 * The data model has a running configuration, which every write changes at
 * once and which every process sees, and a saved one: QM_FILE_commit saves
 * the running configuration, QM_FILE_revert puts the saved one back.
 *
 * Names: an object's full name is its path joined by "_"
 * ("Services_IADConfigurator"); instance n of a List or Array is
 * "<list>_<n>" (n from 1, no leading zero); a property is "<object>_<name>".
 *
 * Every text returned by a getter is allocated with malloc and released by
 * the caller with free(); record lists are released with QM_DAT_freedata.
 *
 * Every QM_DAT_, QM_XML_, QM_FILE_, QM_SYS_ and QM_STATUS_ call stores its
 * result (0 or an error number below) in the shared error code, so that
 * QM_err_get() right after a getter tells whether it found a value.
 *
 * The calls may be made without QM_Cfg_Init: the library then opens itself
 * on first use and follows QUELM_ROOT as it is at each call. While a
 * QM_Cfg_Init is outstanding it keeps the QUELM_ROOT and QUELM_LOG_FILE it
 * saw at the first one (a FastCGI responder's environment is replaced by
 * each request's parameters). Not thread-safe, like the rest of the process.
 */
#ifndef QM_CONFIG_H
#define QM_CONFIG_H

#include <stdint.h>
#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QM_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define QM_PRINTF(f, a)
#endif

/* Schema type codes answered by QM_XML_gettype and stored in records. */
enum {
    QM_TYPE_STRING = 1,
    QM_TYPE_INT = 2,               /* signed 32-bit decimal */
    QM_TYPE_UINT = 3,              /* unsigned 32-bit decimal */
    QM_TYPE_BOOL = 4,              /* "0" or "1" */
    QM_TYPE_IPV4 = 5,              /* dotted quad, or "" for none */
    QM_TYPE_SECRET_ENCRYPTED = 14, /* written encrypted by the web pages; masked on output */
    QM_TYPE_SECRET = 28,           /* masked on output */
    QM_TYPE_NODE = 31,             /* structured node, and every List or Array instance */
    QM_TYPE_ARRAY = 32,            /* instances 1..count */
    QM_TYPE_LIST = 33              /* sparse instances */
};

/* Error numbers of the data-model calls (0 is success). */
enum {
    QM_ERR_NONE = 0,
    QM_ERR_UNKNOWN_OBJECT = 2,  /* name not in the schema, or of the wrong kind for the call */
    QM_ERR_BAD_VALUE = 3,       /* value does not fit the property's type, or bad filter */
    QM_ERR_STORAGE = 4,         /* the database or a platform file failed */
    QM_ERR_EXISTS = 5,          /* instance already there */
    QM_ERR_NOT_INSTANCE = 6,    /* not an instance of a List or Array, or an Array
                                   instance out of sequence (Arrays grow and shrink
                                   at their end only) */
    QM_ERR_NOTHING = 7,         /* nothing stored under that name (absent instance
                                   or property, nothing to delete) */
    QM_ERR_LOCKED = 8,          /* configuration lock held elsewhere */
    QM_ERR_NOT_INIT = 9         /* the gateway root is not initialised (no schema or
                                   no database: run "qmcfg init") */
};

/* One stored property; lists are singly linked and owned by the caller
 * (release with QM_DAT_freedata). */
typedef struct QM_DAT_record {
    char *name;   /* full property name, e.g. "User_1_Username" */
    char *value;  /* value as text */
    int8_t type;  /* schema type code */
    struct QM_DAT_record *next;
} QM_DAT_record;

/* Library life cycle. Calls nest: every QM_Cfg_Init needs one QM_Cfg_Free,
 * and only the last QM_Cfg_Free releases the state (and the configuration
 * lock if this process still holds it). `flag` and further arguments are
 * ignored. Returns 0, or QM_ERR_NOT_INIT when the root is not initialised
 * (the call still counts and needs its QM_Cfg_Free). */
QM_EXPORT int QM_Cfg_Init(int flag, ...);
QM_EXPORT void QM_Cfg_Free(void);

/* Logging at LOG_INFO through the system log (and QUELM_LOG_FILE when
 * set). QM_LOG_print prints nothing until QM_LOG_set(1); QM_LOG_set(0)
 * silences it again. */
QM_EXPORT void QM_LOG_set(int on);
QM_EXPORT void QM_LOG_print(const char *format, ...) QM_PRINTF(1, 2);

/* Shared error code: QM_err_set stores and returns code. */
QM_EXPORT int QM_err_set(int code);
QM_EXPORT int QM_err_get(void);

/* Data model. */

/* List: the instance numbers in increasing order joined by "," ("" when
 * empty). Array: the count in decimal. Null on failure. */
QM_EXPORT char *QM_DAT_getobjcount(const char *object);

/* Records of the object (or single property) and all its descendants, in
 * schema order with instances in numeric order; null when nothing is
 * stored. `object` may also be "<list>_*" followed by where clauses
 * "[field OP value]" (OP one of = != < <= > >= ?=; < <= > >= compare as
 * decimal integers, ?= tests membership in a ","-separated value): the
 * records of every instance for which all clauses hold. `flag` is 0. */
QM_EXPORT QM_DAT_record *QM_DAT_getobjdata(const char *object, int flag);
QM_EXPORT void QM_DAT_freedata(QM_DAT_record **records);

/* One record as QM_DAT_visitobjdata shows it: the texts are the library's,
 * valid during the call only, and NUL-terminated after their length. */
typedef struct QM_DAT_view {
    const char *name;
    size_t name_len;
    const char *value;
    size_t value_len;
    int8_t type;
} QM_DAT_view;

/* Calls visit(context, record) for each record QM_DAT_getobjdata would
 * return, in the same order, without copying them; a visit that returns
 * non-zero stops the walk. The visitor must not call the library. Returns
 * 0, or the error code (also stored, as QM_DAT_getobjdata leaves it) when
 * there are no records. */
typedef int (*QM_DAT_visitor)(void *context, const QM_DAT_view *record);
QM_EXPORT int QM_DAT_visitobjdata(const char *object, QM_DAT_visitor visit, void *context);

/* The records QM_DAT_getobjdata would return, in the same order, without
 * copying them: *views points at *count views that stay valid, texts
 * included, until QM_DAT_releaseobjdata(*hold), whatever the library is
 * asked meanwhile (a later read may drop the records from the library's
 * cache; the hold keeps them). Returns 0, or the error code (also stored)
 * when there are no records: *views, *count and *hold are then null and 0. */
typedef struct QM_DAT_hold QM_DAT_hold;
QM_EXPORT int QM_DAT_holdobjdata(const char *object, const QM_DAT_view **views, size_t *count, QM_DAT_hold **hold);
/* Gives up a hold (null is ignored). */
QM_EXPORT void QM_DAT_releaseobjdata(QM_DAT_hold *hold);

/* Value of one property; null if absent. */
QM_EXPORT char *QM_DAT_getobjproperty(const char *object, const char *property);
/* A stamp of the values the getters give: it changes whenever the data model
 * may have changed since (another process or this one committed), so a
 * caller may keep what it derived from them under the same stamp. 0 when
 * values may not be kept (no change counter, or no database). */
QM_EXPORT unsigned long long QM_DAT_changestamp(void);

/* Validates and stores value in the running configuration. store_only 0
 * also asks the services that use the property to apply the change (on the
 * host: a line in the apply log when the value changed); 1 only stores it.
 * A null value is refused (QM_ERR_BAD_VALUE). The instance must exist. */
QM_EXPORT int QM_DAT_setobjproperty(const char *object, const char *property, const char *value,
                                    int store_only);

/* Creates the instance `object` (e.g. "User_4") with the schema's defaults,
 * including its own Arrays' instances. Its parent must exist; an Array
 * instance must be count+1. `flag` is 0. */
QM_EXPORT int QM_DAT_createobject(const char *object, int flag);

/* Deletes the instance `object` and everything below it; QM_ERR_NOTHING
 * when it does not exist. Only the last instance of an Array can go. */
QM_EXPORT int QM_DAT_deleteobject(const char *object, int flag);

/* Puts back the factory value (or, for a property the factory defaults do
 * not name, the schema default) of: the property `object`, or the direct
 * properties of the object `object` (flag 0), or every property at any
 * depth below it in existing instances (flag 1). Instances are neither
 * added nor removed. */
QM_EXPORT int QM_DAT_resetobjdata(const char *object, int flag);

/* Schema path of an object or property name ("User_3_Username" gives
 * "User.{i}.Username"); null if the schema has no such name. Whether the
 * instance exists is not checked. */
QM_EXPORT char *QM_DAT_objname2xmlpath(const char *object);

/* Schema: writes the type code of a schema path; 0 on success, else
 * QM_ERR_UNKNOWN_OBJECT. */
QM_EXPORT int QM_XML_gettype(const char *xmlpath, int32_t *type);

/* Configuration file. */

/* Takes the cross-process configuration lock, waiting up to 2 s (or
 * QUELM_LOCK_WAIT_MS, read when the library opens) for another holder;
 * QM_ERR_LOCKED when it stays taken. Nests within a process. */
QM_EXPORT int QM_FILE_lock(void);
/* Releases one level of QM_FILE_lock; QM_ERR_NOTHING when not held. */
QM_EXPORT int QM_FILE_unlock(void);
/* Saves the running configuration. `flag` is ignored. */
QM_EXPORT int QM_FILE_commit(int flag);
/* Puts the saved configuration back into the running one. */
QM_EXPORT int QM_FILE_revert(void);
/* Sets running and saved configuration to the factory defaults and records
 * "factory <option>" in the platform event log. */
QM_EXPORT int QM_FILE_factory(int option);

/* System. On the host these only record "reboot <delay>" and
 * "status <status>" in the platform event log. */
QM_EXPORT int QM_SYS_reboot(int delay);
QM_EXPORT int QM_STATUS_set(int status);

#ifdef __cplusplus
}
#endif

#endif
