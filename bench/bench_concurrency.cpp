// Eight processes on one real-time store at once, each opening its own
// connection as it starts and running a mix of single, list and data-set
// value operations; the figure is the whole load's operations per second.
// The baseline runs the same statements on bare SQLite connections (one
// transaction per list, SQLite's busy timeout instead of the store lock).
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvrealapi.h"

namespace {

constexpr int kProcesses = 8;
constexpr int kRounds = 150;
constexpr int kListRows = 8;  // rows of each process's own list
constexpr int kMembers = 32;  // members of the data set that every process uses
constexpr int kOpsPerRound = 6;
const char* const kIed = "LOAD";
const char* const kDataSet = "dsLoad";

std::string listRef(int process, int row) {
    return "LOADLD0/GGIO" + std::to_string(process) + "$ST$Ind" + std::to_string(row) + "$stVal";
}

std::string memberRef(int member) {
    return "LOADLD0/MMXU1$MX$PhV" + std::to_string(member) + "$mag$f";
}

void insertValueRow(sqlite3* db, const std::string& reference) {
    const unsigned key = RSHash(reference.c_str(), static_cast<unsigned>(reference.size()));
    qvbench::execOrDie(db, "insert into DAValue(hashID,type,value) values(" + std::to_string(key) +
                               ",1,0)");
}

void buildStore() {
    zq_closeRealDB();
    sqlite3* db = qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql");
    qvbench::execOrDie(db, "begin");
    for (int p = 0; p < kProcesses; ++p)
        for (int row = 0; row < kListRows; ++row) insertValueRow(db, listRef(p, row));
    for (int m = 0; m < kMembers; ++m) {
        insertValueRow(db, memberRef(m));
        qvbench::execOrDie(db, "insert into DataSetSub(fcdaName,iedName,dsName) values('" +
                                   memberRef(m) + "','" + kIed + "','" + kDataSet + "')");
    }
    qvbench::execOrDie(db, "commit");
    sqlite3_close(db);
}

// One process's share of the load through the library.
bool libraryLoad(int process) {
    if (zq_openRealDB() != 0) return false;
    std::vector<DaNameRow> names(kListRows);
    for (int row = 0; row < kListRows; ++row)
        std::snprintf(names[row], sizeof names[row], "%s", listRef(process, row).c_str());
    std::vector<double> values(kMembers), read(kMembers);
    std::vector<int> qualities(kMembers), readQ(kMembers);
    bool ok = true;
    for (int round = 1; round <= kRounds && ok; ++round) {
        const double value = process * 100000 + round;  // changes on every round
        values.assign(kMembers, value);
        qualities.assign(kMembers, round);
        double single = 0;
        int count = 0;
        ok = zq_saveDoubDAValue1(names[0], value, round) == 0 &&
             zq_getDoubDAValue(names[0], &single) == 0 &&
             zq_saveDAValues1(names.data(), values.data(), qualities.data(), kListRows) == 0 &&
             zq_getDAValues1(names.data(), kListRows, read.data(), readQ.data()) == 0 &&
             zq_saveDAValues1ByDataSet(kIed, kDataSet, values.data(), qualities.data(),
                                       kMembers) == 0 &&
             zq_getDAValues1ByDataSet(kIed, kDataSet, read.data(), readQ.data(), &count) == 0;
    }
    zq_closeRealDB();
    return ok;
}

// Bare statements of one process's connection.
struct BareConnection {
    sqlite3* db = nullptr;
    sqlite3_stmt* update = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* members = nullptr;

    bool open() {
        if (sqlite3_open(QV_REALTIME_DB_PATH, &db) != SQLITE_OK) return false;
        sqlite3_busy_timeout(db, 60000);
        return exec("PRAGMA synchronous=NORMAL") &&
               prepare("update DAValue set value=?,quality=? where hashID=?", &update) &&
               prepare("select value,quality from DAValue where hashID=?", &select) &&
               prepare("select fcdaName from DataSetSub where iedName=? and dsName=?", &members);
    }
    bool prepare(const char* sql, sqlite3_stmt** stmt) {
        return sqlite3_prepare_v2(db, sql, -1, stmt, nullptr) == SQLITE_OK;
    }
    void close() {
        for (sqlite3_stmt* stmt : {update, select, members}) sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
    bool exec(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == 0; }
    bool save(const std::string& ref, double value, int quality) {
        sqlite3_bind_double(update, 1, value);
        sqlite3_bind_int(update, 2, quality);
        sqlite3_bind_int64(update, 3, RSHash(ref.c_str(), static_cast<unsigned>(ref.size())));
        const bool ok = sqlite3_step(update) == SQLITE_DONE;
        sqlite3_reset(update);
        return ok;
    }
    bool read(const std::string& ref, double& value, int& quality) {
        sqlite3_bind_int64(select, 1, RSHash(ref.c_str(), static_cast<unsigned>(ref.size())));
        const int rc = sqlite3_step(select);
        if (rc == SQLITE_ROW) {
            value = sqlite3_column_double(select, 0);
            quality = sqlite3_column_int(select, 1);
        }
        sqlite3_reset(select);
        return rc == SQLITE_ROW || rc == SQLITE_DONE;
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
};

// The same operations as libraryLoad on a bare connection.
bool bareLoad(int process) {
    BareConnection c;
    if (!c.open()) return false;
    std::vector<std::string> refs;
    for (int row = 0; row < kListRows; ++row) refs.push_back(listRef(process, row));
    bool ok = true;
    double value = 0;
    int quality = 0;
    for (int round = 1; round <= kRounds && ok; ++round) {
        const double next = process * 100000 + round;
        ok = c.save(refs[0], next, round) && c.read(refs[0], value, quality);
        ok = ok && c.exec("begin immediate");
        for (const std::string& ref : refs) ok = ok && c.save(ref, next, round);
        ok = ok && c.exec("commit");
        ok = ok && c.exec("begin");
        for (const std::string& ref : refs) ok = ok && c.read(ref, value, quality);
        ok = ok && c.exec("commit");
        ok = ok && c.exec("begin immediate");
        for (const std::string& ref : c.memberNames()) ok = ok && c.save(ref, next, round);
        ok = ok && c.exec("commit");
        ok = ok && c.exec("begin");
        for (const std::string& ref : c.memberNames()) ok = ok && c.read(ref, value, quality);
        ok = ok && c.exec("commit");
    }
    c.close();
    return ok;
}

// Forks the processes, each starting its work at once, and waits for all.
void runLoad(benchmark::State& state, bool (*load)(int)) {
    for (auto _ : state) {
        state.PauseTiming();
        buildStore();
        state.ResumeTiming();
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            const pid_t pid = fork();
            if (pid == 0) _exit(load(p) ? 0 : 1);
            children.push_back(pid);
        }
        for (const pid_t pid : children) {
            int status = 0;
            waitpid(pid, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                state.SkipWithError("a load process failed");
        }
    }
    state.counters["ops_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kProcesses * kRounds * kOpsPerRound,
        benchmark::Counter::kIsRate);
}

void Lib_EightProcessLoad(benchmark::State& state) { runLoad(state, libraryLoad); }
void Bare_EightProcessLoad(benchmark::State& state) { runLoad(state, bareLoad); }

BENCHMARK(Lib_EightProcessLoad)->Name("Lib/EightProcessLoad")->UseRealTime()->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Bare_EightProcessLoad)->Name("Bare/EightProcessLoad")->UseRealTime()->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
