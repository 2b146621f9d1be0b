// Single-value access through the library against the same statement run on
// a bare SQLite connection (no store lock, no library), on the same file.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvrealapi.h"

namespace {

constexpr int kRows = 1000;

std::vector<std::string> g_refs;

void prepareStore() {
    zq_closeRealDB();
    sqlite3* db = qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql");
    qvbench::execOrDie(db, "begin");
    g_refs.clear();
    for (int i = 0; i < kRows; ++i) {
        g_refs.push_back("BENCHLD0/MMXU1$MX$A$phsA$cVal$mag$f" + std::to_string(i));
        const unsigned key = RSHash(g_refs.back().c_str(), g_refs.back().size());
        qvbench::execOrDie(db, "insert into DAValue(hashID,type,value,quality,timestamp) values(" +
                          std::to_string(key) + ",1,0,0,0)");
    }
    qvbench::execOrDie(db, "commit");
    sqlite3_close(db);
    if (zq_openRealDB() != 0) std::exit(1);
}

class Lib : public benchmark::Fixture {
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

BENCHMARK_F(Lib, SaveDouble)(benchmark::State& state) {
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

BENCHMARK_F(Lib, SaveDoubleWithQuality)(benchmark::State& state) {
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

BENCHMARK_F(Lib, GetDouble)(benchmark::State& state) {
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

BENCHMARK_F(Lib, GetDoubleWithQuality)(benchmark::State& state) {
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
