// What the files of the real-time store share: the connection and the
// statements kept on it, the store lock, transaction control, values by row
// key, the query runner and the filters of the model queries. Internal to
// the store; not installed.
#ifndef QV_REALSTORE_REALSTORE_H
#define QV_REALSTORE_REALSTORE_H

#include <sqlite3.h>

#include <atomic>
#include <climits>
#include <string>
#include <vector>

#include "internal/qvcheck.h"
#include "internal/qvquery.h"
#include "internal/qvsqlite.h"
#include "internal/qvtexts.h"
#include "qvrealapi.h"

namespace qvreal {

// ---- The connection (connection.cpp) -----------------------------------------

extern sqlite3* s_sqliteDB;
// The value hot path: prepared at open, re-bound on every call.
extern sqlite3_stmt* s_stmt_select;
extern sqlite3_stmt* s_stmt_select1;
extern sqlite3_stmt* s_stmt_update;
extern sqlite3_stmt* s_stmt_update1;

// Every store operation refuses to run on a closed connection.
inline bool storeIsOpen(const char* operation) {
    return qvcheck::storeIsOpen(
        s_sqliteDB, operation, "%s: the real-time store is not open (call zq_openRealDB first)\n");
}

using qvcheck::argumentGiven;

// A failed prepare (the read form) or step on the connection, in the fixed texts.
void printPrepareError();
void printStepError();

// The statement kept in `slot`, prepared on first use (one attempt): SQLITE_OK
// or the failed prepare's result.
int keptStatement(sqlite3_stmt*& slot, const char* sql);

// The statement of this SQL text, kept for the connection's life; null when
// it cannot be prepared (one attempt, no busy retry).
sqlite3_stmt* keptQuery(const std::string& sql);

// Transaction control, kept on the connection as well: sqlite3_exec parses
// its text anew on every call, which costs a short list about as much as its
// values.
enum Control { kBeginRead, kBeginWrite, kCommit, kRollback, kControlCount };

// Runs one transaction control statement: SQLITE_OK, or the failed prepare's
// or step's result with the connection's message saying why.
int runControl(Control control);

// ---- The store lock (store_lock.cpp) -----------------------------------------

// Atomic: a thread that finds the set removed makes it anew while others use it.
extern std::atomic<int> s_RealSemId;

// Holds the store lock for one operation, and releases it on the set it
// was taken on.
class StoreLock {
public:
    StoreLock();
    ~StoreLock();
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    bool held() const { return semid_ != -1; }

private:
    const int semid_;
};

// ---- Values by row key (remembered_rows.cpp) ---------------------------------

using qvsql::rowKey;

inline void bindRowKey(sqlite3_stmt* stmt, int index, const char* daName) {
    sqlite3_bind_int64(stmt, index, rowKey(daName));
}

// Where a read puts what it found; null members are not wanted.
struct ValueOut {
    double* asDouble;
    int* asInt;
    int* quality;
    double* timestamp;
};

// What a save writes into a value row: the value, the quality when given and
// the time when positive (a timed save); an untimed save leaves the row's
// time alone.
struct ValueIn {
    double value;
    const int* quality;
    double timestamp;
};

// The time of a timed save: the given one when positive, else now (the
// real-time clock, seconds since the epoch).
double timeOfSave(double given);

// Saves a key's value (and quality and time when given): 0, or -2 after a
// failed step. A key without a row changes nothing and gives 1. Without the
// store lock the shared statement `byKey` saves by key (a timed save uses a
// statement of its own).
int saveKey(sqlite3_int64 key, ValueIn in, sqlite3_stmt* byKey, bool lockHeld);

// Reads a key's value and quality (and time when wanted): 0 read, -1 no row,
// -2 failed step. Without the store lock the shared statement `byKey` reads
// by key (a timed read uses a statement of its own).
int readKey(sqlite3_int64 key, ValueOut out, sqlite3_stmt* byKey, bool lockHeld);

// Finalises the statements of the remembered rows and forgets the rows.
void releaseRememberedRows();

// ---- Filters of the model queries (model_queries.cpp) ------------------------

// One optional condition of a filtered query. A null text is a condition not
// given; an empty text is given and matches only empty columns.
struct Filter {
    const char* column;
    const char* text;
    // Written "where x=? " instead of " where x=? " when it comes first (the
    // member queries' iedName condition follows the base text's blank directly).
    bool joinsBaseDirectly = false;
};

using Filters = std::vector<Filter>;

// The base text followed by one fragment per given filter, in filter order.
std::string filteredSql(const char* base, const Filters& filters);

Filters memberFilters(const char* iedName, const char* dsName, const char* ldInst,
                      const char* lnClass, const char* lnInst, const char* doName,
                      const char* daName, const char* fc);

// Binds the given filters to parameters 1, 2, 3 ... in filter order.
inline auto filterBinds(const Filters& filters) {
    return [&filters](sqlite3_stmt* stmt) {
        int index = 1;
        for (const Filter& filter : filters)
            if (filter.text != nullptr) qvsql::bindText(stmt, index++, filter.text);
    };
}

// For a query without parameters.
inline void noBinds(sqlite3_stmt*) {}

// ---- Queries --------------------------------------------------------------------

// The runner of this store's queries: a failed prepare is reported in the
// read form unless a writer names its own, and busy steps are waited out
// without a word.
inline qvsql::QueryRunner storeQueries(const char* prepareFailed = qvtext::kPrepareFailed) {
    return {s_sqliteDB, prepareFailed};
}

// Runs a statement prepared for this one call under one hold of the store
// lock; it is finalised before the lock is released.
template <typename Bind, typename Use>
int withStatement(const std::string& sql, Bind bind, Use use) {
    StoreLock lock;
    return storeQueries().withStatement(sql.c_str(), bind, use);
}

// The rows of a query, under one hold of the store lock, to onRow for as long
// as it returns true: 0, or -1 when the query fails.
template <typename Bind, typename OnRow>
int queryRows(const std::string& sql, Bind bind, const OnRow& onRow) {
    StoreLock lock;
    return storeQueries().queryRows(sql.c_str(), bind, onRow);
}

// *pCount from column 0 of the first row; without a row it stays as it is.
template <typename Bind>
int countRows(const std::string& sql, Bind bind, int* pCount) {
    return queryRows(sql, bind, [pCount](sqlite3_stmt* row) {
        *pCount = sqlite3_column_int(row, 0);
        return false;
    });
}

// The capacity of a list without a limit of its own: the caller sized the
// array from the count.
constexpr int kNoLimit = INT_MAX;

// Every list checks the same arguments first and then starts from a count of 0.
inline bool listCanStart(const void* records, int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(records, operation) ||
        !argumentGiven(pCount, operation))
        return false;
    *pCount = 0;
    return true;
}

// Fills at most `capacity` records from index 0 and sets *pCount to the
// number filled unless the query fails: 0 when every row fitted, 1 when more
// rows matched than `capacity` allowed, -1 on failure.
template <typename Record, typename Bind>
int listRows(const std::string& sql, Bind bind, void (*readRow)(sqlite3_stmt*, Record&),
             Record* records, int capacity, int* pCount) {
    qvsql::BoundedList<Record> list(records, capacity);
    const int result =
        queryRows(sql, bind, [&](sqlite3_stmt* row) { return list.add(row, readRow); });
    return list.finish(result, pCount);
}

// The first row into *record: 0. No row: -1, silently, record untouched.
template <typename Record, typename Bind>
int lookupRow(const std::string& sql, Bind bind, void (*readRow)(sqlite3_stmt*, Record&),
              Record* record) {
    bool found = false;
    const int result = queryRows(sql, bind, [&](sqlite3_stmt* row) {
        readRow(row, *record);
        found = true;
        return false;
    });
    if (result == 0 && !found) qvreport::silentFailure(QV_ERR_NO_ROW, "no row matches\n");
    return result == 0 && found ? 0 : -1;
}

// Copies the row's text columns, in select-list order, into the fields.
template <typename... Fields>
void copyColumns(sqlite3_stmt* row, Fields&... fields) {
    int column = 0;
    (qvsql::copyColumnText(row, column++, fields), ...);
}

}  // namespace qvreal

#endif  // QV_REALSTORE_REALSTORE_H
