// Value lists and whole data sets through the library, each next to the same
// work on a bare SQLite connection (own prepared statements, no store lock)
// on the same store file.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvrealapi.h"

namespace {

constexpr int kValueRows = 10000;
constexpr int kMembers = 256;
const char* const kIed = "BENCH";
const char* const kDataSet = "dsBench";

std::vector<DaNameRow> g_names(kValueRows);

void checked(int rc, sqlite3* db, const char* what) {
    if (rc == SQLITE_OK || rc == SQLITE_DONE || rc == SQLITE_ROW) return;
    std::fprintf(stderr, "bench setup: %s: %s\n", what, sqlite3_errmsg(db));
    std::exit(1);
}

sqlite3_int64 rowKey(const char* reference) {
    return RSHash(reference, static_cast<unsigned>(std::strlen(reference)));
}

// A fresh store from the shipped schema: kValueRows value rows, the first
// kMembers of them also members of one data set.
void buildStore() {
    zq_closeRealDB();
    sqlite3* db = qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql");
    checked(sqlite3_exec(db, "begin", nullptr, nullptr, nullptr), db, "begin");
    sqlite3_stmt* value = nullptr;
    sqlite3_stmt* member = nullptr;
    sqlite3_prepare_v2(db, "insert into DAValue(hashID,type,value) values(?,1,0)", -1, &value,
                       nullptr);
    sqlite3_prepare_v2(db, "insert into DataSetSub(fcdaName,iedName,dsName) values(?,?,?)", -1,
                       &member, nullptr);
    for (int i = 0; i < kValueRows; ++i) {
        std::snprintf(g_names[i], sizeof g_names[i], "BENCHMEAS/MMXU1$MX$A$phs%05d$cVal$mag$f", i);
        sqlite3_bind_int64(value, 1, rowKey(g_names[i]));
        checked(sqlite3_step(value), db, "value row");
        sqlite3_reset(value);
        if (i >= kMembers) continue;
        sqlite3_bind_text(member, 1, g_names[i], -1, SQLITE_STATIC);
        sqlite3_bind_text(member, 2, kIed, -1, SQLITE_STATIC);
        sqlite3_bind_text(member, 3, kDataSet, -1, SQLITE_STATIC);
        checked(sqlite3_step(member), db, "member row");
        sqlite3_reset(member);
    }
    sqlite3_finalize(value);
    sqlite3_finalize(member);
    checked(sqlite3_exec(db, "commit", nullptr, nullptr, nullptr), db, "commit");
    sqlite3_close(db);
}

class Lib : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        buildStore();
        if (zq_openRealDB() != 0) std::exit(1);
    }
    void TearDown(const benchmark::State&) override { zq_closeRealDB(); }
};

// The baseline: one connection of its own, statements prepared once, no lock.
class Bare : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        buildStore();
        sqlite3_open(QV_REALTIME_DB_PATH, &db);
        sqlite3_prepare_v2(db, "update DAValue set value=?  where hashID=?", -1, &update, nullptr);
        sqlite3_prepare_v2(db, "select value from DAValue where hashID=?", -1, &select, nullptr);
        sqlite3_prepare_v2(db, "select fcdaName from DataSetSub where iedName=? and dsName=?", -1,
                           &members, nullptr);
    }
    void TearDown(const benchmark::State&) override {
        for (sqlite3_stmt* stmt : {update, select, members}) sqlite3_finalize(stmt);
        sqlite3_close(db);
    }

    template <typename Name>
    void saveList(const Name* names, const double* values, int count) {
        sqlite3_exec(db, "begin transaction", nullptr, nullptr, nullptr);
        for (int i = 0; i < count; ++i) {
            sqlite3_bind_double(update, 1, values[i]);
            sqlite3_bind_int64(update, 2, rowKey(nameText(names[i])));
            sqlite3_step(update);
            sqlite3_reset(update);
        }
        sqlite3_exec(db, "commit transaction", nullptr, nullptr, nullptr);
    }
    template <typename Name>
    void readList(const Name* names, int count, double* values) {
        for (int i = 0; i < count; ++i) {
            sqlite3_bind_int64(select, 1, rowKey(nameText(names[i])));
            if (sqlite3_step(select) == SQLITE_ROW) values[i] = sqlite3_column_double(select, 0);
            sqlite3_reset(select);
        }
    }
    std::vector<std::string> memberNames() {
        std::vector<std::string> names;
        sqlite3_bind_text(members, 1, kIed, -1, SQLITE_STATIC);
        sqlite3_bind_text(members, 2, kDataSet, -1, SQLITE_STATIC);
        while (sqlite3_step(members) == SQLITE_ROW)
            names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(members, 0)));
        sqlite3_reset(members);
        return names;
    }

    sqlite3* db = nullptr;
    sqlite3_stmt* update = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* members = nullptr;

private:
    static const char* nameText(const DaNameRow& row) { return row; }
    static const char* nameText(const std::string& name) { return name.c_str(); }
};

void countValues(benchmark::State& state, int perIteration) {
    state.SetItemsProcessed(state.iterations() * perIteration);
}

// ---- Lists of 1, 100 and 10000 values ------------------------------------------

BENCHMARK_DEFINE_F(Lib, SaveDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count, 1.5);
    for (auto _ : state) benchmark::DoNotOptimize(zq_saveDAValues(g_names.data(), values.data(), count));
    countValues(state, count);
}

BENCHMARK_DEFINE_F(Bare, SaveDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count, 1.5);
    for (auto _ : state) saveList(g_names.data(), values.data(), count);
    countValues(state, count);
}

BENCHMARK_DEFINE_F(Lib, GetDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) benchmark::DoNotOptimize(zq_getDAValues(g_names.data(), count, values.data()));
    countValues(state, count);
}

BENCHMARK_DEFINE_F(Bare, GetDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) {
        readList(g_names.data(), count, values.data());
        benchmark::DoNotOptimize(values.data());
    }
    countValues(state, count);
}

// For comparison only: the same reads inside one read transaction, which
// spares SQLite taking and dropping its file lock for every value.
BENCHMARK_DEFINE_F(Bare, GetDAValuesInOneReadTransaction)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) {
        sqlite3_exec(db, "begin transaction", nullptr, nullptr, nullptr);
        readList(g_names.data(), count, values.data());
        sqlite3_exec(db, "commit transaction", nullptr, nullptr, nullptr);
        benchmark::DoNotOptimize(values.data());
    }
    countValues(state, count);
}

BENCHMARK_REGISTER_F(Lib, SaveDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);
BENCHMARK_REGISTER_F(Bare, SaveDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);
BENCHMARK_REGISTER_F(Lib, GetDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);
BENCHMARK_REGISTER_F(Bare, GetDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);
BENCHMARK_REGISTER_F(Bare, GetDAValuesInOneReadTransaction)->Arg(100)->Arg(kValueRows);

// ---- A data set of 256 members ---------------------------------------------------

BENCHMARK_F(Lib, SaveDAValuesByDataSet)(benchmark::State& state) {
    std::vector<double> values(kMembers, 2.5);
    for (auto _ : state)
        benchmark::DoNotOptimize(zq_saveDAValuesByDataSet(kIed, kDataSet, values.data(), kMembers));
    countValues(state, kMembers);
}

BENCHMARK_F(Bare, SaveDAValuesByDataSet)(benchmark::State& state) {
    std::vector<double> values(kMembers, 2.5);
    for (auto _ : state) {
        const std::vector<std::string> names = memberNames();
        saveList(names.data(), values.data(), static_cast<int>(names.size()));
    }
    countValues(state, kMembers);
}

BENCHMARK_F(Lib, GetDAValuesByDataSet)(benchmark::State& state) {
    std::vector<double> values(kMembers);
    int count = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(zq_getDAValuesByDataSet(kIed, kDataSet, values.data(), &count));
    countValues(state, kMembers);
}

BENCHMARK_F(Bare, GetDAValuesByDataSet)(benchmark::State& state) {
    std::vector<double> values(kMembers);
    for (auto _ : state) {
        const std::vector<std::string> names = memberNames();
        readList(names.data(), static_cast<int>(names.size()), values.data());
        benchmark::DoNotOptimize(values.data());
    }
    countValues(state, kMembers);
}

}  // namespace
