// Single-value access through the library against the same statement run on
// a bare SQLite connection (no store lock, no library), on the same file.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qvrealapi.h"

namespace {

constexpr int kRows = 1000;

std::vector<std::string> g_refs;

void execOrDie(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::fprintf(stderr, "bench setup failed: %s\n", error ? error : "?");
        std::exit(1);
    }
}

// A fresh store from the shipped schema with kRows value rows.
void prepareStore() {
    zq_closeRealDB();
    mkdir(QV_TEST_STORE_DIR, 0755);
    unlink(QV_REALTIME_DB_PATH);
    std::ifstream schema(std::string(QV_SOURCE_DIR) + "/schema/realtime.sql");
    std::stringstream ddl;
    ddl << schema.rdbuf();
    sqlite3* db = nullptr;
    sqlite3_open(QV_REALTIME_DB_PATH, &db);
    execOrDie(db, ddl.str());
    execOrDie(db, "begin");
    g_refs.clear();
    for (int i = 0; i < kRows; ++i) {
        g_refs.push_back("BENCHLD0/MMXU1$MX$A$phsA$cVal$mag$f" + std::to_string(i));
        const unsigned key = RSHash(g_refs.back().c_str(), g_refs.back().size());
        execOrDie(db, "insert into DAValue(hashID,type,value,quality,timestamp) values(" +
                          std::to_string(key) + ",1,0,0,0)");
    }
    execOrDie(db, "commit");
    sqlite3_close(db);
    if (zq_openRealDB() != 0) std::exit(1);
}

class Values : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override { prepareStore(); }
    void TearDown(const benchmark::State&) override { zq_closeRealDB(); }
};

// The bare baseline: one connection, one prepared statement, no lock.
class Bare : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        prepareStore();
        zq_closeRealDB();
        sqlite3_open(QV_REALTIME_DB_PATH, &db);
    }
    void TearDown(const benchmark::State&) override {
        sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
    void prepare(const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr); }
    sqlite3_int64 keyOf(int i) const {
        return RSHash(g_refs[i].c_str(), static_cast<unsigned>(g_refs[i].size()));
    }
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
};

BENCHMARK_F(Values, LibSaveDouble)(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_saveDoubDAValue(g_refs[i].c_str(), i * 0.5));
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Bare, SaveDouble)(benchmark::State& state) {
    prepare("update DAValue set value=?  where hashID=?");
    int i = 0;
    for (auto _ : state) {
        sqlite3_bind_double(stmt, 1, i * 0.5);
        sqlite3_bind_int64(stmt, 2, keyOf(i));
        benchmark::DoNotOptimize(sqlite3_step(stmt));
        sqlite3_reset(stmt);
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Values, LibSaveDoubleWithQuality)(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_saveDoubDAValue1(g_refs[i].c_str(), i * 0.5, i & 0xff));
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Bare, SaveDoubleWithQuality)(benchmark::State& state) {
    prepare("update DAValue set value=?,quality=? where hashID=?");
    int i = 0;
    for (auto _ : state) {
        sqlite3_bind_double(stmt, 1, i * 0.5);
        sqlite3_bind_int(stmt, 2, i & 0xff);
        sqlite3_bind_int64(stmt, 3, keyOf(i));
        benchmark::DoNotOptimize(sqlite3_step(stmt));
        sqlite3_reset(stmt);
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Values, LibGetDouble)(benchmark::State& state) {
    int i = 0;
    double value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_getDoubDAValue(g_refs[i].c_str(), &value));
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Bare, GetDouble)(benchmark::State& state) {
    prepare("select value from DAValue where hashID=?");
    int i = 0;
    for (auto _ : state) {
        sqlite3_bind_int64(stmt, 1, keyOf(i));
        if (sqlite3_step(stmt) == SQLITE_ROW) benchmark::DoNotOptimize(sqlite3_column_double(stmt, 0));
        sqlite3_reset(stmt);
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Values, LibGetDoubleWithQuality)(benchmark::State& state) {
    int i = 0;
    double value = 0;
    int quality = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_getDoubDAValue1(g_refs[i].c_str(), &value, &quality));
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Bare, GetDoubleWithQuality)(benchmark::State& state) {
    prepare("select value,quality from DAValue where hashID=?");
    int i = 0;
    for (auto _ : state) {
        sqlite3_bind_int64(stmt, 1, keyOf(i));
        if (sqlite3_step(stmt) == SQLITE_ROW) {
            benchmark::DoNotOptimize(sqlite3_column_double(stmt, 0));
            benchmark::DoNotOptimize(sqlite3_column_int(stmt, 1));
        }
        sqlite3_reset(stmt);
        i = (i + 1) % kRows;
    }
}

}  // namespace
