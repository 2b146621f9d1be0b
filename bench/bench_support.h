// Benchmark set-up shared by the benchmark files: stores created from the
// shipped schema in the private store directory of this build.
#ifndef QV_BENCH_SUPPORT_H
#define QV_BENCH_SUPPORT_H

#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qvrealapi.h"

namespace qvbench {

// Runs SQL or ends the benchmark run: a broken set-up measures nothing.
inline void execOrDie(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::fprintf(stderr, "bench set-up failed: %s\n", error ? error : "?");
        std::exit(1);
    }
}

// An empty store at dbPath, from one of the schema files ("realtime.sql",
// "conf.sql"). Returns an open connection to it; the caller closes it.
inline sqlite3* freshStore(const char* dbPath, const char* schemaFile) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    unlink(dbPath);
    std::ifstream in(std::string(QV_SOURCE_DIR) + "/schema/" + schemaFile);
    const std::string schema{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    sqlite3* db = nullptr;
    if (sqlite3_open(dbPath, &db) != SQLITE_OK) {
        std::fprintf(stderr, "bench set-up: cannot open %s\n", dbPath);
        std::exit(1);
    }
    execOrDie(db, schema);
    return db;
}

// The two bare baselines beside each library benchmark: "Bare/X" is the best
// bare design (the same SQL on a store in write-ahead log mode with the sync
// at commit left out, lists in one transaction), "Old/X" the pattern the library used before (autocommit per
// value on a store with a rollback journal).
enum class Journal { Wal, Rollback };

// Opens a bare connection to the store at dbPath in the given journal mode.
inline sqlite3* openBare(const char* dbPath, Journal journal) {
    sqlite3* db = nullptr;
    if (sqlite3_open(dbPath, &db) != SQLITE_OK) {
        std::fprintf(stderr, "bench set-up: cannot open %s\n", dbPath);
        std::exit(1);
    }
    execOrDie(db, journal == Journal::Wal ? "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL"
                                          : "PRAGMA journal_mode=DELETE");
    return db;
}

// A semaphore of its own, taken and given back as the library takes and
// gives back the store lock (one semop each way, SEM_UNDO), or nothing at
// all when not wanted: the floor of a locked operation.
class BareLock {
public:
    explicit BareLock(bool wanted)
        : semid_(wanted ? semget(IPC_PRIVATE, 1, IPC_CREAT | 0600) : -1) {
        if (semid_ == -1) return;
        sembuf release{0, 1, 0};
        semop(semid_, &release, 1);
    }
    ~BareLock() {
        if (semid_ != -1) semctl(semid_, 0, IPC_RMID);
    }
    BareLock(const BareLock&) = delete;
    BareLock& operator=(const BareLock&) = delete;

    class Hold {
    public:
        explicit Hold(const BareLock& lock) : semid_(lock.semid_) { change(-1); }
        ~Hold() { change(1); }

    private:
        void change(short by) const {
            if (semid_ == -1) return;
            sembuf op{0, by, SEM_UNDO};
            semop(semid_, &op, 1);
        }
        int semid_;
    };

private:
    int semid_;
};

// Prepares a statement or ends the benchmark run.
inline sqlite3_stmt* prepareOrDie(sqlite3* db, const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "bench set-up: %s: %s\n", sql, sqlite3_errmsg(db));
        std::exit(1);
    }
    return stmt;
}

// A fresh real-time store holding one value row (0, quality 0) for each
// of `rows` references made of `prefix` and a number; the references, in
// order. The library's connection is closed first.
inline std::vector<std::string> storeWithValueRows(const std::string& prefix, int rows) {
    zq_closeRealDB();
    sqlite3* db = freshStore(QV_REALTIME_DB_PATH, "realtime.sql");
    execOrDie(db, "begin");
    std::vector<std::string> refs;
    for (int i = 0; i < rows; ++i) {
        refs.push_back(prefix + std::to_string(i));
        const unsigned key = RSHash(refs.back().c_str(), refs.back().size());
        execOrDie(db, "insert into DAValue(hashID,type,value,quality,timestamp) values(" +
                          std::to_string(key) + ",1,0,0,0)");
    }
    execOrDie(db, "commit");
    sqlite3_close(db);
    return refs;
}

}  // namespace qvbench

#endif  // QV_BENCH_SUPPORT_H
