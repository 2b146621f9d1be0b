/**
 * @file qvrealapi.h
 * @brief The real-time store.
 *
 *
 * Connection, store lock and row keys; single, bulk and data-set value
 * access; queries over the device model; the terminal access list, terminal
 * information and feeder topology tables.
 *
 * Every operation except zq_openRealDB, zq_closeRealDB, initRealSem and
 * RSHash needs an open connection (zq_openRealDB) and runs under the
 * inter-process store lock. Results: 0 success, -1 failure.
 *
 * Lists are count-then-fetch: a ...Num operation counts the rows and the list
 * operation fills the caller's array, which the caller sized from that count.
 * The two are separate operations, and another process may add rows in
 * between; the list then writes past the array. Every list therefore has a
 * bounded form, named after it with the suffix N, that takes the array's
 * capacity just before the count argument. It writes at most `capacity`
 * records (none when it is 0 or less), sets *pCount to the number written and
 * returns 0 when every matching row fitted, 1 when more rows matched (the
 * array holds the first `capacity` rows, in the usual order), -1 on failure.
 * Prefer the bounded forms; the others write one record per matching row,
 * however many.
 *
 * A lookup of one record (..ByName, ..ById, zq_getTopoInforPower) fills the
 * record from the first matching row in table order when several rows match,
 * and returns -1 without a message, leaving the record untouched, when none
 * does. A save or update whose row does not exist changes nothing and
 * returns 0.
 *
 * Threads: every operation but zq_openRealDB and zq_closeRealDB may be called
 * from several threads of one process at once; the store lock lets one at a
 * time use the process's single connection. Open before the threads start
 * and close after they end.
 *
 * Messages: a failure says why in one line on standard error (or to the
 * handler of zq_setMessageHandler). Two operations also print a line on
 * standard output, "sqlite3_step SQLITE_BUSY", before each pause while
 * another connection keeps the store busy: zq_getLTUInforStateByName and
 * zq_getLTUInforById.
 *
 * Codes that the operations leave in zq_lastErrorCode (see qverror.h):
 * - QV_ERR_ARGUMENT: a required pointer is NULL; a data-set save with more
 *   values than the set has members.
 * - QV_ERR_NOT_OPEN: any operation of the store before zq_openRealDB.
 * - QV_ERR_NO_ROW: a lookup or single-value read that finds no row (-1, no
 *   line); a single-value save whose row does not exist (which returns 0).
 * - QV_ERR_BUSY: another connection held the store where the library does
 *   not wait.
 * - QV_ERR_FULL: the store's file system is full.
 * - QV_ERR_IO: zq_openRealDB finds no store file (make it with qvtool init);
 *   another I/O failure of SQLite.
 * - QV_ERR_CORRUPT: the file is not a database, or lacks the model tables.
 * - QV_ERR_PERMISSION: the store file may not be written.
 * - QV_ERR_INTERNAL: any other SQLite failure.
 */
#ifndef QVREALAPI_H
#define QVREALAPI_H

#include "qverror.h"
#include "qvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Model records ---------------------------------------------------- */

typedef struct DataSet {
    char iedName[33];
    char name[33];
    char ldInst[33];
    char desc[256];
} DataSet;

typedef struct DataSetSub {
    char fcdaName[256];
    char iedName[33];
    char dsName[33];
    char ldInst[33];
    char lnClass[5];
    char lnInst[8];
    char doName[33];
    char daName[33];
    char fc[3];
} DataSetSub;

typedef struct DA {
    char daName[256];
    char iedName[33];
    char ldName[33];
    char lnName[12];
    char doName[33];
    char fcName[3];
    char value[256];
    char valueType[16];
    char doDesc[256];
} DA;

/* ---- Device registry and topology records ----------------------------- */

typedef struct LTUAccess {
    char date_time[256];
    char deviceid[256];
    int accessmodel;
    char desc[64];
    char key[256];
    char version[64];
} LTUAccess;

typedef struct LTUInfor {
    int id;
    char QVsoftware_version[8];
    char QVhardware_version[8];
    char SGsoftware_version[8];
    char SGhardware_version[8];
    char name[33];
    char addr[33];
    int failedcount;
    int state;
    char desc[256];
} LTUInfor;

typedef struct TopoInfor {
    int id;
    char type[16];
    char m_rln[64];
    char name[64];
    char l_link[64];
    char r_link[64];
    int power_flag;
    char iedName[32];
    char substation[64];
} TopoInfor;

/** One DA reference of a name list: a NUL-terminated text in 256 bytes. */
typedef char DaNameRow[256];

/* ---- Connection, lock and keys ---------------------------------------- */

/** Opens the process's connection to the store that `qvtool init` made (it
 * never creates one) and prepares the value statements: 0, also when it is
 * open already; -1 with a line when the store is missing, not a database or
 * without the model tables. Not thread-safe: open before the threads start. */
QV_API int zq_openRealDB(void);
/** Closes the connection: always 0. Not thread-safe: close after the threads end. */
QV_API int zq_closeRealDB(void);
/** The store lock: one System V semaphore. initRealSem creates it free when it
 * does not exist and never resets an existing one (another process may hold
 * it); a process that ends while holding it, however it ends, releases it. */
QV_API int initRealSem(void);
QV_API void locksem(int semid);
QV_API void unlocksem(int semid);
/** The row key of a DA reference: the hash of its first len bytes, each byte
 * taken as a signed char. Different references can share a key. */
QV_API unsigned int RSHash(const char* str, unsigned int len);

/* ---- Single values ---------------------------------------------------- */

/** @name Single values
 * The value (and with the forms ending in 1 the quality) of the value row of
 * the DA reference daName, saved or read under the store lock. */
/** @{ */
/** Saves val and the quality `character` into the value row of daName.
 * Returns 0 when saved, and also when no row has that reference (nothing
 * changes; zq_lastErrorCode() is then QV_ERR_NO_ROW); -1 with a line when
 * daName is NULL, the store is not open or the write fails. Thread-safe. */
QV_API int zq_saveDoubDAValue1(const char* daName, double val, int character);
QV_API int zq_saveDoubDAValue(const char* daName, double val);
QV_API int zq_saveIntDAValueValue(const char* daName, int val);
QV_API int zq_saveIntDAValueValue1(const char* daName, int val, int character);
QV_API int zq_getIntDAValue(const char* daName, int* pValue);
QV_API int zq_getIntDAValue1(const char* daName, int* pValue, int* pCharacter);
QV_API int zq_getDoubDAValue(const char* daName, double* pValue);
QV_API int zq_getDoubDAValue1(const char* daName, double* pValue, int* pCharacter);
/** @} */

/* ---- Timed values ----------------------------------------------------- */

/** @name Timed values
 * The value, quality and time of value rows. */
/** @{ */
/* Times are seconds since 1970-01-01 UTC (the DAValue.timestamp column). A save's timestamp
   <= 0 means the time of the save (the system's real-time clock); a list's pTimestamps NULL means
   that for every element. Results, skipped rows and transactions as their untimed forms. */
QV_API int zq_saveDoubDAValueT(const char* daName, double val, int character, double timestamp);
QV_API int zq_saveIntDAValueValueT(const char* daName, int val, int character, double timestamp);
QV_API int zq_getDoubDAValueT(const char* daName, double* pValue, int* pCharacter, double* pTimestamp);
QV_API int zq_getIntDAValueT(const char* daName, int* pValue, int* pCharacter, double* pTimestamp);
QV_API int zq_saveDAValuesT(const DaNameRow* pDaNames, const double* pDaVals,
                            const int* pCharacter, const double* pTimestamps, int count);
QV_API int zq_getDAValuesT(const DaNameRow* pDaNames, int count, double* pDaVals,
                           int* pCharacter, double* pTimestamps);
QV_API int zq_saveDAValuesByDataSetT(const char* iedName, const char* dataSetName,
                                     const double* pDaVals, const int* pCharacter,
                                     const double* pTimestamps, int count);
/* bounded like the ...N reads: 0 all members fitted, 1 more members than capacity, -1 failure */
QV_API int zq_getDAValuesByDataSetT(const char* iedName, const char* dataSetName,
                                    double* pDaVals, int* pCharacter, double* pTimestamps,
                                    int capacity, int* pCount);
/** @} */

/* ---- Data sets and members -------------------------------------------- */

/** @name Data sets and members
 * zq_getDataSetSubByName: the first member row with that reference, of any
 * data set. The ...ByParams filters: a NULL text is no condition; "" matches
 * only an empty column. */
/** @{ */
QV_API int zq_getAllDataSetsNum(int* pCount);
QV_API int zq_getAllDataSets(DataSet* pSets, int* pCount);
QV_API int zq_getAllDataSetsN(DataSet* pSets, int capacity, int* pCount);
QV_API int zq_getDataSetByName(const char* iedName, const char* name, DataSet* pSet);
QV_API int zq_getDataSetSubByName(const char* fcdaName, DataSetSub* pSub);
QV_API int zq_getDataSetSubsByParamsNum(const char* iedName, const char* dsName,
                                        const char* ldInst, const char* lnClass,
                                        const char* lnInst, const char* doName,
                                        const char* daName, const char* fc, int* pCount);
QV_API int zq_getDataSetSubsByParams(const char* iedName, const char* dsName,
                                     const char* ldInst, const char* lnClass,
                                     const char* lnInst, const char* doName,
                                     const char* daName, const char* fc,
                                     DataSetSub* pSubs, int* pCount);
QV_API int zq_getDataSetSubsByParamsN(const char* iedName, const char* dsName,
                                      const char* ldInst, const char* lnClass,
                                      const char* lnInst, const char* doName,
                                      const char* daName, const char* fc,
                                      DataSetSub* pSubs, int capacity, int* pCount);
/** @} */

/* ---- Bulk and data-set values ----------------------------------------- */

/** @name Bulk and data-set values
 * A save list is written whole or not at all: an element whose reference has
 * no row is skipped, any other failure leaves the store as it was and
 * returns -1. A list read shows the store at one moment; an element whose
 * reference has no row keeps the caller's value (and quality).
 *
 * The data-set operations address the members of zq_getDataSetSubsByParams
 * with the IED and data set names, in its order; iedName or dataSetName NULL
 * leaves that condition out. A data-set save with more values than members
 * writes nothing and returns -1 (QV_ERR_ARGUMENT) with a line saying how many
 * members the set has; one with fewer values writes the first `count`
 * members. */
/** @{ */
QV_API int zq_saveDAValues(const DaNameRow* pDaNames, const double* pDaVals, int count);
QV_API int zq_saveDAValues1(const DaNameRow* pDaNames, const double* pDaVals,
                            const int* pCharacter, int count);
QV_API int zq_getDAValues(const DaNameRow* pDaNames, int count, double* pDaVals);
QV_API int zq_getDAValues1(const DaNameRow* pDaNames, int count, double* pDaVals,
                           int* pCharacter);
QV_API int zq_saveDAValuesByDataSet(const char* iedName, const char* dataSetName,
                                    const double* pDaVals, int count);
QV_API int zq_saveDAValues1ByDataSet(const char* iedName, const char* dataSetName,
                                     const double* pDaVals, const int* pCharacter,
                                     int count);
QV_API int zq_getDAValuesByDataSet(const char* iedName, const char* dataSetName,
                                   double* pDaVals, int* pCount);
QV_API int zq_getDAValues1ByDataSet(const char* iedName, const char* dataSetName,
                                    double* pDaVals, int* pCharacter, int* pCount);
/** @} */

/** The bounded forms of the two data-set reads: at most `capacity` values
 * (and qualities), in member order; 0, 1 when members were left out, -1. */
QV_API int zq_getDAValuesByDataSetN(const char* iedName, const char* dataSetName,
                                    double* pDaVals, int capacity, int* pCount);
QV_API int zq_getDAValues1ByDataSetN(const char* iedName, const char* dataSetName,
                                     double* pDaVals, int* pCharacter, int capacity,
                                     int* pCount);

/* ---- Data attributes -------------------------------------------------- */

/** Looked up by the reference's row key (RSHash): the first DA row with that
 * key, even when its own daName differs (two references sharing a key). */
QV_API int zq_getDAByName(const char* daName, DA* pDa);
QV_API int zq_getDAsByParamsNum(const char* iedName, const char* ldName,
                                const char* lnName, const char* doName,
                                const char* fcName, int* pCount);
QV_API int zq_getDAsByParams(const char* iedName, const char* ldName,
                             const char* lnName, const char* doName,
                             const char* fcName, DA* pDas, int* pCount);
QV_API int zq_getDAsByParamsN(const char* iedName, const char* ldName,
                              const char* lnName, const char* doName,
                              const char* fcName, DA* pDas, int capacity, int* pCount);

/* ---- Terminal access list --------------------------------------------- */

QV_API int zq_addLTUAccess(const LTUAccess* pLTUAccess);
QV_API int zq_deleteLTUAccessByDeviceid(const char* deviceid);
QV_API int zq_getAllLTUAccessNum(int* pCount);
QV_API int zq_getAllLTUAccess(LTUAccess* pLTUAccess, int* pCount);
QV_API int zq_getAllLTUAccessN(LTUAccess* pLTUAccess, int capacity, int* pCount);

/* ---- Terminal information --------------------------------------------- */

/** @name Adding and deleting terminals and nodes
 * The add and delete operations of the registry and topology tables run
 * without a transaction: zq_addLTUInfors and zq_addTopoInfors stop at the
 * first record that cannot be written and keep the ones before it. */
/** @{ */
QV_API int zq_addLTUInfor(const LTUInfor* pLTUInfor);
QV_API int zq_addLTUInfors(const LTUInfor* pLTUInfors, int count);
QV_API int zq_deleteAllLTUInfors(void);
QV_API int zq_deleteLTUInforByName(const char* name);
QV_API int zq_getAllLTUInforsNum(int* pCount);
QV_API int zq_getAllLTUInfors(LTUInfor* pLTUInfors, int* pCount);
QV_API int zq_getAllLTUInforsN(LTUInfor* pLTUInfors, int capacity, int* pCount);
QV_API int zq_getLTUInforByName(const char* name, LTUInfor* pLTUInfor);
/** @} */
/** Writes every field of the record but id and name into the rows named
 * `name`; the record's id and name are ignored. */
QV_API int zq_setLTUInforByName(const char* name, const LTUInfor* pLTUInfor);
QV_API int zq_setLTUInforStateByName(const char* name, int state);
/** A name that no row carries fails like a failed step, with its line. */
QV_API int zq_getLTUInforStateByName(const char* name, int* pState);
/** No row and a failed step both return -1 without a message (QV_ERR_NO_ROW
 * or the step's code). */
QV_API int zq_getLTUInforById(int id, LTUInfor* pLTUInfor);

/* ---- Feeder topology -------------------------------------------------- */

QV_API int zq_addTopoInfor(const TopoInfor* pTopoInfor);
QV_API int zq_addTopoInfors(const TopoInfor* pTopoInfors, int count);
QV_API int zq_deleteAllTopoInfors(void);
QV_API int zq_deleteTopoInforByLNName(const char* name);
QV_API int zq_getAllTopoInforsNum(int* pCount);
QV_API int zq_getAllTopoInfors(TopoInfor* pTopoInfors, int* pCount);
QV_API int zq_getAllTopoInforsN(TopoInfor* pTopoInfors, int capacity, int* pCount);
QV_API int zq_getTopoInforByLNName(const char* name, TopoInfor* pTopoInfor);
QV_API int zq_getTopoInforPower(TopoInfor* pTopoInfor);
/** @name Neighbours
 * The nodes whose l_link (left) or r_link (right) equals that
 * link of the node named `name` (its m_rln), the node itself excluded (the
 * first row of that name is passed over). -1 when no node has that name. */
/** @{ */
QV_API int zq_getLeftTopoInforsNumByLNName(const char* name, int* pCount);
QV_API int zq_getLeftTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount);
QV_API int zq_getLeftTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                         int* pCount);
QV_API int zq_getRightTopoInforsNumByLNName(const char* name, int* pCount);
QV_API int zq_getRightTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount);
QV_API int zq_getRightTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                          int* pCount);
/** @} */

#ifdef __cplusplus
}
#endif

#endif /* QVREALAPI_H */
