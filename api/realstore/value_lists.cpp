// Values of the real-time store in lists: a list of references or the
// members of a data set, saved in one write transaction (every value or
// none) or read in one read transaction (the store at one moment).
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "internal/qvfeed_hooks.h"
#include "internal/qvsqlite.h"
#include "internal/qvreport.h"
#include "internal/qvtexts.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

using namespace qvreal;

namespace {

// A begin or commit that fails for a reason other than busy is tried this
// many times, with a pause in between, before the save gives up: every other
// process waits on the store lock meanwhile.
constexpr int kTransactionControlAttempts = 5;
constexpr useconds_t kControlFailurePauseMicros = 10000;

// The member query of zq_getDataSetSubsByParams with the reference alone:
// the same table, conditions and so the same index, hence the members in
// the same order, without decoding eight columns that nobody reads.
const char* const kMemberListSql = "select fcdaName from DataSetSub ";

// A name row holds at most 256 bytes, terminator or not.
std::string_view nameRowReference(const DaNameRow& row) {
    return {row, strnlen(row, sizeof row)};
}

// A member's reference as a DataSetSub record holds it: at most 255 bytes.
std::string_view memberReference(sqlite3_stmt* row) {
    const char* text = reinterpret_cast<const char*>(sqlite3_column_text(row, 0));
    if (text == nullptr) text = "";
    return {text, strnlen(text, sizeof(DataSetSub::fcdaName) - 1)};
}

// One consistent snapshot of the store for a list of reads.
class ReadTransaction {
public:
    ReadTransaction() { runControl(kBeginRead); }
    ~ReadTransaction() {
        if (sqlite3_get_autocommit(s_sqliteDB)) return;
        if (runControl(kCommit) != SQLITE_OK) runControl(kRollback);
    }
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;
};

enum class TransactionStep { Begin, Commit };

void printTransactionFailure(TransactionStep step, bool withQuality, int rc, const char* text) {
    if (text == nullptr) text = "";
    const int code = qvreport::codeOfSqlite(rc, text);
    if (step == TransactionStep::Begin && withQuality)
        qvreport::failure(code, qvtext::kSaveList1BeginFailed, rc, text);
    else if (step == TransactionStep::Begin)
        qvreport::failure(code, qvtext::kSaveListBeginFailed, rc, text);
    else if (withQuality)
        qvreport::failure(code, qvtext::kSaveList1CommitFailed, text);
    else
        qvreport::failure(code, qvtext::kSaveListCommitFailed, rc, text);
}

// Runs the begin or the commit of a save list. The begin takes the write
// lock at once, so that no element step meets a busy store. Busy is waited
// out; any other failure is tried again a bounded number of times and then
// reported once, with the first failure's cause.
bool runTransactionStep(TransactionStep step, bool withQuality) {
    const Control control = step == TransactionStep::Begin ? kBeginWrite : kCommit;
    int failures = 0;
    int firstCode = SQLITE_OK;
    std::string firstCause;
    for (;;) {
        const int rc = runControl(control);
        if (rc == SQLITE_OK) return true;
        if (rc != SQLITE_BUSY && firstCode == SQLITE_OK) {
            firstCode = rc;
            firstCause = sqlite3_errmsg(s_sqliteDB);
        }
        if (rc == SQLITE_BUSY) {
            usleep(qvsql::kBusyPauseMicros);
            continue;
        }
        // SQLite may have rolled the transaction back itself (a full disk at
        // commit): then no repetition can commit it.
        const bool transactionGone =
            step == TransactionStep::Commit && sqlite3_get_autocommit(s_sqliteDB);
        if (++failures == kTransactionControlAttempts || transactionGone) break;
        usleep(kControlFailurePauseMicros);
    }
    printTransactionFailure(step, withQuality, firstCode, firstCause.c_str());
    return false;
}

// A save list that cannot go on leaves nothing behind.
int abandonSave() {
    if (!sqlite3_get_autocommit(s_sqliteDB)) runControl(kRollback);
    return -1;
}

// The times that a list save writes: none for an untimed save; for a timed
// one each element's given time, or the time of the save where that is
// <= 0 or no times are given.
struct SaveTimes {
    bool timed;
    const double* given;
    double of(int i) const {
        if (!timed) return 0;
        return timeOfSave(given != nullptr ? given[i] : 0);
    }
};

constexpr SaveTimes kUntimed{false, nullptr};

// Saves element i of a list's values, qualities (when given) and times. An
// element whose reference has no row changes nothing and succeeds.
bool saveElement(sqlite3_stmt* stmt, std::string_view reference, const double* values,
                 const int* qualities, SaveTimes times, int i, bool lockHeld) {
    const ValueIn in{values[i], qualities != nullptr ? &qualities[i] : nullptr, times.of(i)};
    return saveKey(rowKey(reference), in, stmt, lockHeld) >= 0;
}

// Where a list read puts element i: values always, qualities and times
// when given.
struct ListOut {
    double* values;
    int* qualities;
    double* timestamps;
    ValueOut at(int i) const {
        return {&values[i], nullptr, qualities != nullptr ? &qualities[i] : nullptr,
                timestamps != nullptr ? &timestamps[i] : nullptr};
    }
};

// Reads element i (with the quality and time when asked for): true when
// read or without a row (the element then keeps the caller's value), false
// after a failed step.
bool readElement(sqlite3_stmt* stmt, std::string_view reference, const ListOut& out, int i,
                 bool lockHeld) {
    return readKey(rowKey(reference), out.at(i), stmt, lockHeld) != -2;
}

// Writes the list in one transaction through the shared update statement
// (with the qualities when given): every element or, when one fails, none.
int saveValueList(const DaNameRow* names, const double* values, const int* qualities,
                  SaveTimes times, int count) {
    const bool withQuality = qualities != nullptr;
    sqlite3_stmt* const stmt = withQuality ? s_stmt_update1 : s_stmt_update;
    StoreLock lock;
    qvfeed::SaveGroup changes(lock.held());
    if (!runTransactionStep(TransactionStep::Begin, withQuality)) return abandonSave();
    for (int i = 0; i < count; ++i) {
        if (!saveElement(stmt, nameRowReference(names[i]), values, qualities, times, i,
                         lock.held()))
            return abandonSave();
    }
    if (!runTransactionStep(TransactionStep::Commit, withQuality)) return abandonSave();
    changes.committed();
    return 0;
}

// Reads the list in one read transaction, so that it shows the store at one
// moment. A failed step ends the list with -1.
int readValueList(const DaNameRow* names, int count, const ListOut& out) {
    sqlite3_stmt* const stmt = out.qualities != nullptr ? s_stmt_select1 : s_stmt_select;
    StoreLock lock;
    ReadTransaction snapshot;
    for (int i = 0; i < count; ++i) {
        if (!readElement(stmt, nameRowReference(names[i]), out, i, lock.held()))
            return -1;
    }
    return 0;
}

// Runs the member query of one data set and hands each member's reference,
// in query order, to onMember for as long as it returns true. A failed query
// reports itself and "err initDaValueDataSetInfo".
template <typename OnMember>
int forEachMember(const char* iedName, const char* dataSetName, OnMember onMember) {
    const Filters filters = memberFilters(iedName, dataSetName, nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr);
    sqlite3_stmt* const stmt = keptQuery(filteredSql(kMemberListSql, filters));
    int result = -1;
    if (stmt == nullptr) {
        printPrepareError();
    } else {
        filterBinds(filters)(stmt);
        result = storeQueries().forEachRow(
            stmt, [&onMember](sqlite3_stmt* row) { return onMember(memberReference(row)); });
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
    if (result != 0) qvreport::failure(qvreport::t_lastCode, "%s", qvtext::kDataSetMembersFailed);
    return result;
}

// The most of a caller's name that a message repeats.
constexpr int kEchoedNameMax = 64;

// Saves the first `count` members' values in one write transaction with the
// member query; values beyond the members have nowhere to go, so they make
// the save fail and roll back: nothing is written.
int saveDataSetValues(const char* iedName, const char* dataSetName, const double* values,
                      const int* qualities, SaveTimes times, int count,
                      const char* operation) {
    const bool withQuality = qualities != nullptr;
    sqlite3_stmt* const stmt = withQuality ? s_stmt_update1 : s_stmt_update;
    StoreLock lock;
    qvfeed::SaveGroup changes(lock.held());
    if (!runTransactionStep(TransactionStep::Begin, withQuality)) return abandonSave();
    int members = 0;
    bool saved = true;
    const int listed = forEachMember(iedName, dataSetName, [&](std::string_view reference) {
        if (members < count)
            saved = saveElement(stmt, reference, values, qualities, times, members, lock.held());
        ++members;
        return saved;
    });
    if (listed != 0 || !saved) return abandonSave();
    if (count > members) {
        qvreport::failure(QV_ERR_ARGUMENT,
                          "%s: %d values given, data set %.*s has %d members; nothing saved\n",
                          operation, count, kEchoedNameMax,
                          dataSetName != nullptr ? dataSetName : "", members);
        return abandonSave();
    }
    if (!runTransactionStep(TransactionStep::Commit, withQuality)) return abandonSave();
    changes.committed();
    return 0;
}

// Reads the values of at most `capacity` members, in member order, in one
// read transaction; *pCount = the number of members read. 1 when more
// members matched than the capacity allowed.
int readDataSetValues(const char* iedName, const char* dataSetName, const ListOut& out,
                      int capacity, int* pCount) {
    sqlite3_stmt* const stmt = out.qualities != nullptr ? s_stmt_select1 : s_stmt_select;
    StoreLock lock;
    ReadTransaction snapshot;
    int members = 0;
    bool more = false;
    bool read = true;
    const int listed = forEachMember(iedName, dataSetName, [&](std::string_view reference) {
        if (members == capacity) {
            more = true;
            return false;
        }
        if (read)
            read = readElement(stmt, reference, out, members, lock.held());
        ++members;
        return true;
    });
    if (listed != 0) return -1;
    *pCount = members;
    if (!read) return -1;
    return more ? 1 : 0;
}

}  // namespace

int zq_saveDAValues(const DaNameRow* pDaNames, const double* pDaVals, int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__)))
        return -1;
    return saveValueList(pDaNames, pDaVals, nullptr, kUntimed, count);
}

int zq_saveDAValues1(const DaNameRow* pDaNames, const double* pDaVals, const int* pCharacter,
                     int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveValueList(pDaNames, pDaVals, pCharacter, kUntimed, count);
}

int zq_getDAValues(const DaNameRow* pDaNames, int count, double* pDaVals) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__)))
        return -1;
    return readValueList(pDaNames, count, {pDaVals, nullptr, nullptr});
}

int zq_getDAValues1(const DaNameRow* pDaNames, int count, double* pDaVals, int* pCharacter) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__)))
        return -1;
    return readValueList(pDaNames, count, {pDaVals, pCharacter, nullptr});
}

int zq_saveDAValuesByDataSet(const char* iedName, const char* dataSetName, const double* pDaVals,
                             int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && !argumentGiven(pDaVals, __func__)) return -1;
    return saveDataSetValues(iedName, dataSetName, pDaVals, nullptr, kUntimed, count, __func__);
}

int zq_saveDAValues1ByDataSet(const char* iedName, const char* dataSetName,
                              const double* pDaVals, const int* pCharacter, int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveDataSetValues(iedName, dataSetName, pDaVals, pCharacter, kUntimed, count,
                             __func__);
}

int zq_getDAValuesByDataSet(const char* iedName, const char* dataSetName, double* pDaVals,
                            int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pDaVals, __func__) ||
        !argumentGiven(pCount, __func__))
        return -1;
    return readDataSetValues(iedName, dataSetName, {pDaVals, nullptr, nullptr}, INT_MAX, pCount);
}

int zq_getDAValues1ByDataSet(const char* iedName, const char* dataSetName, double* pDaVals,
                             int* pCharacter, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pDaVals, __func__) ||
        !argumentGiven(pCharacter, __func__) || !argumentGiven(pCount, __func__))
        return -1;
    return readDataSetValues(iedName, dataSetName, {pDaVals, pCharacter, nullptr}, INT_MAX,
                             pCount);
}

int zq_getDAValuesByDataSetN(const char* iedName, const char* dataSetName, double* pDaVals,
                             int capacity, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    if (capacity > 0 && !argumentGiven(pDaVals, __func__)) return -1;
    *pCount = 0;
    return readDataSetValues(iedName, dataSetName, {pDaVals, nullptr, nullptr},
                             std::max(capacity, 0), pCount);
}

int zq_getDAValues1ByDataSetN(const char* iedName, const char* dataSetName, double* pDaVals,
                              int* pCharacter, int capacity, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    if (capacity > 0 && (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__)))
        return -1;
    *pCount = 0;
    return readDataSetValues(iedName, dataSetName, {pDaVals, pCharacter, nullptr},
                             std::max(capacity, 0), pCount);
}

// The timed forms: the qualities are required, the times of a save may be
// left out (the time of the save for every element).
int zq_saveDAValuesT(const DaNameRow* pDaNames, const double* pDaVals, const int* pCharacter,
                     const double* pTimestamps, int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveValueList(pDaNames, pDaVals, pCharacter, {true, pTimestamps}, count);
}

int zq_getDAValuesT(const DaNameRow* pDaNames, int count, double* pDaVals, int* pCharacter,
                    double* pTimestamps) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__) ||
                      !argumentGiven(pTimestamps, __func__)))
        return -1;
    return readValueList(pDaNames, count, {pDaVals, pCharacter, pTimestamps});
}

int zq_saveDAValuesByDataSetT(const char* iedName, const char* dataSetName,
                              const double* pDaVals, const int* pCharacter,
                              const double* pTimestamps, int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveDataSetValues(iedName, dataSetName, pDaVals, pCharacter, {true, pTimestamps},
                             count, __func__);
}

int zq_getDAValuesByDataSetT(const char* iedName, const char* dataSetName, double* pDaVals,
                             int* pCharacter, double* pTimestamps, int capacity, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    if (capacity > 0 &&
        (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__) ||
         !argumentGiven(pTimestamps, __func__)))
        return -1;
    *pCount = 0;
    return readDataSetValues(iedName, dataSetName, {pDaVals, pCharacter, pTimestamps},
                             std::max(capacity, 0), pCount);
}

