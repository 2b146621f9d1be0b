// The real-time store: one connection per process, the inter-process store
// lock, row keys, value access, model queries and the device registry tables.
#include "qvrealapi.h"

#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "internal/qvbuildconfig.h"
#include "internal/qvrowkey.h"
#include "internal/qvsqlite.h"

using qvsql::bindText;
using qvsql::copyColumnText;
using qvsql::stepWithBusyRetry;

namespace {

sqlite3* s_sqliteDB = nullptr;
sqlite3_stmt* s_stmt_select = nullptr;
sqlite3_stmt* s_stmt_select1 = nullptr;
sqlite3_stmt* s_stmt_update = nullptr;
sqlite3_stmt* s_stmt_update1 = nullptr;
// Atomic: a thread that finds the set removed makes it anew while others use it.
std::atomic<int> s_RealSemId{-1};

// The value hot path: prepared once per connection, re-bound on every call.
const char* const kSelectSql = "select value from DAValue where hashID=?";
const char* const kSelect1Sql = "select value,quality from DAValue where hashID=?";
const char* const kUpdateSql = "update DAValue set value=?  where hashID=?";
const char* const kUpdate1Sql = "update DAValue set value=?,quality=? where hashID=?";

union semun {
    int val;
    semid_ds* buf;
};

int takeStoreLock();

// Holds the store lock for one operation, and releases it on the set it
// was taken on.
class StoreLock {
public:
    StoreLock() : semid_(takeStoreLock()) {}
    ~StoreLock() {
        if (semid_ != -1) unlocksem(semid_);
    }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    bool held() const { return semid_ != -1; }

private:
    const int semid_;
};

// Every store operation refuses to run on a closed connection.
bool storeIsOpen(const char* operation) {
    if (s_sqliteDB != nullptr) return true;
    std::fprintf(stderr, "%s: the real-time store is not open (call zq_openRealDB first)\n",
                 operation);
    return false;
}

// A text argument that the operation cannot do without.
bool argumentGiven(const void* argument, const char* operation) {
    if (argument != nullptr) return true;
    std::fprintf(stderr, "%s: a required argument is null\n", operation);
    return false;
}

void printPrepareError() {
    std::fprintf(stderr, "sqlite3_prepare_v2 err %s\n", sqlite3_errmsg(s_sqliteDB));
}

void printStepError() {
    std::fprintf(stderr, "sqlite3_step err %s\n", sqlite3_errmsg(s_sqliteDB));
}

using qvsql::rowKey;

void bindRowKey(sqlite3_stmt* stmt, int index, const char* daName) {
    sqlite3_bind_int64(stmt, index, rowKey(daName));
}

sqlite3_stmt** sharedStatements[] = {&s_stmt_select, &s_stmt_select1, &s_stmt_update,
                                     &s_stmt_update1};

// The data-set value operations' member queries, prepared once per
// connection for each of their SQL texts (either name may be left out): a
// prepare per call costs as much as reading dozens of values.
std::map<std::string, sqlite3_stmt*> s_memberQueries;

// Transaction control, prepared once per connection as well: sqlite3_exec
// parses its text anew on every call, which costs a short list about as
// much as its values.
enum Control { kBeginRead, kBeginWrite, kCommit, kRollback, kControlCount };
const char* const kControlSql[kControlCount] = {"begin", "begin immediate transaction",
                                                "commit transaction", "rollback"};
sqlite3_stmt* s_control[kControlCount] = {};

// The statement kept in `slot`, prepared on first use (one attempt): SQLITE_OK
// or the failed prepare's result.
int keptStatement(sqlite3_stmt*& slot, const char* sql) {
    if (slot != nullptr) return SQLITE_OK;
    const int rc = sqlite3_prepare_v2(s_sqliteDB, sql, -1, &slot, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(slot);
        slot = nullptr;
    }
    return rc;
}

// Runs one transaction control statement: SQLITE_OK, or the failed prepare's
// or step's result with the connection's message saying why.
int runControl(Control control) {
    sqlite3_stmt*& stmt = s_control[control];
    if (const int prepared = keptStatement(stmt, kControlSql[control]); prepared != SQLITE_OK)
        return prepared;
    const int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

// Values by remembered row. A statement by key descends the hashID index
// and then the table; one by rowid only the table, a third less work for a
// read. The connection remembers where it found each key and goes there
// first, using that row only while it still holds the key: a model reload
// or a vacuum moves rows, and then the key is looked up again. The update
// statements come without and with the quality.
sqlite3_stmt* s_selectByRow = nullptr;
sqlite3_stmt* s_selectWithRow = nullptr;
sqlite3_stmt* s_updateByRow[2] = {};
sqlite3_stmt* s_updateWithRow[2] = {};
const char* const kSelectByRowSql = "select value,quality,hashID from DAValue where rowid=?";
const char* const kSelectWithRowSql = "select value,quality,rowid from DAValue where hashID=?";
const char* const kUpdateByRowSql[2] = {
    "update DAValue set value=? where rowid=? and hashID=?",
    "update DAValue set value=?,quality=? where rowid=? and hashID=?"};
const char* const kUpdateWithRowSql[2] = {
    "update DAValue set value=? where hashID=? returning rowid",
    "update DAValue set value=?,quality=? where hashID=? returning rowid"};
sqlite3_stmt** const rowStatements[] = {&s_selectByRow,      &s_selectWithRow,
                                        &s_updateByRow[0],   &s_updateByRow[1],
                                        &s_updateWithRow[0], &s_updateWithRow[1]};
std::unordered_map<sqlite3_int64, sqlite3_int64> s_rowOfKey;

// Keys of rows long gone stay remembered until they are used again; a
// process that goes through more keys than a large model has starts over
// (about 10 MB at this size).
constexpr std::size_t kMostRememberedRows = 1 << 18;

void rememberRow(sqlite3_int64 key, sqlite3_int64 row) {
    if (s_rowOfKey.size() >= kMostRememberedRows) s_rowOfKey.clear();
    s_rowOfKey[key] = row;
}

// Finalises the shared statements and closes the connection; a failed open
// uses it too, so that the next zq_openRealDB tries again from scratch.
void releaseConnection() {
    for (sqlite3_stmt** stmt : sharedStatements) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    for (auto& query : s_memberQueries) sqlite3_finalize(query.second);
    s_memberQueries.clear();
    for (sqlite3_stmt*& stmt : s_control) {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
    for (sqlite3_stmt** stmt : rowStatements) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    s_rowOfKey.clear();
    sqlite3_close(s_sqliteDB);
    s_sqliteDB = nullptr;
}

std::string currentJournalMode() {
    qvsql::Statement mode;
    if (mode.prepare(s_sqliteDB, "PRAGMA journal_mode") != SQLITE_OK ||
        sqlite3_step(mode.get()) != SQLITE_ROW)
        return "";
    const unsigned char* text = sqlite3_column_text(mode.get(), 0);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

// A store created in rollback-journal mode is switched to the write-ahead
// log when no other connection is in the way. Failing is no error: every
// operation works in either mode, only more slowly in the old one. In the
// log a commit then skips the sync that only a power loss would need: the
// store sits in memory and is gone after one anyway.
void switchToWal() {
    if (currentJournalMode() != "wal")
        sqlite3_exec(s_sqliteDB, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    if (currentJournalMode() == "wal")
        sqlite3_exec(s_sqliteDB, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
}

// ---- Single values --------------------------------------------------------

// Binds the value, and the quality when given, as the first parameters;
// returns the index of the next one.
int bindValueAndQuality(sqlite3_stmt* stmt, double value, const int* quality) {
    sqlite3_bind_double(stmt, 1, value);
    if (quality == nullptr) return 2;
    sqlite3_bind_int(stmt, 2, *quality);
    return 3;
}

// Saves at the row where the key was found before, if it still holds the
// key: 0 saved, -1 not there (save by key), -2 failed.
int saveRememberedRow(sqlite3_int64 key, double value, const int* quality) {
    const auto remembered = s_rowOfKey.find(key);
    if (remembered == s_rowOfKey.end()) return -1;
    sqlite3_stmt* const stmt = s_updateByRow[quality != nullptr];
    const int index = bindValueAndQuality(stmt, value, quality);
    sqlite3_bind_int64(stmt, index, remembered->second);
    sqlite3_bind_int64(stmt, index + 1, key);
    const int rc = stepWithBusyRetry(stmt);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return -2;
    if (sqlite3_changes(s_sqliteDB) == 1) return 0;
    s_rowOfKey.erase(remembered);
    return -1;
}

// Saves by key and remembers the row it changed: 0 (also when no row has
// the key), -2 failed.
int saveAndRememberRow(sqlite3_int64 key, double value, const int* quality) {
    sqlite3_stmt* const stmt = s_updateWithRow[quality != nullptr];
    const int index = bindValueAndQuality(stmt, value, quality);
    sqlite3_bind_int64(stmt, index, key);
    int rc;
    while ((rc = stepWithBusyRetry(stmt)) == SQLITE_ROW)
        rememberRow(key, sqlite3_column_int64(stmt, 0));
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(stmt);
    return rc == SQLITE_DONE ? 0 : -2;
}

bool rowStatementsReady(sqlite3_stmt*& byRow, const char* byRowSql, sqlite3_stmt*& withRow,
                        const char* withRowSql) {
    return keptStatement(byRow, byRowSql) == SQLITE_OK &&
           keptStatement(withRow, withRowSql) == SQLITE_OK;
}

// Saves a key's value (and quality when given): 0, or -2 after a failed
// step. A key without a row changes nothing and succeeds. The remembered
// rows are used only under the store lock (the map has no lock of its own);
// otherwise the shared statement `byKey` saves by key.
int saveKey(sqlite3_int64 key, double value, const int* quality, sqlite3_stmt* byKey,
            bool lockHeld) {
    const int form = quality != nullptr;
    if (lockHeld && rowStatementsReady(s_updateByRow[form], kUpdateByRowSql[form],
                                       s_updateWithRow[form], kUpdateWithRowSql[form])) {
        const int result = saveRememberedRow(key, value, quality);
        return result == -1 ? saveAndRememberRow(key, value, quality) : result;
    }
    const int index = bindValueAndQuality(byKey, value, quality);
    sqlite3_bind_int64(byKey, index, key);
    const int rc = stepWithBusyRetry(byKey);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(byKey);
    return rc == SQLITE_DONE ? 0 : -2;
}

int saveValue(sqlite3_stmt* stmt, const char* daName, double val, const int* character,
              const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    return saveKey(rowKey(daName), val, character, stmt, lock.held()) == 0 ? 0 : -1;
}

// Where a read puts what it found; null members are not wanted.
struct ValueOut {
    double* asDouble;
    int* asInt;
    int* quality;
};

void takeValue(sqlite3_stmt* row, ValueOut out) {
    if (out.asDouble != nullptr) *out.asDouble = sqlite3_column_double(row, 0);
    if (out.asInt != nullptr) *out.asInt = sqlite3_column_int(row, 0);
    if (out.quality != nullptr) *out.quality = sqlite3_column_int(row, 1);
}

// Steps a read of value and quality: 0 with the row taken, -1 without a row,
// -2 after a failed step (reported).
int stepRead(sqlite3_stmt* stmt, ValueOut out) {
    const int rc = stepWithBusyRetry(stmt);
    if (rc == SQLITE_ROW) {
        takeValue(stmt, out);
        return 0;
    }
    if (rc != SQLITE_DONE) printStepError();
    return rc == SQLITE_DONE ? -1 : -2;
}

// Reads the row where the key was found before, if it still holds the key:
// 0 read, -1 not there (look the key up), -2 failed.
int readRememberedRow(sqlite3_int64 key, ValueOut out) {
    const auto remembered = s_rowOfKey.find(key);
    if (remembered == s_rowOfKey.end()) return -1;
    sqlite3_bind_int64(s_selectByRow, 1, remembered->second);
    int result = -1;
    const int rc = stepWithBusyRetry(s_selectByRow);
    if (rc == SQLITE_ROW &&
        sqlite3_column_int64(s_selectByRow, 2) == key) {
        takeValue(s_selectByRow, out);
        result = 0;
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        printStepError();
        result = -2;
    }
    sqlite3_reset(s_selectByRow);
    if (result == -1) s_rowOfKey.erase(remembered);
    return result;
}

// Looks the key up and remembers its row.
int readAndRememberRow(sqlite3_int64 key, ValueOut out) {
    sqlite3_bind_int64(s_selectWithRow, 1, key);
    const int result = stepRead(s_selectWithRow, out);
    if (result == 0) rememberRow(key, sqlite3_column_int64(s_selectWithRow, 2));
    sqlite3_reset(s_selectWithRow);
    return result;
}

// Reads a key's value and quality: 0 read, -1 no row, -2 failed step. The
// remembered rows are used only under the store lock (the map has no lock
// of its own) and once both statements are prepared; otherwise the shared
// statement `byKey` reads by key.
int readKey(sqlite3_int64 key, ValueOut out, sqlite3_stmt* byKey, bool lockHeld) {
    if (lockHeld &&
        rowStatementsReady(s_selectByRow, kSelectByRowSql, s_selectWithRow, kSelectWithRowSql)) {
        const int result = readRememberedRow(key, out);
        return result == -1 ? readAndRememberRow(key, out) : result;
    }
    sqlite3_bind_int64(byKey, 1, key);
    const int result = stepRead(byKey, out);
    sqlite3_reset(byKey);
    return result;
}

int readValue(sqlite3_stmt* stmt, const char* daName, ValueOut out, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    return readKey(rowKey(daName), out, stmt, lock.held()) == 0 ? 0 : -1;
}

}  // namespace

// ---- Connection, lock and keys ----------------------------------------------

unsigned int RSHash(const char* str, unsigned int len) { return qvkey::rsHash(str, len); }

namespace {

// How long an opener waits for the process that created the semaphore set
// to set it free before it takes the creator for dead and does it itself.
constexpr int kSemInitWaitMillis = 2000;

// A set's sem_otime stays 0 until its first semop: the creator's freeing one.
bool semaphoreInitialised(int semid) {
    semid_ds info{};
    semun arg;
    arg.buf = &info;
    return semctl(semid, 0, IPC_STAT, arg) == 0 && info.sem_otime != 0;
}

// Frees a set whose creator died between creating and freeing it. Setting
// the value (rather than adding to it) keeps two such openers from raising
// it to 2; the pair of operations marks the set initialised.
void takeOverInitialisation(int semid) {
    semun arg;
    arg.val = 1;
    semctl(semid, 0, SETVAL, arg);
    sembuf ops[2] = {{0, -1, 0}, {0, 1, 0}};
    semop(semid, ops, 2);
}

}  // namespace

// Only the process that creates the set frees it; an existing lock is never
// reset, since another process may hold it.
int initRealSem(void) {
    const key_t key = static_cast<key_t>(QV_SEM_KEY);
    int semid = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (semid >= 0) {
        // A new set holds 0 (taken); this first semop frees it and sets
        // sem_otime, which tells other openers that it is ready.
        sembuf release{0, 1, 0};
        semop(semid, &release, 1);
    } else if (errno == EEXIST) {
        semid = semget(key, 1, 0666);
        for (int waited = 0; semid >= 0 && !semaphoreInitialised(semid); ++waited) {
            if (waited == kSemInitWaitMillis) {
                takeOverInitialisation(semid);
                break;
            }
            usleep(1000);
        }
    }
    // Published once ready, so that other threads never see a set half made.
    s_RealSemId = semid;
    return 0;
}

namespace {

// A lock that is taken is tried again this many times, giving the processor
// away in between, before the caller sleeps in the semaphore's queue. The
// store operations hold it for microseconds, so a waiter that sleeps costs
// two context switches for each hand-over, and with several processes per
// core every operation ends up waiting for a wake-up.
constexpr int kLockTriesBeforeSleeping = 64;

// SEM_UNDO: a process that ends while it holds the lock, however it ends,
// gives it back at once. False when the semaphore failed (errno tells why).
bool takeLock(int semid) {
    sembuf tryOp{0, -1, SEM_UNDO | IPC_NOWAIT};
    for (int i = 0; i < kLockTriesBeforeSleeping; ++i) {
        if (semop(semid, &tryOp, 1) == 0) return true;
        if (errno != EAGAIN) break;
        sched_yield();
    }
    sembuf op{0, -1, SEM_UNDO};
    for (;;) {
        if (semop(semid, &op, 1) == 0) return true;
        if (errno != EINTR) return false;
    }
}

// How often an operation makes the set anew before it runs without the lock.
constexpr int kLockRemakeAttempts = 3;

// Takes the store lock for one of the library's own operations and returns
// the set it took it on, or -1 without a lock. A set removed under the
// process (ipcrm) is made anew, so that this process's threads stay apart on
// the connection, which has no mutex of its own.
int takeStoreLock() {
    for (int attempt = 0;; ++attempt) {
        const int semid = s_RealSemId;
        if (takeLock(semid)) return semid;
        if ((errno != EIDRM && errno != EINVAL) || attempt == kLockRemakeAttempts) return -1;
        initRealSem();
    }
}

}  // namespace

void locksem(int semid) { takeLock(semid); }

void unlocksem(int semid) {
    sembuf op{0, 1, SEM_UNDO};
    semop(semid, &op, 1);
}

int zq_openRealDB(void) {
    initRealSem();
    if (s_sqliteDB != nullptr) return 0;
    // No connection mutex while the store lock keeps every thread but one
    // away from the connection: SQLite's own locking per call is then waste.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                      (s_RealSemId >= 0 ? SQLITE_OPEN_NOMUTEX : SQLITE_OPEN_FULLMUTEX);
    if (sqlite3_open_v2(QV_REALTIME_DB_PATH, &s_sqliteDB, flags, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "Can't open database: %s\n", sqlite3_errmsg(s_sqliteDB));
        releaseConnection();
        return -1;
    }
    switchToWal();
    const char* const sqls[] = {kSelectSql, kSelect1Sql, kUpdateSql, kUpdate1Sql};
    for (int i = 0; i < 4; ++i) {
        if (qvsql::prepareWithBusyRetry(s_sqliteDB, sqls[i], sharedStatements[i]) != SQLITE_OK) {
            printPrepareError();
            releaseConnection();
            return -1;
        }
    }
    return 0;
}

int zq_closeRealDB(void) {
    if (s_sqliteDB == nullptr) return 0;
    releaseConnection();
    return 0;
}

// ---- Single values ----------------------------------------------------------

int zq_saveDoubDAValue(const char* daName, double val) {
    return saveValue(s_stmt_update, daName, val, nullptr, "zq_saveDoubDAValue");
}

int zq_saveDoubDAValue1(const char* daName, double val, int character) {
    return saveValue(s_stmt_update1, daName, val, &character, "zq_saveDoubDAValue1");
}

int zq_saveIntDAValueValue(const char* daName, int val) {
    return zq_saveDoubDAValue(daName, static_cast<double>(val)) == 0 ? 0 : -1;
}

int zq_saveIntDAValueValue1(const char* daName, int val, int character) {
    return zq_saveDoubDAValue1(daName, static_cast<double>(val), character) == 0 ? 0 : -1;
}

int zq_getIntDAValue(const char* daName, int* pValue) {
    if (!argumentGiven(pValue, "zq_getIntDAValue")) return -1;
    return readValue(s_stmt_select, daName, {nullptr, pValue, nullptr}, "zq_getIntDAValue");
}

int zq_getIntDAValue1(const char* daName, int* pValue, int* pCharacter) {
    if (!argumentGiven(pValue, "zq_getIntDAValue1") ||
        !argumentGiven(pCharacter, "zq_getIntDAValue1"))
        return -1;
    return readValue(s_stmt_select1, daName, {nullptr, pValue, pCharacter},
                     "zq_getIntDAValue1");
}

int zq_getDoubDAValue(const char* daName, double* pValue) {
    if (!argumentGiven(pValue, "zq_getDoubDAValue")) return -1;
    return readValue(s_stmt_select, daName, {pValue, nullptr, nullptr}, "zq_getDoubDAValue");
}

int zq_getDoubDAValue1(const char* daName, double* pValue, int* pCharacter) {
    if (!argumentGiven(pValue, "zq_getDoubDAValue1") ||
        !argumentGiven(pCharacter, "zq_getDoubDAValue1"))
        return -1;
    return readValue(s_stmt_select1, daName, {pValue, nullptr, pCharacter},
                     "zq_getDoubDAValue1");
}

// ---- Data sets and members ----------------------------------------------------

namespace {

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
std::string filteredSql(const char* base, const Filters& filters) {
    std::string sql = base;
    bool first = true;
    for (const Filter& filter : filters) {
        if (filter.text == nullptr) continue;
        if (first)
            sql += filter.joinsBaseDirectly ? "where " : " where ";
        else
            sql += " and ";
        sql += filter.column;
        sql += "=? ";
        first = false;
    }
    return sql;
}

// Binds the given filters to parameters 1, 2, 3 ... in filter order.
auto filterBinds(const Filters& filters) {
    return [&filters](sqlite3_stmt* stmt) {
        int index = 1;
        for (const Filter& filter : filters)
            if (filter.text != nullptr) bindText(stmt, index++, filter.text);
    };
}

const auto noBinds = [](sqlite3_stmt*) {};

// Steps through the result rows and hands each to onRow for as long as it
// returns true. 0 when the rows end or onRow stops; -1 on a failed step.
template <typename OnRow>
int forEachRow(sqlite3_stmt* stmt, OnRow onRow) {
    for (;;) {
        const int rc = stepWithBusyRetry(stmt);
        if (rc == SQLITE_DONE) return 0;
        if (rc != SQLITE_ROW) {
            printStepError();
            return -1;
        }
        if (!onRow(stmt)) return 0;
    }
}

// Prepares a statement for this one call (one attempt, no busy retry), binds
// and runs it under one hold of the store lock. The statement is finalised
// before the lock is released.
template <typename Bind, typename Run>
int runQuery(const std::string& sql, Bind bind, Run run) {
    StoreLock lock;
    qvsql::Statement stmt;
    if (stmt.prepare(s_sqliteDB, sql.c_str()) != SQLITE_OK) {
        printPrepareError();
        return -1;
    }
    bind(stmt.get());
    return run(stmt.get());
}

// *pCount from column 0 of the first row; without a row it stays as it is.
template <typename Bind>
int countRows(const std::string& sql, Bind bind, int* pCount) {
    return runQuery(sql, bind, [pCount](sqlite3_stmt* stmt) {
        return forEachRow(stmt, [pCount](sqlite3_stmt* row) {
            *pCount = sqlite3_column_int(row, 0);
            return false;
        });
    });
}

// The capacity of a list without a limit of its own: the caller sized the
// array from the count.
constexpr int kNoLimit = INT_MAX;

// Every list checks the same arguments first and then starts from a count of 0.
bool listCanStart(const void* records, int* pCount, const char* operation) {
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
    const int result = runQuery(sql, bind, [&](sqlite3_stmt* stmt) {
        return forEachRow(stmt, [&](sqlite3_stmt* row) { return list.add(row, readRow); });
    });
    return list.finish(result, pCount);
}

// The first row into *record: 0. No row: -1, silently, record untouched.
template <typename Record, typename Bind>
int lookupRow(const std::string& sql, Bind bind, void (*readRow)(sqlite3_stmt*, Record&),
              Record* record) {
    bool found = false;
    const int result = runQuery(sql, bind, [&](sqlite3_stmt* stmt) {
        return forEachRow(stmt, [&](sqlite3_stmt* row) {
            readRow(row, *record);
            found = true;
            return false;
        });
    });
    return result == 0 && found ? 0 : -1;
}

// Copies the row's text columns, in select-list order, into the fields.
template <typename... Fields>
void copyColumns(sqlite3_stmt* row, Fields&... fields) {
    int column = 0;
    (copyColumnText(row, column++, fields), ...);
}

void readDataSet(sqlite3_stmt* row, DataSet& set) {
    copyColumns(row, set.iedName, set.name, set.ldInst, set.desc);
}

void readDataSetSub(sqlite3_stmt* row, DataSetSub& sub) {
    copyColumns(row, sub.fcdaName, sub.iedName, sub.dsName, sub.ldInst, sub.lnClass, sub.lnInst,
                sub.doName, sub.daName, sub.fc);
}

Filters memberFilters(const char* iedName, const char* dsName, const char* ldInst,
                      const char* lnClass, const char* lnInst, const char* doName,
                      const char* daName, const char* fc) {
    return {{"iedName", iedName, true}, {"dsName", dsName},   {"ldInst", ldInst},
            {"lnClass", lnClass},       {"lnInst", lnInst},   {"doName", doName},
            {"daName", daName},         {"fc", fc}};
}

int listDataSets(DataSet* pSets, int capacity, int* pCount, const char* operation) {
    if (!listCanStart(pSets, pCount, operation)) return -1;
    return listRows("select iedName, dsName,ldInst,dsDesc from DataSet", noBinds, readDataSet,
                    pSets, capacity, pCount);
}

// The matching members into at most `capacity` records: 0, 1 when cut, -1.
int listMembersBy(const Filters& filters, DataSetSub* pSubs, int capacity, int* pCount,
                  const char* operation) {
    if (!listCanStart(pSubs, pCount, operation)) return -1;
    const std::string sql = filteredSql(
        "select  fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc  from DataSetSub ",
        filters);
    return listRows(sql, filterBinds(filters), readDataSetSub, pSubs, capacity, pCount);
}

}  // namespace

int zq_getAllDataSetsNum(int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    return countRows("select count(*) from DataSet", noBinds, pCount);
}

int zq_getAllDataSets(DataSet* pSets, int* pCount) {
    return listDataSets(pSets, kNoLimit, pCount, __func__);
}

int zq_getAllDataSetsN(DataSet* pSets, int capacity, int* pCount) {
    return listDataSets(pSets, capacity, pCount, __func__);
}

int zq_getDataSetByName(const char* iedName, const char* name, DataSet* pSet) {
    if (!storeIsOpen(__func__) || !argumentGiven(iedName, __func__) ||
        !argumentGiven(name, __func__) || !argumentGiven(pSet, __func__))
        return -1;
    return lookupRow("select iedName, dsName,ldInst,dsDesc  from DataSet  where iedName=? and dsName=? ",
                     [&](sqlite3_stmt* stmt) {
                         bindText(stmt, 1, iedName);
                         bindText(stmt, 2, name);
                     },
                     readDataSet, pSet);
}

int zq_getDataSetSubByName(const char* fcdaName, DataSetSub* pSub) {
    if (!storeIsOpen(__func__) || !argumentGiven(fcdaName, __func__) ||
        !argumentGiven(pSub, __func__))
        return -1;
    return lookupRow(
        "select fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc from DataSetSub where fcdaName=?",
        [&](sqlite3_stmt* stmt) { bindText(stmt, 1, fcdaName); }, readDataSetSub, pSub);
}

int zq_getDataSetSubsByParamsNum(const char* iedName, const char* dsName, const char* ldInst,
                                 const char* lnClass, const char* lnInst, const char* doName,
                                 const char* daName, const char* fc, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    const Filters filters =
        memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc);
    return countRows(filteredSql("select count(*) from DataSetSub ", filters),
                     filterBinds(filters), pCount);
}

int zq_getDataSetSubsByParams(const char* iedName, const char* dsName, const char* ldInst,
                              const char* lnClass, const char* lnInst, const char* doName,
                              const char* daName, const char* fc, DataSetSub* pSubs,
                              int* pCount) {
    return listMembersBy(memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc),
                         pSubs, kNoLimit, pCount, __func__);
}

int zq_getDataSetSubsByParamsN(const char* iedName, const char* dsName, const char* ldInst,
                               const char* lnClass, const char* lnInst, const char* doName,
                               const char* daName, const char* fc, DataSetSub* pSubs,
                               int capacity, int* pCount) {
    return listMembersBy(memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc),
                         pSubs, capacity, pCount, __func__);
}

// ---- Bulk and data-set values -------------------------------------------------

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
    if (step == TransactionStep::Begin && withQuality)
        std::fprintf(stderr, "zq_saveDAValues1 sqlite3_exec err:%d,%s\n", rc, text);
    else if (step == TransactionStep::Begin)
        std::fprintf(stderr, "zq_saveDAValues sqlite3_exec err:%d,%s\n", rc, text);
    else if (withQuality)
        std::fprintf(stderr, "zq_saveDAValues1 sqlite3_exec commit err:%s\n", text);
    else
        std::fprintf(stderr, "zq_saveDAValues sqlite3_exec commit err:%d,%s\n", rc, text);
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

// Saves one element of a list. An element whose reference has no row
// changes nothing and succeeds.
bool saveElement(sqlite3_stmt* stmt, std::string_view reference, double value,
                 const int* quality, bool lockHeld) {
    return saveKey(rowKey(reference), value, quality, stmt, lockHeld) == 0;
}

// Reads one element (with the quality when asked for): true when read or
// without a row (the element then keeps the caller's value), false after a
// failed step.
bool readElement(sqlite3_stmt* stmt, std::string_view reference, double* value, int* quality,
                 bool lockHeld) {
    return readKey(rowKey(reference), {value, nullptr, quality}, stmt, lockHeld) != -2;
}

// Writes the list in one transaction through the shared update statement
// (with the qualities when given): every element or, when one fails, none.
int saveValueList(const DaNameRow* names, const double* values, const int* qualities,
                  int count) {
    const bool withQuality = qualities != nullptr;
    sqlite3_stmt* const stmt = withQuality ? s_stmt_update1 : s_stmt_update;
    StoreLock lock;
    if (!runTransactionStep(TransactionStep::Begin, withQuality)) return abandonSave();
    for (int i = 0; i < count; ++i) {
        if (!saveElement(stmt, nameRowReference(names[i]), values[i],
                         withQuality ? &qualities[i] : nullptr, lock.held()))
            return abandonSave();
    }
    if (!runTransactionStep(TransactionStep::Commit, withQuality)) return abandonSave();
    return 0;
}

// Reads the list in one read transaction, so that it shows the store at one
// moment. A failed step ends the list with -1.
int readValueList(const DaNameRow* names, int count, double* values, int* qualities) {
    sqlite3_stmt* const stmt = qualities != nullptr ? s_stmt_select1 : s_stmt_select;
    StoreLock lock;
    ReadTransaction snapshot;
    for (int i = 0; i < count; ++i) {
        if (!readElement(stmt, nameRowReference(names[i]), &values[i],
                         qualities != nullptr ? &qualities[i] : nullptr, lock.held()))
            return -1;
    }
    return 0;
}

// The prepared member query of this SQL text, kept for the connection's
// life; null when it cannot be prepared (one attempt, no busy retry).
sqlite3_stmt* memberQuery(const std::string& sql) {
    sqlite3_stmt*& kept = s_memberQueries[sql];
    return keptStatement(kept, sql.c_str()) == SQLITE_OK ? kept : nullptr;
}

// Runs the member query of one data set and hands each member's reference,
// in query order, to onMember for as long as it returns true. A failed query
// reports itself and "err initDaValueDataSetInfo".
template <typename OnMember>
int forEachMember(const char* iedName, const char* dataSetName, OnMember onMember) {
    const Filters filters = memberFilters(iedName, dataSetName, nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr);
    sqlite3_stmt* const stmt = memberQuery(filteredSql(kMemberListSql, filters));
    int result = -1;
    if (stmt == nullptr) {
        printPrepareError();
    } else {
        filterBinds(filters)(stmt);
        result = forEachRow(
            stmt, [&onMember](sqlite3_stmt* row) { return onMember(memberReference(row)); });
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
    if (result != 0) std::fprintf(stderr, "err initDaValueDataSetInfo\n");
    return result;
}

// The most of a caller's name that a message repeats.
constexpr int kEchoedNameMax = 64;

// Saves the first `count` members' values in one write transaction with the
// member query; values beyond the members have nowhere to go, so they make
// the save fail after the members are written.
int saveDataSetValues(const char* iedName, const char* dataSetName, const double* values,
                      const int* qualities, int count, const char* operation) {
    const bool withQuality = qualities != nullptr;
    sqlite3_stmt* const stmt = withQuality ? s_stmt_update1 : s_stmt_update;
    StoreLock lock;
    if (!runTransactionStep(TransactionStep::Begin, withQuality)) return abandonSave();
    int members = 0;
    bool saved = true;
    const int listed = forEachMember(iedName, dataSetName, [&](std::string_view reference) {
        if (members < count)
            saved = saveElement(stmt, reference, values[members],
                                withQuality ? &qualities[members] : nullptr, lock.held());
        ++members;
        return saved;
    });
    if (listed != 0 || !saved || !runTransactionStep(TransactionStep::Commit, withQuality))
        return abandonSave();
    if (count > members) {
        std::fprintf(stderr, "%s: %d values given, data set %.*s has %d members\n", operation,
                     count, kEchoedNameMax, dataSetName != nullptr ? dataSetName : "", members);
        return -1;
    }
    return 0;
}

// Reads the values of at most `capacity` members, in member order, in one
// read transaction; *pCount = the number of members read. 1 when more
// members matched than the capacity allowed.
int readDataSetValues(const char* iedName, const char* dataSetName, double* values,
                      int* qualities, int capacity, int* pCount) {
    sqlite3_stmt* const stmt = qualities != nullptr ? s_stmt_select1 : s_stmt_select;
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
            read = readElement(stmt, reference, &values[members],
                               qualities != nullptr ? &qualities[members] : nullptr,
                               lock.held());
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
    return saveValueList(pDaNames, pDaVals, nullptr, count);
}

int zq_saveDAValues1(const DaNameRow* pDaNames, const double* pDaVals, const int* pCharacter,
                     int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveValueList(pDaNames, pDaVals, pCharacter, count);
}

int zq_getDAValues(const DaNameRow* pDaNames, int count, double* pDaVals) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__)))
        return -1;
    return readValueList(pDaNames, count, pDaVals, nullptr);
}

int zq_getDAValues1(const DaNameRow* pDaNames, int count, double* pDaVals, int* pCharacter) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaNames, __func__) || !argumentGiven(pDaVals, __func__) ||
                      !argumentGiven(pCharacter, __func__)))
        return -1;
    return readValueList(pDaNames, count, pDaVals, pCharacter);
}

int zq_saveDAValuesByDataSet(const char* iedName, const char* dataSetName, const double* pDaVals,
                             int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && !argumentGiven(pDaVals, __func__)) return -1;
    return saveDataSetValues(iedName, dataSetName, pDaVals, nullptr, count, __func__);
}

int zq_saveDAValues1ByDataSet(const char* iedName, const char* dataSetName,
                              const double* pDaVals, const int* pCharacter, int count) {
    if (!storeIsOpen(__func__)) return -1;
    if (count > 0 && (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__)))
        return -1;
    return saveDataSetValues(iedName, dataSetName, pDaVals, pCharacter, count, __func__);
}

int zq_getDAValuesByDataSet(const char* iedName, const char* dataSetName, double* pDaVals,
                            int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pDaVals, __func__) ||
        !argumentGiven(pCount, __func__))
        return -1;
    return readDataSetValues(iedName, dataSetName, pDaVals, nullptr, INT_MAX, pCount);
}

int zq_getDAValues1ByDataSet(const char* iedName, const char* dataSetName, double* pDaVals,
                             int* pCharacter, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pDaVals, __func__) ||
        !argumentGiven(pCharacter, __func__) || !argumentGiven(pCount, __func__))
        return -1;
    return readDataSetValues(iedName, dataSetName, pDaVals, pCharacter, INT_MAX, pCount);
}

int zq_getDAValuesByDataSetN(const char* iedName, const char* dataSetName, double* pDaVals,
                             int capacity, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    if (capacity > 0 && !argumentGiven(pDaVals, __func__)) return -1;
    *pCount = 0;
    return readDataSetValues(iedName, dataSetName, pDaVals, nullptr, std::max(capacity, 0),
                             pCount);
}

int zq_getDAValues1ByDataSetN(const char* iedName, const char* dataSetName, double* pDaVals,
                              int* pCharacter, int capacity, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    if (capacity > 0 && (!argumentGiven(pDaVals, __func__) || !argumentGiven(pCharacter, __func__)))
        return -1;
    *pCount = 0;
    return readDataSetValues(iedName, dataSetName, pDaVals, pCharacter, std::max(capacity, 0),
                             pCount);
}

// ---- Data attributes ----------------------------------------------------------

namespace {

void readDa(sqlite3_stmt* row, DA& da) {
    copyColumns(row, da.daName, da.iedName, da.ldName, da.lnName, da.doName, da.fcName, da.value,
                da.valueType, da.doDesc);
}

Filters attributeFilters(const char* iedName, const char* ldName, const char* lnName,
                         const char* doName, const char* fcName) {
    return {{"iedName", iedName}, {"ldName", ldName}, {"lnName", lnName}, {"doName", doName},
            {"fcName", fcName}};
}

int listAttributes(const Filters& filters, DA* pDas, int capacity, int* pCount,
                   const char* operation) {
    if (!listCanStart(pDas, pCount, operation)) return -1;
    return listRows(
        filteredSql(
            "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA ",
            filters),
        filterBinds(filters), readDa, pDas, capacity, pCount);
}

}  // namespace

// Looked up by row key: the daName column itself is not compared.
int zq_getDAByName(const char* daName, DA* pDa) {
    if (!storeIsOpen(__func__) || !argumentGiven(daName, __func__) ||
        !argumentGiven(pDa, __func__))
        return -1;
    return lookupRow(
        "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA  where hashID=?",
        [daName](sqlite3_stmt* stmt) { bindRowKey(stmt, 1, daName); }, readDa, pDa);
}

int zq_getDAsByParamsNum(const char* iedName, const char* ldName, const char* lnName,
                         const char* doName, const char* fcName, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    const Filters filters = attributeFilters(iedName, ldName, lnName, doName, fcName);
    return countRows(filteredSql("select count(*) from DA ", filters), filterBinds(filters),
                     pCount);
}

int zq_getDAsByParams(const char* iedName, const char* ldName, const char* lnName,
                      const char* doName, const char* fcName, DA* pDas, int* pCount) {
    return listAttributes(attributeFilters(iedName, ldName, lnName, doName, fcName), pDas,
                          kNoLimit, pCount, __func__);
}

int zq_getDAsByParamsN(const char* iedName, const char* ldName, const char* lnName,
                       const char* doName, const char* fcName, DA* pDas, int capacity,
                       int* pCount) {
    return listAttributes(attributeFilters(iedName, ldName, lnName, doName, fcName), pDas,
                          capacity, pCount, __func__);
}

// ---- Terminal access list -----------------------------------------------------

// The three registry tables share these frames: each record type names its
// fields once (fieldsOf), in table column order, and is bound and read
// through that list.
namespace {

// A record's text field holds at most size - 1 characters, terminated or not.
template <std::size_t N>
void bindValue(sqlite3_stmt* stmt, int index, const char (&field)[N]) {
    qvsql::bindField(stmt, index, field);
}

// A text argument, bound up to its terminator. Taking a view rather than a
// pointer keeps record fields on the bounded overload above.
void bindValue(sqlite3_stmt* stmt, int index, std::string_view text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void bindValue(sqlite3_stmt* stmt, int index, int value) { sqlite3_bind_int(stmt, index, value); }

// Binds the values to parameters 1, 2, 3 ... in order (none for an empty list).
template <typename... Values>
void bindValues([[maybe_unused]] sqlite3_stmt* stmt, const Values&... values) {
    [[maybe_unused]] int index = 1;
    (bindValue(stmt, index++, values), ...);
}

template <std::size_t N>
void readColumn(sqlite3_stmt* row, int column, char (&field)[N]) {
    copyColumnText(row, column, field);
}

void readColumn(sqlite3_stmt* row, int column, int& field) {
    field = sqlite3_column_int(row, column);
}

auto fieldsOf(LTUAccess& a) {
    return std::tie(a.date_time, a.deviceid, a.accessmodel, a.desc, a.key, a.version);
}

auto fieldsOf(LTUInfor& t) {
    return std::tie(t.id, t.QVsoftware_version, t.QVhardware_version, t.SGsoftware_version,
                    t.SGhardware_version, t.name, t.addr, t.failedcount, t.state, t.desc);
}

auto fieldsOf(TopoInfor& n) {
    return std::tie(n.id, n.type, n.m_rln, n.name, n.l_link, n.r_link, n.power_flag, n.iedName,
                    n.substation);
}

// Binding only reads the fields.
template <typename Record>
void bindRecord(sqlite3_stmt* stmt, const Record& record) {
    std::apply([stmt](const auto&... fields) { bindValues(stmt, fields...); },
               fieldsOf(const_cast<Record&>(record)));
}

// Reads a row whose select list is the record's fields in order.
template <typename Record>
void readRecord(sqlite3_stmt* row, Record& record) {
    std::apply(
        [row](auto&... fields) {
            int column = 0;
            (readColumn(row, column++, fields), ...);
        },
        fieldsOf(record));
}

void printWriterPrepareError() {
    std::fprintf(stderr, "sqlite3_prepare_v2 err:%s\n", sqlite3_errmsg(s_sqliteDB));
}

// Prepares sql once and writes `rows` rows under one hold of the store lock:
// bindRow(stmt, i) binds row i, which is stepped to done and reset. There is
// no transaction: the first failing row ends the run, the rows before it stay.
template <typename BindRow>
int runWriter(const char* sql, int rows, BindRow bindRow) {
    StoreLock lock;
    qvsql::Statement stmt;
    if (stmt.prepare(s_sqliteDB, sql) != SQLITE_OK) {
        printWriterPrepareError();
        return -1;
    }
    for (int i = 0; i < rows; ++i) {
        bindRow(stmt.get(), i);
        if (stepWithBusyRetry(stmt.get()) != SQLITE_DONE) {
            printStepError();
            return -1;
        }
        sqlite3_reset(stmt.get());
    }
    return 0;
}

// A writer of one row whose parameters are the given values.
template <typename... Values>
int writeRow(const char* sql, const Values&... values) {
    return runWriter(sql, 1, [&](sqlite3_stmt* stmt, int) { bindValues(stmt, values...); });
}

// The statements of one registry table that cover the whole table.
struct RegistryTable {
    const char* insertSql;
    const char* deleteAllSql;
    const char* countSql;
    const char* listSql;
};

// Inserts `count` records under one statement; a single add is a run of one.
template <typename Record>
int addRecords(const RegistryTable& table, const Record* records, int count,
               const char* operation) {
    if (!storeIsOpen(operation)) return -1;
    if (count > 0 && !argumentGiven(records, operation)) return -1;
    return runWriter(table.insertSql, count,
                     [records](sqlite3_stmt* stmt, int i) { bindRecord(stmt, records[i]); });
}

int deleteAll(const RegistryTable& table, const char* operation) {
    if (!storeIsOpen(operation)) return -1;
    return writeRow(table.deleteAllSql);
}

// A delete whose one parameter is the caller's key text.
int deleteByKey(const char* sql, const char* key, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(key, operation)) return -1;
    return writeRow(sql, key);
}

// The count and list of a whole table, with *pCount 0 until they succeed.
int countAll(const RegistryTable& table, int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(pCount, operation)) return -1;
    *pCount = 0;
    return countRows(table.countSql, noBinds, pCount);
}

template <typename Record>
int listAll(const RegistryTable& table, Record* records, int capacity, int* pCount,
            const char* operation) {
    if (!listCanStart(records, pCount, operation)) return -1;
    return listRows(table.listSql, noBinds, readRecord<Record>, records, capacity, pCount);
}

// The first record whose key column equals the caller's key text.
template <typename Record>
int lookupByKey(const char* sql, const char* key, Record* record, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(key, operation) ||
        !argumentGiven(record, operation))
        return -1;
    return lookupRow(
        sql, [key](sqlite3_stmt* stmt) { bindValues(stmt, key); }, readRecord<Record>, record);
}

// The access list has no delete of all entries.
const RegistryTable kAccessList{
    "insert into ltu_access_list values(?,?,?,?,?,?)", nullptr,
    "select count(*) from ltu_access_list",
    "select date_time,deviceid,accessmodel,desc,key,version  from ltu_access_list"};

}  // namespace

int zq_addLTUAccess(const LTUAccess* pLTUAccess) {
    return addRecords(kAccessList, pLTUAccess, 1, __func__);
}

int zq_deleteLTUAccessByDeviceid(const char* deviceid) {
    return deleteByKey("delete from ltu_access_list where deviceid=?", deviceid, __func__);
}

int zq_getAllLTUAccessNum(int* pCount) { return countAll(kAccessList, pCount, __func__); }

int zq_getAllLTUAccess(LTUAccess* pLTUAccess, int* pCount) {
    return listAll(kAccessList, pLTUAccess, kNoLimit, pCount, __func__);
}

int zq_getAllLTUAccessN(LTUAccess* pLTUAccess, int capacity, int* pCount) {
    return listAll(kAccessList, pLTUAccess, capacity, pCount, __func__);
}

// ---- Terminal information -----------------------------------------------------

namespace {

const RegistryTable kTerminals{
    "insert into LTUInfor values(?,?,?,?,?,?,?,?,?,?)", "delete from LTUInfor",
    "select count(*) from LTUInfor",
    "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc from LTUInfor"};

}  // namespace

int zq_addLTUInfor(const LTUInfor* pLTUInfor) {
    return addRecords(kTerminals, pLTUInfor, 1, __func__);
}

int zq_addLTUInfors(const LTUInfor* pLTUInfors, int count) {
    return addRecords(kTerminals, pLTUInfors, count, __func__);
}

int zq_deleteAllLTUInfors(void) { return deleteAll(kTerminals, __func__); }

int zq_deleteLTUInforByName(const char* name) {
    return deleteByKey("delete from LTUInfor where name=?", name, __func__);
}

int zq_getAllLTUInforsNum(int* pCount) { return countAll(kTerminals, pCount, __func__); }

int zq_getAllLTUInfors(LTUInfor* pLTUInfors, int* pCount) {
    return listAll(kTerminals, pLTUInfors, kNoLimit, pCount, __func__);
}

int zq_getAllLTUInforsN(LTUInfor* pLTUInfors, int capacity, int* pCount) {
    return listAll(kTerminals, pLTUInfors, capacity, pCount, __func__);
}

int zq_getLTUInforByName(const char* name, LTUInfor* pLTUInfor) {
    return lookupByKey(
        "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc  from LTUInfor where name=?",
        name, pLTUInfor, __func__);
}

// The record's id and name are not written: the row is chosen by `name`.
int zq_setLTUInforByName(const char* name, const LTUInfor* pLTUInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__) ||
        !argumentGiven(pLTUInfor, __func__))
        return -1;
    const LTUInfor& t = *pLTUInfor;
    return writeRow(
        "update LTUInfor set QVsoftware_version=? ,QVhardware_version=? ,SGsoftware_version=? ,SGhardware_version=? ,addr=?, failedcount=? ,state=? ,desc=? where name=?",
        t.QVsoftware_version, t.QVhardware_version, t.SGsoftware_version, t.SGhardware_version,
        t.addr, t.failedcount, t.state, t.desc, name);
}

int zq_setLTUInforStateByName(const char* name, int state) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__)) return -1;
    return writeRow("update LTUInfor set state=?  where name=?", state, name);
}

// A name that no row carries is reported like a failed step.
int zq_getLTUInforStateByName(const char* name, int* pState) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__) ||
        !argumentGiven(pState, __func__))
        return -1;
    return runQuery(
        "select state from LTUInfor where name=? ",
        [name](sqlite3_stmt* stmt) { bindValues(stmt, name); },
        [pState](sqlite3_stmt* stmt) {
            if (qvsql::stepAnnouncingBusy(stmt) != SQLITE_ROW) {
                printStepError();
                return -1;
            }
            *pState = sqlite3_column_int(stmt, 0);
            return 0;
        });
}

// No row and a failed step both give -1 without a message.
int zq_getLTUInforById(int id, LTUInfor* pLTUInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(pLTUInfor, __func__)) return -1;
    return runQuery(
        "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc from LTUInfor where id=? ",
        [id](sqlite3_stmt* stmt) { bindValues(stmt, id); },
        [pLTUInfor](sqlite3_stmt* stmt) {
            if (qvsql::stepAnnouncingBusy(stmt) != SQLITE_ROW) return -1;
            readRecord(stmt, *pLTUInfor);
            return 0;
        });
}

// ---- Feeder topology ----------------------------------------------------------

namespace {

const RegistryTable kTopology{
    "insert into TopoInfor values(?,?,?,?,?,?,?,?,?)", "delete from TopoInfor",
    "select count(*) from TopoInfor",
    "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor"};

// The nodes that share one side's link with a given node.
struct Side {
    char (TopoInfor::*link)[sizeof(TopoInfor::l_link)];
    const char* countSql;
    const char* listSql;
};

const Side kLeft{&TopoInfor::l_link, "select count(*) from TopoInfor where l_link=?",
                 "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor  where l_link=?"};
const Side kRight{&TopoInfor::r_link, "select count(*) from TopoInfor where r_link=?",
                  "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor  where r_link=?"};

// The node is looked up before the store lock is taken: the lookup takes the
// lock itself and the lock is not re-entrant.
bool findNode(const char* name, TopoInfor& node) {
    return zq_getTopoInforByLNName(name, &node) == 0;
}

// The link field of the found node, bound up to its terminator.
auto linkBinder(const TopoInfor& node, const Side& side) {
    return [&node, &side](sqlite3_stmt* stmt) { bindValues(stmt, node.*side.link); };
}

bool isTheNode(sqlite3_stmt* row, const char* name) {
    const auto* m_rln = reinterpret_cast<const char*>(sqlite3_column_text(row, 2));
    return std::strcmp(m_rln != nullptr ? m_rln : "", name) == 0;
}

// Shared rows less the node itself; never below 0, so that a node changed
// since the lookup cannot give a negative count.
int countNeighbours(const char* name, const Side& side, int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(name, operation) ||
        !argumentGiven(pCount, operation))
        return -1;
    TopoInfor node{};
    if (!findNode(name, node)) return -1;
    *pCount = 0;
    return runQuery(side.countSql, linkBinder(node, side), [pCount](sqlite3_stmt* stmt) {
        return forEachRow(stmt, [pCount](sqlite3_stmt* row) {
            *pCount = std::max(sqlite3_column_int(row, 0) - 1, 0);
            return false;
        });
    });
}

// Passes over exactly one row, the first whose m_rln is the given name, as the
// count takes away exactly one.
int listNeighbours(const char* name, const Side& side, TopoInfor* nodes, int capacity,
                   int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(name, operation) ||
        !argumentGiven(nodes, operation) || !argumentGiven(pCount, operation))
        return -1;
    TopoInfor node{};
    if (!findNode(name, node)) return -1;
    *pCount = 0;
    qvsql::BoundedList<TopoInfor> list(nodes, capacity);
    bool nodePassed = false;
    const int result =
        runQuery(side.listSql, linkBinder(node, side), [&](sqlite3_stmt* stmt) {
            return forEachRow(stmt, [&](sqlite3_stmt* row) {
                if (!nodePassed && isTheNode(row, name)) {
                    nodePassed = true;
                    return true;
                }
                return list.add(row, readRecord<TopoInfor>);
            });
        });
    return list.finish(result, pCount);
}

}  // namespace

int zq_addTopoInfor(const TopoInfor* pTopoInfor) {
    return addRecords(kTopology, pTopoInfor, 1, __func__);
}

int zq_addTopoInfors(const TopoInfor* pTopoInfors, int count) {
    return addRecords(kTopology, pTopoInfors, count, __func__);
}

int zq_deleteAllTopoInfors(void) { return deleteAll(kTopology, __func__); }

int zq_deleteTopoInforByLNName(const char* name) {
    return deleteByKey("delete from TopoInfor where m_rln=?", name, __func__);
}

int zq_getAllTopoInforsNum(int* pCount) { return countAll(kTopology, pCount, __func__); }

int zq_getAllTopoInfors(TopoInfor* pTopoInfors, int* pCount) {
    return listAll(kTopology, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getAllTopoInforsN(TopoInfor* pTopoInfors, int capacity, int* pCount) {
    return listAll(kTopology, pTopoInfors, capacity, pCount, __func__);
}

int zq_getTopoInforByLNName(const char* name, TopoInfor* pTopoInfor) {
    return lookupByKey(
        "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor where m_rln=?",
        name, pTopoInfor, __func__);
}

int zq_getTopoInforPower(TopoInfor* pTopoInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(pTopoInfor, __func__)) return -1;
    return lookupRow(
        "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor where power_flag=1",
        noBinds, readRecord<TopoInfor>, pTopoInfor);
}

int zq_getLeftTopoInforsNumByLNName(const char* name, int* pCount) {
    return countNeighbours(name, kLeft, pCount, __func__);
}

int zq_getLeftTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount) {
    return listNeighbours(name, kLeft, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getLeftTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                   int* pCount) {
    return listNeighbours(name, kLeft, pTopoInfors, capacity, pCount, __func__);
}

int zq_getRightTopoInforsNumByLNName(const char* name, int* pCount) {
    return countNeighbours(name, kRight, pCount, __func__);
}

int zq_getRightTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount) {
    return listNeighbours(name, kRight, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getRightTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                   int* pCount) {
    return listNeighbours(name, kRight, pTopoInfors, capacity, pCount, __func__);
}
