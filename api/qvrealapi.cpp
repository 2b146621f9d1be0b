// The real-time store: one connection per process, the inter-process store
// lock, row keys, value access, model queries and the device registry tables.
#include "qvrealapi.h"

#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/qvbuildconfig.h"
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
int s_RealSemId = -1;

// The value hot path: prepared once per connection, re-bound on every call.
const char* const kSelectSql = "select value from DAValue where hashID=?";
const char* const kSelect1Sql = "select value,quality from DAValue where hashID=?";
const char* const kUpdateSql = "update DAValue set value=?  where hashID=?";
const char* const kUpdate1Sql = "update DAValue set value=?,quality=? where hashID=?";

union semun {
    int val;
};

// Holds the store lock for one operation.
class StoreLock {
public:
    StoreLock() { locksem(s_RealSemId); }
    ~StoreLock() { unlocksem(s_RealSemId); }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
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

// The row key of a DA reference, always bound as a non-negative 64-bit number.
void bindRowKey(sqlite3_stmt* stmt, int index, const char* daName) {
    const unsigned int key = RSHash(daName, static_cast<unsigned int>(std::strlen(daName)));
    sqlite3_bind_int64(stmt, index, static_cast<sqlite3_int64>(key));
}

sqlite3_stmt** sharedStatements[] = {&s_stmt_select, &s_stmt_select1, &s_stmt_update,
                                     &s_stmt_update1};

// Finalises the shared statements and closes the connection; a failed open
// uses it too, so that the next zq_openRealDB tries again from scratch.
void releaseConnection() {
    for (sqlite3_stmt** stmt : sharedStatements) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    sqlite3_close(s_sqliteDB);
    s_sqliteDB = nullptr;
}

// ---- Single values --------------------------------------------------------

// Binds value (and quality when given) and the row key, steps, resets.
int saveValue(sqlite3_stmt* stmt, const char* daName, double val, const int* character,
              const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    int keyIndex = 2;
    sqlite3_bind_double(stmt, 1, val);
    if (character != nullptr) {
        sqlite3_bind_int(stmt, 2, *character);
        keyIndex = 3;
    }
    bindRowKey(stmt, keyIndex, daName);
    int result = 0;
    if (stepWithBusyRetry(stmt) != SQLITE_DONE) {
        printStepError();
        result = -1;
    }
    sqlite3_reset(stmt);
    return result;
}

// Where a read puts what it found; null members are not wanted.
struct ValueOut {
    double* asDouble;
    int* asInt;
    int* quality;
};

int readValue(sqlite3_stmt* stmt, const char* daName, ValueOut out, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    bindRowKey(stmt, 1, daName);
    int result = -1;
    const int rc = stepWithBusyRetry(stmt);
    if (rc == SQLITE_ROW) {
        if (out.asDouble != nullptr) *out.asDouble = sqlite3_column_double(stmt, 0);
        if (out.asInt != nullptr) *out.asInt = sqlite3_column_int(stmt, 0);
        if (out.quality != nullptr) *out.quality = sqlite3_column_int(stmt, 1);
        result = 0;
    } else if (rc != SQLITE_DONE) {
        printStepError();
    }
    sqlite3_reset(stmt);
    return result;
}

}  // namespace

// ---- Connection, lock and keys ----------------------------------------------

unsigned int RSHash(const char* str, unsigned int len) {
    unsigned int a = 63689;
    const unsigned int b = 378551;
    unsigned int hash = 0;
    for (unsigned int i = 0; i < len; ++i) {
        // Bytes count as signed chars: 0xE9 adds 0xFFFFFFE9, not 0xE9.
        const int c = static_cast<signed char>(str[i]);
        hash = hash * a + static_cast<unsigned int>(c);
        a *= b;
    }
    return hash;
}

int initRealSem(void) {
    s_RealSemId = semget(static_cast<key_t>(QV_SEM_KEY), 1, IPC_CREAT | 0666);
    semun arg;
    arg.val = 1;
    semctl(s_RealSemId, 0, SETVAL, arg);
    return 0;
}

void locksem(int semid) {
    sembuf op{};
    op.sem_num = 0;
    op.sem_op = -1;
    op.sem_flg = 0;
    semop(semid, &op, 1);
}

void unlocksem(int semid) {
    sembuf op{};
    op.sem_num = 0;
    op.sem_op = 1;
    op.sem_flg = 0;
    semop(semid, &op, 1);
}

int zq_openRealDB(void) {
    initRealSem();
    if (s_sqliteDB != nullptr) return 0;
    if (sqlite3_open(QV_REALTIME_DB_PATH, &s_sqliteDB) != SQLITE_OK) {
        std::fprintf(stderr, "Can't open database: %s\n", sqlite3_errmsg(s_sqliteDB));
        releaseConnection();
        return -1;
    }
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
// (queries over DataSet and DataSetSub)

// ---- Bulk and data-set values -------------------------------------------------
// (lists of values in one transaction; whole data sets by name)

// ---- Data attributes ----------------------------------------------------------
// (queries over DA)

// ---- Terminal access list -----------------------------------------------------

// ---- Terminal information -----------------------------------------------------

// ---- Feeder topology ----------------------------------------------------------
