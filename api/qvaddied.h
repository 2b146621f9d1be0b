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
 * The load takes no store lock and does not wait for a busy store: while
 * other processes write values it may find the store busy and return -1
 * ("database is locked"); try it again. It writes everything in one
 * transaction, so other processes see the old model or the new one, never a
 * mix. Loads in several threads of one process keep nothing in common but
 * the store file: each may run, and each may meet the other's transaction
 * as a busy store. A message line goes to standard error for every failure
 * and for every libxml2 warning.
 *
 * Codes that the loads leave in zq_lastErrorCode (see qverror.h):
 * - QV_ERR_MODEL: -2, the file could not be used as a model, or no IED name
 *   was given.
 * - QV_ERR_BUSY: another connection held the store.
 * - QV_ERR_FULL, QV_ERR_IO, QV_ERR_CORRUPT, QV_ERR_PERMISSION,
 *   QV_ERR_INTERNAL: -1, the store could not be opened or written, by cause.
 */
#ifndef QVADDIED_H
#define QVADDIED_H

#include "qverror.h"
#include "qvexport.h"

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

#ifdef __cplusplus
}
#endif

#endif /* QVADDIED_H */
