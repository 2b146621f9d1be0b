// The real-time store's connection: opening and closing it, its journal
// mode, the statements kept on it (the value hot path's shared four, the
// member queries and transaction control) and the checks every operation
// makes before it touches it.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <cstring>
#include <map>
#include <string>

#include "internal/qvbuildconfig.h"
#include "internal/qvsqlite.h"
#include "internal/qvtexts.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

namespace qvreal {

sqlite3* s_sqliteDB = nullptr;
sqlite3_stmt* s_stmt_select = nullptr;
sqlite3_stmt* s_stmt_select1 = nullptr;
sqlite3_stmt* s_stmt_update = nullptr;
sqlite3_stmt* s_stmt_update1 = nullptr;

namespace {

const char* const kSelectSql = "select value from DAValue where hashID=?";
const char* const kSelect1Sql = "select value,quality from DAValue where hashID=?";
const char* const kUpdateSql = "update DAValue set value=?  where hashID=?";
const char* const kUpdate1Sql = "update DAValue set value=?,quality=? where hashID=?";

sqlite3_stmt** sharedStatements[] = {&s_stmt_select, &s_stmt_select1, &s_stmt_update,
                                     &s_stmt_update1};

// The data-set value operations' member queries, prepared once per
// connection for each of their SQL texts (either name may be left out): a
// prepare per call costs as much as reading dozens of values.
std::map<std::string, sqlite3_stmt*> s_memberQueries;

const char* const kControlSql[kControlCount] = {"begin", "begin immediate transaction",
                                                "commit transaction", "rollback"};
sqlite3_stmt* s_control[kControlCount] = {};

// An fd of the store file that the connection opened, so that the check of
// every operation is one fstat. It is closed only once another file is at
// the path: closing any fd of a file drops this process's POSIX locks on it,
// those of SQLite's connections included.
int s_storeFd = -1;

void watchStoreFile() {
    struct stat atPath, watched;
    if (stat(QV_REALTIME_DB_PATH, &atPath) != 0) return;
    if (s_storeFd != -1 && fstat(s_storeFd, &watched) == 0 && watched.st_ino == atPath.st_ino &&
        watched.st_dev == atPath.st_dev)
        return;
    if (s_storeFd != -1) close(s_storeFd);
    s_storeFd = open(QV_REALTIME_DB_PATH, O_RDONLY | O_CLOEXEC);
}

// Removed, or renamed over: the file has no name left. One fstat per
// operation: cheaper than a stat of the path, which also walks the path
// (bench: Lib/PartStoreFileCheck).
bool storeFileGone() {
    struct stat info;
    return s_storeFd != -1 && fstat(s_storeFd, &info) == 0 && info.st_nlink == 0;
}

// A write checks the file every time: no save may go to a file that nobody
// can see. A read checks it once per tick of the coarse clock (4 ms on most
// kernels), which costs a few nanoseconds where the fstat costs as much as a
// fifth of the read: it may read the old file for that long.
bool storeFileCheckDue(StoreUse use) {
    static long s_lastTick = -1;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const long tick = static_cast<long>(now.tv_sec) * 1000000000L + now.tv_nsec;
    if (use == StoreUse::Read && tick == s_lastTick) return false;
    s_lastTick = tick;
    return true;
}

// Finalises the kept statements and closes the connection; a failed open
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
    releaseRememberedRows();
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

// A store that is missing or lacks the model tables was never made by
// `qvtool init`; the open says so instead of making an empty file.
bool storeMissing(int openResult) {
    return openResult == SQLITE_CANTOPEN && access(QV_REALTIME_DB_PATH, F_OK) != 0;
}

bool tablesMissing() {
    return std::strncmp(sqlite3_errmsg(s_sqliteDB), "no such table", 13) == 0;
}

int failOpen(int code, const char* why) {
    qvreport::failure(code, "zq_openRealDB: %s %s: create it with qvtool init\n",
                      QV_REALTIME_DB_PATH, why);
    releaseConnection();
    return -1;
}

}  // namespace

void printPrepareError() { qvreport::sqliteFailure(s_sqliteDB, qvtext::kPrepareFailed); }

void printStepError() { qvreport::sqliteFailure(s_sqliteDB, qvtext::kStepFailed); }

int keptStatement(sqlite3_stmt*& slot, const char* sql) {
    if (slot != nullptr) return SQLITE_OK;
    const int rc = sqlite3_prepare_v2(s_sqliteDB, sql, -1, &slot, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(slot);
        slot = nullptr;
    }
    return rc;
}

sqlite3_stmt* keptQuery(const std::string& sql) {
    sqlite3_stmt*& kept = s_memberQueries[sql];
    return keptStatement(kept, sql.c_str()) == SQLITE_OK ? kept : nullptr;
}

int runControl(Control control) {
    sqlite3_stmt*& stmt = s_control[control];
    if (const int prepared = keptStatement(stmt, kControlSql[control]); prepared != SQLITE_OK)
        return prepared;
    const int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}


namespace {

// Opens the connection at the store's path and prepares the shared
// statements: 0, or -1 after a line with everything released.
int openConnection() {
    // No connection mutex: the store lock's process mutex keeps every thread
    // but one away from the connection. No SQLITE_OPEN_CREATE: only
    // `qvtool init` makes the store.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    const int opened = sqlite3_open_v2(QV_REALTIME_DB_PATH, &s_sqliteDB, flags, nullptr);
    if (storeMissing(opened)) return failOpen(QV_ERR_IO, "does not exist");
    if (opened != SQLITE_OK) {
        qvreport::sqliteFailure(s_sqliteDB, qvtext::kOpenFailed);
        releaseConnection();
        return -1;
    }
    // The prepares come first: they find a store without our tables before
    // the journal mode is switched, which would write to it.
    const char* const sqls[] = {kSelectSql, kSelect1Sql, kUpdateSql, kUpdate1Sql};
    for (int i = 0; i < 4; ++i) {
        if (qvsql::prepareWithBusyRetry(s_sqliteDB, sqls[i], sharedStatements[i]) != SQLITE_OK) {
            if (tablesMissing()) return failOpen(QV_ERR_CORRUPT, "has no model tables");
            printPrepareError();
            releaseConnection();
            return -1;
        }
    }
    switchToWal();
    watchStoreFile();
    return 0;
}

// Whether the file now at the path is a store that a connection can use.
bool usableStoreAtPath() {
    sqlite3* probe = nullptr;
    sqlite3_stmt* stmt = nullptr;
    const bool usable =
        sqlite3_open_v2(QV_REALTIME_DB_PATH, &probe, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(probe, kSelectSql, -1, &stmt, nullptr) == SQLITE_OK;
    sqlite3_finalize(stmt);
    sqlite3_close(probe);
    return usable;
}

bool s_goneReported = false;

}  // namespace

// The connection's file was removed or renamed over. With a store at the
// path again the connection moves there; without one it stays on the old
// file, and says so once, until one is back.
void reopenIfStoreReplaced(StoreUse use) {
    if (s_sqliteDB == nullptr || !storeFileCheckDue(use) || !storeFileGone()) return;
    if (!usableStoreAtPath()) {
        if (!s_goneReported)
            qvreport::notice(QV_ERR_IO, false,
                             "the real-time store %s was removed: values go to the removed file "
                             "until a store is back at the path\n",
                             QV_REALTIME_DB_PATH);
        s_goneReported = true;
        return;
    }
    releaseConnection();
    if (openConnection() != 0) return;
    s_goneReported = false;
    qvreport::notice(QV_OK, false,
                     "the real-time store %s was removed or replaced: reopened on the file now at "
                     "the path\n",
                     QV_REALTIME_DB_PATH);
}

}  // namespace qvreal

using namespace qvreal;

int zq_openRealDB(void) {
    initRealSem();
    if (s_sqliteDB != nullptr) return 0;
    return openConnection();
}

int zq_closeRealDB(void) {
    qvreport::succeeded();
    if (s_sqliteDB == nullptr) return 0;
    releaseConnection();
    return 0;
}
