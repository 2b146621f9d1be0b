// The configuration store: one connection per process and its queries.
//
// Every query runs the same way (see execute()): resolve the process name
// when the query belongs to a process, then the query runner that both
// stores share prepares once, binds, steps with busy retry, hands the rows
// to the shape of the operation (count, list or single record) and
// finalises. The exported operations only name their SQL,
// their parameters and where the rows go.
#include "qvconf.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <vector>

#include "internal/qvbuildconfig.h"
#include "internal/qvcheck.h"
#include "internal/qvconf_internal.h"
#include "internal/qvquery.h"
#include "internal/qvreport.h"
#include "internal/qvsqlite.h"
#include "internal/qvtexts.h"

using qvsql::copyColumnText;

namespace {

sqlite3* s_sqliteDB = nullptr;

// ---- A busy store, waited for within a bound ------------------------------------

// Repeats call() while the store is busy, every kBusyPauseMicros, for at
// most QV_CONF_BUSY_WAIT_MS; `announce` puts a line on stdout before each
// pause. The last result stays SQLITE_BUSY when the wait ran out.
template <typename Call>
int whileBusy(const Call& call, bool announce = false) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(QV_CONF_BUSY_WAIT_MS);
    int rc;
    while ((rc = call()) == SQLITE_BUSY && std::chrono::steady_clock::now() < deadline) {
        if (announce) qvreport::notice(QV_ERR_BUSY, true, "%s\n", qvtext::kStepBusy);
        usleep(qvsql::kBusyPauseMicros);
    }
    return rc;
}

int stepWithinBound(sqlite3_stmt* stmt) {
    return whileBusy([stmt] { return sqlite3_step(stmt); });
}
int stepWithinBoundAnnouncing(sqlite3_stmt* stmt) {
    return whileBusy([stmt] { return sqlite3_step(stmt); }, true);
}
int prepareWithinBound(sqlite3* db, const char* sql, sqlite3_stmt** stmt) {
    return whileBusy([=] { return sqlite3_prepare_v2(db, sql, -1, stmt, nullptr); });
}


// ---- SQL texts ------------------------------------------------------------------

const char* const kCountProcessesSql = "select count(*) from ProcessConfig";
const char* const kListProcessesSql = "select processName,processDescribe from ProcessConfig";
const char* const kProcessNoSql = "select no from ProcessConfig  where processName=?";
const char* const kCountScalesSql = "select count(*) from ScaleConfig";
const char* const kScaleSql =
    "select name,maxValue,minValue,userMaxValue,userMinValue from ScaleConfig  where no=?";
const char* const kCountRoutesSql =
    "select count(*) from ProcessMsgAssociation where sendProcessNo=?";
const char* const kListRoutesSql =
    "select sendProcessNo,recvProcessNo,msgType from ProcessMsgAssociation where sendProcessNo=?";

const char* const kCountDevicePointsSql = "select count(*) from DeviceModelAssociation";
const char* const kListDevicePointsSql =
    "select associateName,lineNo,dataType,dataIndex,daName,type from DeviceModelAssociation";
const char* const kCountDevicePointsByTypeSql =
    "select count(*) from DeviceModelAssociation where dataType=?";
const char* const kListDevicePointsByTypeSql =
    "select associateName,lineNo,dataType,dataIndex,daName,type from DeviceModelAssociation  "
    "where dataType=?";
const char* const kCountDeviceInputsSql =
    "select count(*) from (select distinct dataType,dataIndex  from DeviceModelAssociation "
    "where dataType=?)";
const char* const kCountDevicePointsByTypeIndexSql =
    "select count(*) from DeviceModelAssociation where dataType=? and dataIndex=?";
const char* const kListDevicePointsByTypeIndexSql =
    "select associateName,lineNo,dataType,dataIndex,daName,type from DeviceModelAssociation  "
    "where dataType=? and dataIndex=?";
const char* const kDevicePointByNameSql =
    "select associateName,lineNo,dataType,dataIndex,daName,type from DeviceModelAssociation  "
    "where associateName=?";

const char* const kCountProcessPointsSql =
    "select count(*) from ProcessDataAssociation  where processNo=? ";
const char* const kListProcessPointsSql =
    "select associateName,dataType,dataIndex,daName,scaleNo from ProcessDataAssociation  "
    "where processNo=? ";
const char* const kCountProcessPointsByTypeSql =
    "select count(*) from ProcessDataAssociation  where processNo=?  and dataType=? ";
const char* const kListProcessPointsByTypeSql =
    "select associateName,dataType,dataIndex,daName,scaleNo from ProcessDataAssociation  "
    "where processNo=? and dataType=? ";
const char* const kProcessPointByTypeIndexSql =
    "select associateName,dataType,dataIndex,daName,scaleNo from ProcessDataAssociation  "
    "where processNo=? and dataType=? and dataIndex=?";
const char* const kProcessPointByNameSql =
    "select associateName,dataType,dataIndex,daName,scaleNo from ProcessDataAssociation  "
    "where processNo=? and associateName=?";
const char* const kMiscValueSql =
    "select key,value,descripe from ProcessMisc  where processNo=? and key=?";
const char* const kUpdateMiscSql =
    "update ProcessMisc set value=?,descripe=?  where key=? and processNo=?";

// ---- One query --------------------------------------------------------------------

// A bound parameter: an int, a text of the caller's (bound in place), or the
// number of the query's process, resolved from its name before the prepare.
struct Param {
    enum class Kind { Number, Text, ProcessNo };
    Param(int value) : kind(Kind::Number), number(value) {}
    Param(const char* value) : kind(Kind::Text), text(value) {}
    explicit Param(Kind k) : kind(k) {}

    // A text field of a caller's record: at most size - 1 characters are
    // bound, whether or not the field is terminated.
    template <std::size_t N>
    static Param field(const char (&text)[N]) {
        Param param(text);
        param.maxLength = N - 1;
        return param;
    }

    Kind kind;
    int number = 0;
    const char* text = nullptr;
    std::size_t maxLength = SIZE_MAX;
};

const Param kProcessNo{Param::Kind::ProcessNo};

struct Query {
    const char* operation;  // names the caller's operation in messages
    const char* sql;
    std::vector<Param> params;  // in binding order
    const char* processName = nullptr;  // the process behind kProcessNo
    const char* prepareError = qvtext::kPrepareFailed;
    bool announceBusy = false;  // print a line on stdout before each busy pause
};

// Reads one row; false stops the reading before the next step.
using RowHandler = std::function<bool(sqlite3_stmt*)>;

using qvcheck::argumentGiven;

const char* const kStoreClosed =
    "the configuration store is not open (%s called before zq_openConfDB)";

// Reported like a failed prepare, which is where the query stops.
bool storeIsOpen(const Query& query) {
    return qvcheck::storeIsOpen(s_sqliteDB, query.operation, kStoreClosed, query.prepareError);
}

bool belongsToProcess(const Query& query) {
    for (const Param& param : query.params)
        if (param.kind == Param::Kind::ProcessNo) return true;
    return false;
}

// Refuses null texts and a closed store, then puts the process number in
// place of kProcessNo. An unknown process fails without a message.
bool prepareParams(Query& query) {
    const bool byProcess = belongsToProcess(query);
    if (byProcess && !argumentGiven(query.processName, query.operation)) return false;
    for (const Param& param : query.params)
        if (param.kind == Param::Kind::Text && !argumentGiven(param.text, query.operation))
            return false;
    if (!storeIsOpen(query)) return false;
    if (!byProcess) return true;
    int processNo = 0;
    if (zq_getProcessNoByName(query.processName, &processNo) != 0) return false;
    for (Param& param : query.params)
        if (param.kind == Param::Kind::ProcessNo) param = Param(processNo);
    return true;
}

void bindParams(sqlite3_stmt* stmt, const std::vector<Param>& params) {
    int index = 1;
    for (const Param& param : params) {
        if (param.kind == Param::Kind::Text)
            qvsql::bindText(stmt, index, param.text, param.maxLength);
        else
            sqlite3_bind_int(stmt, index, param.number);
        ++index;
    }
}

// Runs the query, handing its rows to onRow: 0 when it ran to the end or
// onRow stopped it, -1 (with a message) when it could not run.
int execute(Query query, const RowHandler& onRow) {
    if (!prepareParams(query)) return -1;
    const qvsql::QueryRunner runner{
        s_sqliteDB, query.prepareError,
        query.announceBusy ? stepWithinBoundAnnouncing : stepWithinBound, prepareWithinBound};
    return runner.queryRows(
        query.sql, [&query](sqlite3_stmt* stmt) { bindParams(stmt, query.params); }, onRow);
}

// ---- Rows into records ----------------------------------------------------------

// Reads the columns of the current row left to right into record fields.
class Columns {
public:
    explicit Columns(sqlite3_stmt* stmt) : stmt_(stmt) {}
    Columns& operator>>(int& field) {
        field = sqlite3_column_int(stmt_, next_++);
        return *this;
    }
    Columns& operator>>(double& field) {
        field = sqlite3_column_double(stmt_, next_++);
        return *this;
    }
    template <std::size_t N>
    Columns& operator>>(char (&field)[N]) {
        copyColumnText(stmt_, next_++, field);
        return *this;
    }

private:
    sqlite3_stmt* stmt_;
    int next_ = 0;
};

void fillRecord(Columns row, int& number) { row >> number; }

void fillRecord(Columns row, ProcessConfig& r) { row >> r.processName >> r.processDescribe; }

void fillRecord(Columns row, ScaleConfig& r) {
    row >> r.name >> r.maxValue >> r.minValue >> r.userMaxValue >> r.userMinValue;
}

void fillRecord(Columns row, ProcessMsgAssociation& r) {
    row >> r.sendProcessNo >> r.recvProcessNo >> r.msgType;
}

// The select list names daName before type; the record holds them the other way.
void fillRecord(Columns row, DeviceModelAssociation& r) {
    row >> r.associateName >> r.lineNo >> r.dataType >> r.dataIndex >> r.daName >> r.type;
}

void fillRecord(Columns row, ProcessDataAssociation& r) {
    row >> r.associateName >> r.dataType >> r.dataIndex >> r.daName >> r.scaleNo;
}

// The column is spelled descripe.
void fillRecord(Columns row, ProcessMisc& r) { row >> r.key >> r.value >> r.describe; }

// ---- The three shapes -------------------------------------------------------------

// The first row's first column into *pCount; no row leaves it 0.
int countRows(const Query& query, int* pCount) {
    if (!argumentGiven(pCount, query.operation)) return -1;
    *pCount = 0;
    return execute(query, [pCount](sqlite3_stmt* stmt) {
        fillRecord(Columns(stmt), *pCount);
        return false;
    });
}

// The capacity of a list without a limit of its own: the caller sized the
// array from the count.
constexpr int kNoLimit = INT_MAX;

// The rows into the caller's array from index 0, at most `capacity` of them;
// the count is delivered only when the query ran to its end. 0 when every
// row fitted, 1 when more rows matched than `capacity` allowed, -1 on failure.
template <typename Record>
int listRows(const Query& query, Record* records, int capacity, int* pCount) {
    if (!argumentGiven(pCount, query.operation)) return -1;
    *pCount = 0;
    if (!argumentGiven(records, query.operation)) return -1;
    qvsql::BoundedList<Record> list(records, capacity);
    const int result = execute(query, [&list](sqlite3_stmt* stmt) {
        return list.add(stmt, [](sqlite3_stmt* row, Record& record) {
            fillRecord(Columns(row), record);
        });
    });
    return list.finish(result, pCount);
}

// ---- The lists, each shared by its bounded form and the one without a limit ----

int listProcesses(ProcessConfig* records, int capacity, int* pCount, const char* operation) {
    Query query{operation, kListProcessesSql, {}};
    query.announceBusy = true;
    return listRows(query, records, capacity, pCount);
}

int listRoutes(const char* sendProcess, ProcessMsgAssociation* records, int capacity,
               int* pCount, const char* operation) {
    return listRows(Query{operation, kListRoutesSql, {kProcessNo}, sendProcess}, records,
                    capacity, pCount);
}

int listDevicePoints(DeviceModelAssociation* records, int capacity, int* pCount,
                     const char* operation) {
    return listRows(Query{operation, kListDevicePointsSql, {}}, records, capacity, pCount);
}

int listDevicePointsByType(int dataType, DeviceModelAssociation* records, int capacity,
                           int* pCount, const char* operation) {
    return listRows(Query{operation, kListDevicePointsByTypeSql, {dataType}}, records, capacity,
                    pCount);
}

int listDevicePointsByTypeIndex(int dataType, int dataIndex, DeviceModelAssociation* records,
                                int capacity, int* pCount, const char* operation) {
    return listRows(Query{operation, kListDevicePointsByTypeIndexSql, {dataType, dataIndex}},
                    records, capacity, pCount);
}

int listProcessPoints(const char* processName, ProcessDataAssociation* records, int capacity,
                      int* pCount, const char* operation) {
    return listRows(Query{operation, kListProcessPointsSql, {kProcessNo}, processName}, records,
                    capacity, pCount);
}

int listProcessPointsByType(const char* processName, int dataType,
                            ProcessDataAssociation* records, int capacity, int* pCount,
                            const char* operation) {
    return listRows(
        Query{operation, kListProcessPointsByTypeSql, {kProcessNo, dataType}, processName},
        records, capacity, pCount);
}

// The first row into the caller's record; no row is -1 and leaves it untouched.
template <typename Record>
int readFirstRow(const Query& query, Record* record) {
    if (!argumentGiven(record, query.operation)) return -1;
    bool found = false;
    const int result = execute(query, [record, &found](sqlite3_stmt* stmt) {
        fillRecord(Columns(stmt), *record);
        found = true;
        return false;
    });
    if (result == 0 && !found)
        qvreport::silentFailure(QV_ERR_NO_ROW, "%s: no row matches\n", query.operation);
    return result == 0 && found ? 0 : -1;
}

}  // namespace

// ---- Connection, processes, scales, routes ------------------------------------------

// The store is provisioned elsewhere: a missing file is not created.
int zq_openConfDB(void) {
    qvreport::succeeded();
    if (s_sqliteDB != nullptr) return 0;
    struct stat info;
    if (stat(QV_CONF_DB_PATH, &info) != 0 && errno == ENOENT) {
        qvreport::failure(QV_ERR_NOT_OPEN, "no configuration store at %s\n", QV_CONF_DB_PATH);
        return -1;
    }
    if (sqlite3_open_v2(QV_CONF_DB_PATH, &s_sqliteDB, SQLITE_OPEN_READWRITE, nullptr) !=
        SQLITE_OK) {
        qvreport::sqliteFailure(s_sqliteDB, qvtext::kOpenFailed);
        // Drop the failed handle so that the next open tries again.
        sqlite3_close(s_sqliteDB);
        s_sqliteDB = nullptr;
        return -1;
    }
    // Readers never wait for a writer in the write-ahead log. An older store
    // is switched when it can be at once (no other connection on it, a
    // writable file); otherwise it keeps its journal, and readers wait for
    // writers within the bound.
    sqlite3_exec(s_sqliteDB, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    return 0;
}

int zq_closeConfDB(void) {
    qvreport::succeeded();
    if (s_sqliteDB == nullptr) return 0;
    sqlite3_close(s_sqliteDB);
    s_sqliteDB = nullptr;
    return 0;
}

int zq_getAllProcessConfigsNum(int* pCount) {
    return countRows({"zq_getAllProcessConfigsNum", kCountProcessesSql, {}}, pCount);
}

int zq_getAllProcessConfigs(ProcessConfig* pProcessConfigs, int* pCount) {
    return listProcesses(pProcessConfigs, kNoLimit, pCount, __func__);
}

int zq_getAllProcessConfigsN(ProcessConfig* pProcessConfigs, int capacity, int* pCount) {
    return listProcesses(pProcessConfigs, capacity, pCount, __func__);
}

int zq_getProcessNoByName(const char* processName, int* pProcessNo) {
    return readFirstRow({"zq_getProcessNoByName", kProcessNoSql, {processName}}, pProcessNo);
}

int zq_getScaleConfigsNum(int* pCount) {
    return countRows({"zq_getScaleConfigsNum", kCountScalesSql, {}}, pCount);
}

int zq_getScaleConfig(int scaleNo, ScaleConfig* pCfg) {
    return readFirstRow({"zq_getScaleConfig", kScaleSql, {scaleNo}}, pCfg);
}

int zq_getProcessMsgAssociationsNum(const char* sendProcess, int* pCount) {
    return countRows(
        {"zq_getProcessMsgAssociationsNum", kCountRoutesSql, {kProcessNo}, sendProcess}, pCount);
}

int zq_getProcessMsgAssociations(const char* sendProcess, ProcessMsgAssociation* pAssociations,
                                 int* pCount) {
    return listRoutes(sendProcess, pAssociations, kNoLimit, pCount, __func__);
}

int zq_getProcessMsgAssociationsN(const char* sendProcess, ProcessMsgAssociation* pAssociations,
                                  int capacity, int* pCount) {
    return listRoutes(sendProcess, pAssociations, capacity, pCount, __func__);
}

// Routes added since the publisher's count are left for its next load: no failure.
int listRoutesOf(const char* sendProcess, ProcessMsgAssociation* routes, int capacity,
                 int* pCount) {
    return std::min(
        listRoutes(sendProcess, routes, capacity, pCount, "zq_getProcessMsgAssociations"), 0);
}

// ---- Device model associations ------------------------------------------------------

int zq_getAllDeviceModelAssociationsNum(int* pCount) {
    return countRows({"zq_getAllDeviceModelAssociationsNum", kCountDevicePointsSql, {}}, pCount);
}

int zq_getAllDeviceModelAssociations(DeviceModelAssociation* pAssociations, int* pCount) {
    return listDevicePoints(pAssociations, kNoLimit, pCount, __func__);
}

int zq_getAllDeviceModelAssociationsN(DeviceModelAssociation* pAssociations, int capacity,
                                      int* pCount) {
    return listDevicePoints(pAssociations, capacity, pCount, __func__);
}

int zq_getDeviceModelAssociationsByTypeNum(int dataType, int* pCount) {
    return countRows(
        {"zq_getDeviceModelAssociationsByTypeNum", kCountDevicePointsByTypeSql, {dataType}},
        pCount);
}

int zq_getDeviceModelAssociationsByType(int dataType, DeviceModelAssociation* pAssociations,
                                        int* pCount) {
    return listDevicePointsByType(dataType, pAssociations, kNoLimit, pCount, __func__);
}

int zq_getDeviceModelAssociationsByTypeN(int dataType, DeviceModelAssociation* pAssociations,
                                         int capacity, int* pCount) {
    return listDevicePointsByType(dataType, pAssociations, capacity, pCount, __func__);
}

int zq_getDeviceInputNumByType(int dataType, int* pCount) {
    return countRows({"zq_getDeviceInputNumByType", kCountDeviceInputsSql, {dataType}}, pCount);
}

int zq_getDeviceModelAssociationsByTypeIndexNum(int dataType, int dataIndex, int* pCount) {
    return countRows({"zq_getDeviceModelAssociationsByTypeIndexNum",
                      kCountDevicePointsByTypeIndexSql,
                      {dataType, dataIndex}},
                     pCount);
}

int zq_getDeviceModelAssociationsByTypeIndex(int dataType, int dataIndex,
                                             DeviceModelAssociation* pAssociations,
                                             int* pCount) {
    return listDevicePointsByTypeIndex(dataType, dataIndex, pAssociations, kNoLimit, pCount,
                                       __func__);
}

int zq_getDeviceModelAssociationsByTypeIndexN(int dataType, int dataIndex,
                                              DeviceModelAssociation* pAssociations,
                                              int capacity, int* pCount) {
    return listDevicePointsByTypeIndex(dataType, dataIndex, pAssociations, capacity, pCount,
                                       __func__);
}

int zq_getDeviceModelAssociationByName(const char* associateName,
                                       DeviceModelAssociation* pAssociation) {
    return readFirstRow(
        {"zq_getDeviceModelAssociationByName", kDevicePointByNameSql, {associateName}},
        pAssociation);
}

// ---- Process data associations and settings ---------------------------------------

int zq_getAllProcessDataAssociationsNum(const char* processName, int* pCount) {
    return countRows({"zq_getAllProcessDataAssociationsNum", kCountProcessPointsSql,
                      {kProcessNo}, processName},
                     pCount);
}

int zq_getAllProcessDataAssociations(const char* processName,
                                     ProcessDataAssociation* pAssociations, int* pCount) {
    return listProcessPoints(processName, pAssociations, kNoLimit, pCount, __func__);
}

int zq_getAllProcessDataAssociationsN(const char* processName,
                                      ProcessDataAssociation* pAssociations, int capacity,
                                      int* pCount) {
    return listProcessPoints(processName, pAssociations, capacity, pCount, __func__);
}

int zq_getProcessDataAssociationsByTypeNum(const char* processName, int dataType,
                                           int* pCount) {
    return countRows({"zq_getProcessDataAssociationsByTypeNum", kCountProcessPointsByTypeSql,
                      {kProcessNo, dataType}, processName},
                     pCount);
}

int zq_getProcessDataAssociationsByType(const char* processName, int dataType,
                                        ProcessDataAssociation* pAssociations, int* pCount) {
    return listProcessPointsByType(processName, dataType, pAssociations, kNoLimit, pCount,
                                   __func__);
}

int zq_getProcessDataAssociationsByTypeN(const char* processName, int dataType,
                                         ProcessDataAssociation* pAssociations, int capacity,
                                         int* pCount) {
    return listProcessPointsByType(processName, dataType, pAssociations, capacity, pCount,
                                   __func__);
}

int zq_getProcessDataAssociationByTypeIndex(const char* processName, int dataType,
                                            int dataIndex,
                                            ProcessDataAssociation* pAssociation) {
    return readFirstRow({"zq_getProcessDataAssociationByTypeIndex", kProcessPointByTypeIndexSql,
                         {kProcessNo, dataType, dataIndex}, processName},
                        pAssociation);
}

int zq_getProcessDataAssociationByName(const char* processName, const char* associateName,
                                       ProcessDataAssociation* pAssociation) {
    return readFirstRow({"zq_getProcessDataAssociationByName", kProcessPointByNameSql,
                         {kProcessNo, associateName}, processName},
                        pAssociation);
}

int zq_getProcessMiscValue(const char* processName, const char* key, ProcessMisc* pMisc) {
    return readFirstRow(
        {"zq_getProcessMiscValue", kMiscValueSql, {kProcessNo, key}, processName}, pMisc);
}

// The key argument names the row; the record's own key field is not used.
int zq_setProcessMiscValue(const char* processName, const char* key, const ProcessMisc* pMisc) {
    if (!argumentGiven(pMisc, "zq_setProcessMiscValue")) return -1;
    Query query{"zq_setProcessMiscValue", kUpdateMiscSql,
                {Param::field(pMisc->value), Param::field(pMisc->describe), key, kProcessNo},
                processName};
    query.prepareError = qvtext::kWriterPrepareFailed;
    return execute(query, [](sqlite3_stmt*) { return true; });
}
