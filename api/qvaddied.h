/**
 * @file qvaddied.h
 * @brief The model loader. Reads an SCL (ICD or CID) file and writes its
 * device model and initial value rows into the real-time store.
 *
 * Every IED of the file is loaded; each row carries its own IED's name, and a
 * reload replaces the rows of the file's IEDs. The file may be UTF-8 (with or
 * without a byte order mark) or any encoding it declares that libxml2 knows;
 * the store holds UTF-8.
 *
 * zq_addIEDRealDB results: 0 loaded; -2 the file could not be read as a
 * model (not found, not XML, not SCL, a required attribute missing, a cyclic
 * type, a name too long, more than a million attributes or 100 000
 * nested entries in the types); -1 the store
 * could not be opened or written. On -1 and -2 the store is left exactly as
 * it was.
 *
 * The load takes no store lock. A store busy with another writer (value
 * saves of other processes, another load) is waited for, every 2 ms for at
 * most QV_LOAD_BUSY_WAIT_MS in all; only a writer that holds the store longer
 * makes the load return -1 (QV_ERR_BUSY). It writes everything in one
 * transaction, so other processes see the old model or the new one, never a
 * mix, and their reads never wait for it; their saves wait for its commit
 * without holding the store lock. Loads in several threads of one process
 * keep nothing in common but the store file: each may run, and each may meet
 * the other's transaction
 * as a busy store. A message line goes to standard error for every failure
 * and for every libxml2 warning.
 *
 * Codes that the loads leave in zq_lastErrorCode (see qverror.h):
 * - QV_ERR_MODEL: -2, the file could not be used as a model, or no IED name
 *   was given.
 * - QV_ERR_BUSY: another connection held the store for longer than
 *   QV_LOAD_BUSY_WAIT_MS.
 * - QV_ERR_FULL, QV_ERR_IO, QV_ERR_CORRUPT, QV_ERR_PERMISSION,
 *   QV_ERR_INTERNAL: -1, the store could not be opened or written, by cause.
 */
#ifndef QVADDIED_H
#define QVADDIED_H

#include "qverror.h"
#include "qvexport.h"

/** How long a load waits for a store busy with another writer, in milliseconds. */
#ifndef QV_LOAD_BUSY_WAIT_MS
#define QV_LOAD_BUSY_WAIT_MS 10000
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Value class of a value row, stored in DAValue.type. */
typedef enum DA_CONF_TYPE {
    OTHER_TYPE = 0,
    MO_NI_LIANG = 1,              /* analog measurement */
    DIAN_DIAN_SHU_ZI_LIANG = 2,   /* single-point status */
    SHUANG_DIAN_SHU_ZI_LIANG = 3, /* double-point status */
    SBO_YAO_KONG_LIANG = 4,       /* select-before-operate control */
    DIAN_DU_LEI_JIA_LIANG = 5,    /* metered energy */
    SHU_ZI_SHU_CHU_LIANG = 6      /* digital output */
} DA_CONF_TYPE;

/** Loads every IED of the SCL file cid_file: 0, -1 or -2 as said above. */
QV_API int zq_addIEDRealDB(const char* cid_file);

/** The same load restricted to the IED named iedName (the file's data type
 * templates are shared by all its IEDs); -2 when the file has no IED of that
 * name. */
QV_API int zq_addIEDRealDBByName(const char* file, const char* iedName);

/** Options of zq_addIEDRealDBEx. Set size to sizeof(QvLoadOptions). */
typedef struct QvLoadOptions {
    unsigned int size;          /* sizeof(QvLoadOptions); later versions append fields */
    const char* iedName;        /* NULL or "": every IED of the file; else that IED only */
    int lnPrefix;               /* 0: a logical node is named lnClass+inst, as zq_addIEDRealDB;
                                   1: prefix+lnClass+inst, the IEC 61850 name */
    const char* valueClasses;   /* NULL: the five agreed data set names, as zq_addIEDRealDB;
                                   else rules, below */
} QvLoadOptions;

/* 0 loaded, -2 the file or an option could not be used (store untouched), -1 the store could not
   be written (store untouched). options NULL: exactly zq_addIEDRealDB.

   valueClasses: comma-separated rules PATTERN=CLASS, tried in order; the first whose PATTERN
   matches a data set's whole name (case-sensitive, '*' any run, '?' one character) classes all
   its members. CLASS: ain (1), din (2, 3 for data object "Pos"), control (4), energy (5), none
   (no value row), or byfc (MX ain, ST din, CO control, others none). A data set that no rule
   matches: the five agreed names keep their classes, others get no value rows. "*=byfc" makes
   every member of every data set a value row. A size smaller than sizeof(QvLoadOptions) or a
   rule that does not parse: -2. A larger size is accepted; the fields beyond are ignored. */
QV_API int zq_addIEDRealDBEx(const char* file, const QvLoadOptions* options);

#ifdef __cplusplus
}
#endif

#endif /* QVADDIED_H */
