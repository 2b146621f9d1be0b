// Value lists and whole data sets through the library, each next to the same
// work on a bare SQLite connection (own prepared statements, no store lock)
// on the same store file: the best bare design (Bare/: write-ahead log, each
// list in one transaction) and the pattern the library used before (Old/:
// rollback journal, a read per value in autocommit, a save list in one
// transaction). Saves write new values on every iteration.
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

using qvbench::Journal;

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
    sqlite3_stmt* value = qvbench::prepareOrDie(
        db, "insert into DAValue(hashID,type,value) values(?,1,0)");
    sqlite3_stmt* member = qvbench::prepareOrDie(
        db, "insert into DataSetSub(fcdaName,iedName,dsName) values(?,?,?)");
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

void countValues(benchmark::State& state, int perIteration) {
    state.SetItemsProcessed(state.iterations() * perIteration);
}

// Values that differ from those of the previous iteration.
void nextValues(std::vector<double>& values) {
    for (double& value : values) value += 1.0;
}

class Lib : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        buildStore();
        if (zq_openRealDB() != 0) std::exit(1);
    }
    void TearDown(const benchmark::State&) override { zq_closeRealDB(); }
};

BENCHMARK_DEFINE_F(Lib, SaveDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) {
        nextValues(values);
        benchmark::DoNotOptimize(zq_saveDAValues(g_names.data(), values.data(), count));
    }
    countValues(state, count);
}

BENCHMARK_DEFINE_F(Lib, GetDAValues)(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state)
        benchmark::DoNotOptimize(zq_getDAValues(g_names.data(), count, values.data()));
    countValues(state, count);
}

BENCHMARK_REGISTER_F(Lib, SaveDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);
BENCHMARK_REGISTER_F(Lib, GetDAValues)->Arg(1)->Arg(100)->Arg(kValueRows);

BENCHMARK_F(Lib, SaveDAValuesByDataSet)(benchmark::State& state) {
    std::vector<double> values(kMembers);
    for (auto _ : state) {
        nextValues(values);
        benchmark::DoNotOptimize(zq_saveDAValuesByDataSet(kIed, kDataSet, values.data(), kMembers));
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

// ---- Bare baselines -----------------------------------------------------------------

// One bare connection on a fresh store in the given mode, statements prepared
// once, no lock.
class BareLists {
public:
    explicit BareLists(Journal journal) : journal_(journal) {
        buildStore();
        db_ = qvbench::openBare(QV_REALTIME_DB_PATH, journal);
        update_ = qvbench::prepareOrDie(db_, "update DAValue set value=?  where hashID=?");
        select_ = qvbench::prepareOrDie(db_, "select value from DAValue where hashID=?");
        count_ = qvbench::prepareOrDie(
            db_, "select count(*) from DataSetSub where iedName=? and dsName=?");
        members_ = qvbench::prepareOrDie(
            db_, "select fcdaName from DataSetSub where iedName=? and dsName=?");
    }
    ~BareLists() {
        for (sqlite3_stmt* stmt : {update_, select_, count_, members_}) sqlite3_finalize(stmt);
        sqlite3_close(db_);
    }

    void saveList(const DaNameRow* names, const double* values, int count) {
        exec(journal_ == Journal::Wal ? "begin immediate" : "begin transaction");
        for (int i = 0; i < count; ++i) save(names[i], values[i]);
        exec("commit transaction");
    }
    // The best design reads in one transaction, the old one value by value.
    void readList(const DaNameRow* names, int count, double* values) {
        inReadTransaction([&] {
            for (int i = 0; i < count; ++i) read(names[i], values[i]);
        });
    }
    void saveDataSet(const double* values) {
        if (journal_ == Journal::Wal) {
            exec("begin immediate");
            int i = 0;
            forEachMember([&](const char* name) { save(name, values[i++]); });
            exec("commit");
            return;
        }
        const std::vector<DaNameRow> names = oldMemberTable();
        saveList(names.data(), values, static_cast<int>(names.size()));
    }
    void readDataSet(double* values) {
        if (journal_ == Journal::Wal) {
            inReadTransaction([&] {
                int i = 0;
                forEachMember([&](const char* name) { read(name, values[i++]); });
            });
            return;
        }
        const std::vector<DaNameRow> names = oldMemberTable();
        readList(names.data(), static_cast<int>(names.size()), values);
    }

private:
    void exec(const char* sql) { sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }
    template <typename Body>
    void inReadTransaction(Body body) {
        if (journal_ == Journal::Wal) exec("begin");
        body();
        if (journal_ == Journal::Wal) exec("commit");
    }
    void save(const char* name, double value) {
        sqlite3_bind_double(update_, 1, value);
        sqlite3_bind_int64(update_, 2, rowKey(name));
        sqlite3_step(update_);
        sqlite3_reset(update_);
    }
    void read(const char* name, double& value) {
        sqlite3_bind_int64(select_, 1, rowKey(name));
        if (sqlite3_step(select_) == SQLITE_ROW) value = sqlite3_column_double(select_, 0);
        sqlite3_reset(select_);
    }
    template <typename OnMember>
    void forEachMember(OnMember onMember) {
        sqlite3_bind_text(members_, 1, kIed, -1, SQLITE_STATIC);
        sqlite3_bind_text(members_, 2, kDataSet, -1, SQLITE_STATIC);
        while (sqlite3_step(members_) == SQLITE_ROW)
            onMember(reinterpret_cast<const char*>(sqlite3_column_text(members_, 0)));
        sqlite3_reset(members_);
    }
    // The old member table: a count, then the members, each in autocommit.
    std::vector<DaNameRow> oldMemberTable() {
        sqlite3_bind_text(count_, 1, kIed, -1, SQLITE_STATIC);
        sqlite3_bind_text(count_, 2, kDataSet, -1, SQLITE_STATIC);
        const int count = sqlite3_step(count_) == SQLITE_ROW ? sqlite3_column_int(count_, 0) : 0;
        sqlite3_reset(count_);
        std::vector<DaNameRow> names(count);
        int i = 0;
        forEachMember([&](const char* name) {
            if (i < count) std::snprintf(names[i++], sizeof(DaNameRow), "%s", name);
        });
        return names;
    }

    Journal journal_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* update_ = nullptr;
    sqlite3_stmt* select_ = nullptr;
    sqlite3_stmt* count_ = nullptr;
    sqlite3_stmt* members_ = nullptr;
};

void bareSaveList(benchmark::State& state, Journal journal) {
    BareLists bare(journal);
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) {
        nextValues(values);
        bare.saveList(g_names.data(), values.data(), count);
    }
    countValues(state, count);
}

void bareReadList(benchmark::State& state, Journal journal) {
    BareLists bare(journal);
    const int count = static_cast<int>(state.range(0));
    std::vector<double> values(count);
    for (auto _ : state) {
        bare.readList(g_names.data(), count, values.data());
        benchmark::DoNotOptimize(values.data());
    }
    countValues(state, count);
}

void bareSaveDataSet(benchmark::State& state, Journal journal) {
    BareLists bare(journal);
    std::vector<double> values(kMembers);
    for (auto _ : state) {
        nextValues(values);
        bare.saveDataSet(values.data());
    }
    countValues(state, kMembers);
}

void bareReadDataSet(benchmark::State& state, Journal journal) {
    BareLists bare(journal);
    std::vector<double> values(kMembers);
    for (auto _ : state) {
        bare.readDataSet(values.data());
        benchmark::DoNotOptimize(values.data());
    }
    countValues(state, kMembers);
}

// Registers "Bare/<name>" and "Old/<name>", for each list length when given.
bool registerBaselines(const char* name, void (*body)(benchmark::State&, Journal),
                       std::vector<int> lengths = {}) {
    for (const auto& [prefix, journal] : {std::make_pair("Bare/", Journal::Wal),
                                          std::make_pair("Old/", Journal::Rollback)}) {
        auto* bench = benchmark::RegisterBenchmark((prefix + std::string(name)).c_str(), body,
                                                   journal);
        for (const int length : lengths) bench->Arg(length);
    }
    return true;
}

const bool g_registered =
    registerBaselines("SaveDAValues", bareSaveList, {1, 100, kValueRows}) &&
    registerBaselines("GetDAValues", bareReadList, {1, 100, kValueRows}) &&
    registerBaselines("SaveDAValuesByDataSet", bareSaveDataSet) &&
    registerBaselines("GetDAValuesByDataSet", bareReadDataSet);

}  // namespace
