/**
 * @file qvconf.h
 * @brief The configuration store.
 *
 *
 * Processes and their numbers, scales, message routes, device model
 * associations, process data associations and per-process settings.
 * Call zq_openConfDB first; every query then runs on that one connection.
 * Results: 0 success, -1 failure.
 *
 * Lists are count-then-fetch, and the count and the fetch are separate
 * queries: rows that another process adds in between would overrun an array
 * sized from the count. Each list therefore has a bounded form, named after
 * it with the suffix N, that takes the array's capacity just before the count
 * argument: it writes at most `capacity` records (none when it is 0 or less),
 * sets *pCount to the number written and returns 0 when every matching row
 * fitted, 1 when more rows matched (the array holds the first `capacity`
 * rows, in the usual order), -1 on failure. Prefer the bounded forms.
 *
 * A lookup of one record fills it from the first matching row in table order
 * and returns -1 without a message, leaving it untouched, when no row
 * matches; so does every query by process name for a name that
 * ProcessConfig lacks.
 *
 * zq_openConfDB opens an existing store only: a missing file is -1 with the
 * line "no configuration store at PATH" (QV_ERR_NOT_OPEN), and nothing is
 * created. It puts the store in write-ahead-log mode (the shipped schema and
 * qvtool init create it so), where readers never wait for a writer; an older
 * store that cannot be switched at once (another connection on it, a
 * read-only file) keeps its journal. A busy store is waited for at the
 * prepare and at every step, every 2 ms for at most QV_CONF_BUSY_WAIT_MS;
 * the lists of processes announce each pause with a line on standard
 * output, "sqlite3_step SQLITE_BUSY". A store still busy then fails the
 * query with -1, its prepare or step line ("... database is locked") and
 * QV_ERR_BUSY: never taken for a missing row.
 *
 * Threads: the queries may be called from several threads of one process
 * (SQLite serialises them on the one connection); open before the threads
 * start and close after they end.
 *
 * Codes that the operations leave in zq_lastErrorCode (see qverror.h):
 * - QV_ERR_ARGUMENT: a required pointer or text is NULL.
 * - QV_ERR_NOT_OPEN: a query before zq_openConfDB; zq_openConfDB on a
 *   missing file.
 * - QV_ERR_NO_ROW: a lookup without a row, or a query by a process name
 *   that ProcessConfig lacks (-1, no line).
 * - QV_ERR_CORRUPT: the file is not a database or lacks the table.
 * - QV_ERR_PERMISSION: zq_setProcessMiscValue on a store that may not be written.
 * - QV_ERR_BUSY: the store stayed busy past QV_CONF_BUSY_WAIT_MS.
 * - QV_ERR_FULL, QV_ERR_IO, QV_ERR_INTERNAL: SQLite's other failures, by
 *   their cause.
 */
#ifndef QVCONF_H
#define QVCONF_H

#include "qverror.h"
#include "qvexport.h"

/** How long a query waits for a busy store, in milliseconds. */
#ifndef QV_CONF_BUSY_WAIT_MS
#define QV_CONF_BUSY_WAIT_MS 5000
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct ProcessConfig {
    char processName[128];
    char processDescribe[128];
};

struct ScaleConfig {
    char name[128];
    double maxValue;
    double minValue;
    double userMaxValue;
    double userMinValue;
};

/** One route: messages whose kind bit is set in msgType go from the
 * sending to the receiving process. */
struct ProcessMsgAssociation {
    int sendProcessNo;
    int recvProcessNo;
    int msgType;
};

struct DeviceModelAssociation {
    char associateName[128];
    int lineNo;
    int dataType;
    int dataIndex;
    int type;
    char daName[256];
};

struct ProcessDataAssociation {
    char associateName[128];
    int dataType;
    int dataIndex;
    char daName[256];
    int scaleNo;
};

struct ProcessMisc {
    char key[128];
    char value[1024];
    char describe[128];
};

/* ---- Connection, processes, scales, routes ---------------------------- */

QV_API int zq_openConfDB(void);
QV_API int zq_closeConfDB(void);
QV_API int zq_getAllProcessConfigsNum(int* pCount);
QV_API int zq_getAllProcessConfigs(struct ProcessConfig* pProcessConfigs, int* pCount);
QV_API int zq_getAllProcessConfigsN(struct ProcessConfig* pProcessConfigs, int capacity,
                                    int* pCount);
QV_API int zq_getProcessNoByName(const char* processName, int* pProcessNo);
QV_API int zq_getScaleConfigsNum(int* pCount);
QV_API int zq_getScaleConfig(int scaleNo, struct ScaleConfig* pCfg);
QV_API int zq_getProcessMsgAssociationsNum(const char* sendProcess, int* pCount);
QV_API int zq_getProcessMsgAssociations(const char* sendProcess,
                                        struct ProcessMsgAssociation* pAssociations,
                                        int* pCount);
QV_API int zq_getProcessMsgAssociationsN(const char* sendProcess,
                                         struct ProcessMsgAssociation* pAssociations,
                                         int capacity, int* pCount);

/* ---- Device model associations ---------------------------------------- */

QV_API int zq_getAllDeviceModelAssociationsNum(int* pCount);
QV_API int zq_getAllDeviceModelAssociations(struct DeviceModelAssociation* pAssociations,
                                            int* pCount);
QV_API int zq_getAllDeviceModelAssociationsN(struct DeviceModelAssociation* pAssociations,
                                             int capacity, int* pCount);
QV_API int zq_getDeviceModelAssociationsByTypeNum(int dataType, int* pCount);
QV_API int zq_getDeviceModelAssociationsByType(int dataType,
                                               struct DeviceModelAssociation* pAssociations,
                                               int* pCount);
QV_API int zq_getDeviceModelAssociationsByTypeN(int dataType,
                                                struct DeviceModelAssociation* pAssociations,
                                                int capacity, int* pCount);
QV_API int zq_getDeviceInputNumByType(int dataType, int* pCount);
QV_API int zq_getDeviceModelAssociationsByTypeIndexNum(int dataType, int dataIndex,
                                                       int* pCount);
QV_API int zq_getDeviceModelAssociationsByTypeIndex(int dataType, int dataIndex,
                                                    struct DeviceModelAssociation* pAssociations,
                                                    int* pCount);
QV_API int zq_getDeviceModelAssociationsByTypeIndexN(int dataType, int dataIndex,
                                                     struct DeviceModelAssociation* pAssociations,
                                                     int capacity, int* pCount);
QV_API int zq_getDeviceModelAssociationByName(const char* associateName,
                                              struct DeviceModelAssociation* pAssociation);

/* ---- Process data associations and settings --------------------------- */

QV_API int zq_getAllProcessDataAssociationsNum(const char* processName, int* pCount);
QV_API int zq_getAllProcessDataAssociations(const char* processName,
                                            struct ProcessDataAssociation* pAssociations,
                                            int* pCount);
QV_API int zq_getAllProcessDataAssociationsN(const char* processName,
                                             struct ProcessDataAssociation* pAssociations,
                                             int capacity, int* pCount);
QV_API int zq_getProcessDataAssociationsByTypeNum(const char* processName, int dataType,
                                                  int* pCount);
QV_API int zq_getProcessDataAssociationsByType(const char* processName, int dataType,
                                               struct ProcessDataAssociation* pAssociations,
                                               int* pCount);
QV_API int zq_getProcessDataAssociationsByTypeN(const char* processName, int dataType,
                                                struct ProcessDataAssociation* pAssociations,
                                                int capacity, int* pCount);
QV_API int zq_getProcessDataAssociationByTypeIndex(const char* processName, int dataType,
                                                   int dataIndex,
                                                   struct ProcessDataAssociation* pAssociation);
QV_API int zq_getProcessDataAssociationByName(const char* processName,
                                              const char* associateName,
                                              struct ProcessDataAssociation* pAssociation);
QV_API int zq_getProcessMiscValue(const char* processName, const char* key,
                                  struct ProcessMisc* pMisc);
/** Writes value and describe of the setting `key` of the process; the
 * record's own key field is ignored. A setting that does not exist is not
 * added: the write changes nothing and returns 0. */
QV_API int zq_setProcessMiscValue(const char* processName, const char* key,
                                  const struct ProcessMisc* pMisc);

#ifdef __cplusplus
}
#endif

#endif /* QVCONF_H */
