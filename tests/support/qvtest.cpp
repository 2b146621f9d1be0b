#include "qvtest.h"

#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "qvconf.h"
#include "qvrealapi.h"

namespace qvtest {

std::string realDbPath() { return QV_REALTIME_DB_PATH; }
std::string confDbPath() { return QV_CONF_DB_PATH; }
std::string sourcePath(const std::string& relative) {
    return std::string(QV_SOURCE_DIR) + "/" + relative;
}
std::string dataPath(const std::string& name) { return sourcePath("tests/data/" + name); }
std::string storeFile(const std::string& name) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    return std::string(QV_TEST_STORE_DIR) + "/" + name;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

namespace {

void rowKeyFunction(sqlite3_context* context, int, sqlite3_value** args) {
    const unsigned char* text = sqlite3_value_text(args[0]);
    sqlite3_result_int64(context, text ? RSHash(reinterpret_cast<const char*>(text),
                                                unsigned(sqlite3_value_bytes(args[0])))
                                       : 0);
}

sqlite3* openOrFail(const std::string& dbPath) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    sqlite3* db = nullptr;
    if (sqlite3_open(dbPath.c_str(), &db) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << dbPath << ": " << sqlite3_errmsg(db);
    }
    sqlite3_create_function(db, "rowkey", 1, SQLITE_UTF8, nullptr, rowKeyFunction, nullptr, nullptr);
    return db;
}

}  // namespace

bool execSql(const std::string& dbPath, const std::string& sql) {
    sqlite3* db = openOrFail(dbPath);
    char* error = nullptr;
    const bool ran = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK;
    if (!ran) {
        ADD_FAILURE() << "SQL failed on " << dbPath << ": " << (error ? error : "?") << "\n"
                      << sql;
    }
    sqlite3_free(error);
    sqlite3_close(db);
    return ran;
}

void execSqlFile(const std::string& dbPath, const std::string& sqlFile) {
    execSql(dbPath, fileText(sqlFile));
}

Rows query(const std::string& dbPath, const std::string& sql) {
    Rows rows;
    sqlite3* db = openOrFail(dbPath);
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot prepare: " << sqlite3_errmsg(db) << "\n" << sql;
        sqlite3_close(db);
        return rows;
    }
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
            const unsigned char* text = sqlite3_column_text(stmt, c);
            row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

long long queryInt(const std::string& dbPath, const std::string& sql) {
    const Rows rows = query(dbPath, sql);
    if (rows.empty() || rows[0].empty()) {
        ADD_FAILURE() << "no result for " << sql;
        return -1;
    }
    return std::stoll(rows[0][0]);
}

int storeLockValue() {
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    return semid < 0 ? -1 : semctl(semid, 0, GETVAL);
}

void removeStoreLock() {
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    if (semid >= 0) semctl(semid, 0, IPC_RMID);
}

long long rowKey(const std::string& reference) {
    return RSHash(reference.c_str(), static_cast<unsigned int>(reference.size()));
}

void removeStore(const std::string& dbPath) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        unlink((dbPath + suffix).c_str());
    }
}

void freshRealStore() {
    removeStore(realDbPath());
    execSqlFile(realDbPath(), sourcePath("schema/realtime.sql"));
}
void freshConfStore() {
    removeStore(confDbPath());
    execSqlFile(confDbPath(), sourcePath("schema/conf.sql"));
}
void openSampleConfStore() {
    zq_closeConfDB();
    freshConfStore();
    execSqlFile(confDbPath(), sourcePath("samples/conf_sample.sql"));
    EXPECT_EQ(zq_openConfDB(), 0);
}

void openInRollbackMode(const std::string& dbPath, int (*close)(), int (*open)()) {
    close();
    execSql(dbPath, "PRAGMA journal_mode=DELETE");
    sqlite3* reader = openOrFail(dbPath);
    EXPECT_EQ(sqlite3_exec(reader, "begin; select count(*) from sqlite_master", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    EXPECT_EQ(open(), 0);
    sqlite3_exec(reader, "commit", nullptr, nullptr, nullptr);
    sqlite3_close(reader);
}

void openRealStoreInRollbackMode() {
    openInRollbackMode(realDbPath(), zq_closeRealDB, zq_openRealDB);
}

void RealStoreTest::SetUp() {
    zq_closeRealDB();
    freshRealStore();
    ASSERT_EQ(zq_openRealDB(), 0);
}

void RealStoreTest::TearDown() { zq_closeRealDB(); }

std::string stdoutWhileHeld(const std::string& dbPath, const std::function<int()>& op,
                            int& result) {
    sqlite3* holder = openOrFail(dbPath);
    EXPECT_EQ(sqlite3_exec(holder, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
    int pipeFds[2];
    EXPECT_EQ(pipe(pipeFds), 0);
    std::fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    dup2(pipeFds[1], STDOUT_FILENO);
    std::string seen;
    std::thread releaser([&] {
        char c;
        while (seen.find('\n') == std::string::npos && read(pipeFds[0], &c, 1) == 1) seen += c;
        sqlite3_exec(holder, "commit", nullptr, nullptr, nullptr);
    });
    result = op();
    std::fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    close(savedStdout);
    close(pipeFds[1]);
    releaser.join();
    close(pipeFds[0]);
    sqlite3_close(holder);
    return seen;
}

}  // namespace qvtest
