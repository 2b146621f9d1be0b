// Single-value access through the library against the same statement run on
// a bare SQLite connection (no store lock, no library) on the same file: in
// write-ahead log mode (Bare/), the same with a semaphore taken and given
// back around each statement as the store lock is (Locked/), and with a
// rollback journal (Old/). Saves write a new value on every iteration.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvrealapi.h"

namespace {

using qvbench::Journal;

constexpr int kRows = 1000;

std::vector<std::string> g_refs;

void prepareStore() {
    g_refs = qvbench::storeWithValueRows("BENCHLD0/MMXU1$MX$A$phsA$cVal$mag$f", kRows);
}

sqlite3_int64 keyOf(int i) {
    return RSHash(g_refs[i].c_str(), static_cast<unsigned>(g_refs[i].size()));
}

class Lib : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        prepareStore();
        if (zq_openRealDB() != 0) std::exit(1);
    }
    void TearDown(const benchmark::State&) override { zq_closeRealDB(); }
};

BENCHMARK_F(Lib, SaveDouble)(benchmark::State& state) {
    int i = 0;
    double value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_saveDoubDAValue(g_refs[i].c_str(), ++value));
        i = (i + 1) % kRows;
    }
}

BENCHMARK_F(Lib, SaveDoubleWithQuality)(benchmark::State& state) {
    int i = 0;
    double value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_saveDoubDAValue1(g_refs[i].c_str(), ++value, i & 0xff));
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

BENCHMARK_F(Lib, GetDoubleWithQuality)(benchmark::State& state) {
    int i = 0;
    double value = 0;
    int quality = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zq_getDoubDAValue1(g_refs[i].c_str(), &value, &quality));
        i = (i + 1) % kRows;
    }
}

// ---- Bare baselines: one connection, one prepared statement, no lock -------------

// The statement of one bare benchmark on a fresh store in the given mode.
struct BareStatement {
    BareStatement(Journal journal, const char* sql) {
        prepareStore();
        db = qvbench::openBare(QV_REALTIME_DB_PATH, journal);
        stmt = qvbench::prepareOrDie(db, sql);
    }
    ~BareStatement() {
        sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
};

void bareSave(benchmark::State& state, Journal journal, bool withQuality, bool locked) {
    BareStatement bare(journal, withQuality ? "update DAValue set value=?,quality=? where hashID=?"
                                            : "update DAValue set value=?  where hashID=?");
    qvbench::BareLock lock(locked);
    int i = 0;
    double value = 0;
    for (auto _ : state) {
        const qvbench::BareLock::Hold hold(lock);
        sqlite3_bind_double(bare.stmt, 1, ++value);
        if (withQuality) sqlite3_bind_int(bare.stmt, 2, i & 0xff);
        sqlite3_bind_int64(bare.stmt, withQuality ? 3 : 2, keyOf(i));
        benchmark::DoNotOptimize(sqlite3_step(bare.stmt));
        sqlite3_reset(bare.stmt);
        i = (i + 1) % kRows;
    }
}

void bareRead(benchmark::State& state, Journal journal, bool withQuality, bool locked) {
    BareStatement bare(journal, withQuality ? "select value,quality from DAValue where hashID=?"
                                            : "select value from DAValue where hashID=?");
    qvbench::BareLock lock(locked);
    int i = 0;
    for (auto _ : state) {
        const qvbench::BareLock::Hold hold(lock);
        sqlite3_bind_int64(bare.stmt, 1, keyOf(i));
        if (sqlite3_step(bare.stmt) == SQLITE_ROW) {
            benchmark::DoNotOptimize(sqlite3_column_double(bare.stmt, 0));
            if (withQuality) benchmark::DoNotOptimize(sqlite3_column_int(bare.stmt, 1));
        }
        sqlite3_reset(bare.stmt);
        i = (i + 1) % kRows;
    }
}

// Registers "Bare/<name>", "Locked/<name>" and "Old/<name>" for one baseline body.
bool registerBaselines(const char* name, void (*body)(benchmark::State&, Journal, bool, bool),
                       bool withQuality) {
    benchmark::RegisterBenchmark((std::string("Bare/") + name).c_str(), body, Journal::Wal,
                                 withQuality, false);
    benchmark::RegisterBenchmark((std::string("Locked/") + name).c_str(), body, Journal::Wal,
                                 withQuality, true);
    benchmark::RegisterBenchmark((std::string("Old/") + name).c_str(), body, Journal::Rollback,
                                 withQuality, false);
    return true;
}

const bool g_registered = registerBaselines("SaveDouble", bareSave, false) &&
                          registerBaselines("SaveDoubleWithQuality", bareSave, true) &&
                          registerBaselines("GetDouble", bareRead, false) &&
                          registerBaselines("GetDoubleWithQuality", bareRead, true);

}  // namespace
