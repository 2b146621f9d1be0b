// Loading a large model (50 logical nodes, about 5000 data attributes, 250
// data set members, 750 instance values) into a fresh store.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvaddied.h"

namespace {

constexpr int kDevices = 5;
constexpr int kNodesPerDevice = 10;
const char* const kPhases[] = {"phsA", "phsB", "phsC"};
const char* const kWyeObjects[] = {"PhV", "A", "W", "VAr", "VA"};

std::string modelPath() { return std::string(QV_TEST_STORE_DIR) + "/bench-model.cid"; }

std::string fcda(int device, int node, const std::string& doName, const char* daName,
                 const char* fc) {
    return "<FCDA ldInst=\"LD" + std::to_string(device) + "\" lnClass=\"MMXU\" lnInst=\"" +
           std::to_string(node + 1) + "\" doName=\"" + doName + "\" daName=\"" + daName +
           "\" fc=\"" + fc + "\"/>";
}

// Every node: five WYE objects of three phases (18 attributes each), one MV
// (6) and one ENS (3): 99 attributes, 4950 in all.
std::string dataSets() {
    std::string ain = "<DataSet name=\"dsAin\" desc=\"analogues\">";
    std::string din = "<DataSet name=\"dsDin\" desc=\"behaviour\">";
    std::string energy = "<DataSet name=\"dsEnergy\" desc=\"energy\">";
    for (int d = 0; d < kDevices; ++d) {
        for (int n = 0; n < kNodesPerDevice; ++n) {
            for (const char* phase : kPhases) {
                ain += fcda(d, n, std::string("A.") + phase, "cVal.mag.f", "MX");
            }
            din += fcda(d, n, "Beh", "stVal", "ST");
            energy += fcda(d, n, "Hz", "mag.f", "MX");
        }
    }
    return ain + "</DataSet>" + din + "</DataSet>" + energy + "</DataSet>";
}

std::string logicalNode(int node) {
    std::string ln = "<LN lnClass=\"MMXU\" inst=\"" + std::to_string(node + 1) +
                     "\" lnType=\"B_MMXU\" desc=\"feeder\">";
    for (const char* object : kWyeObjects) {
        ln += std::string("<DOI name=\"") + object + "\" desc=\"" + object + " per phase\">";
        for (const char* phase : kPhases) {
            ln += std::string("<SDI name=\"") + phase + "\"><SDI name=\"units\">"
                  "<DAI name=\"SIUnit\"><Val>V</Val></DAI></SDI></SDI>";
        }
        ln += "</DOI>";
    }
    return ln + "</LN>";
}

const char* const kTemplates =
    "<DataTypeTemplates>"
    "<LNodeType id=\"B_LLN0\" lnClass=\"LLN0\"><DO name=\"Beh\" type=\"B_ENS\"/></LNodeType>"
    "<LNodeType id=\"B_MMXU\" lnClass=\"MMXU\"><DO name=\"Beh\" type=\"B_ENS\"/>"
    "<DO name=\"Hz\" type=\"B_MV\"/><DO name=\"PhV\" type=\"B_WYE\"/><DO name=\"A\" type=\"B_WYE\"/>"
    "<DO name=\"W\" type=\"B_WYE\"/><DO name=\"VAr\" type=\"B_WYE\"/><DO name=\"VA\" type=\"B_WYE\"/>"
    "</LNodeType>"
    "<DOType id=\"B_ENS\" cdc=\"ENS\"><DA name=\"stVal\" bType=\"Enum\" type=\"B_Beh\" fc=\"ST\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"ST\"/><DA name=\"t\" bType=\"Timestamp\" fc=\"ST\"/></DOType>"
    "<DOType id=\"B_MV\" cdc=\"MV\"><DA name=\"mag\" bType=\"Struct\" type=\"B_AV\" fc=\"MX\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"MX\"/><DA name=\"t\" bType=\"Timestamp\" fc=\"MX\"/>"
    "<DA name=\"units\" bType=\"Struct\" type=\"B_Unit\" fc=\"CF\"/>"
    "<DA name=\"db\" bType=\"INT32U\" fc=\"CF\"/></DOType>"
    "<DOType id=\"B_CMV\" cdc=\"CMV\"><DA name=\"cVal\" bType=\"Struct\" type=\"B_Vector\" fc=\"MX\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"MX\"/><DA name=\"t\" bType=\"Timestamp\" fc=\"MX\"/>"
    "<DA name=\"units\" bType=\"Struct\" type=\"B_Unit\" fc=\"CF\"/></DOType>"
    "<DOType id=\"B_WYE\" cdc=\"WYE\"><SDO name=\"phsA\" type=\"B_CMV\"/>"
    "<SDO name=\"phsB\" type=\"B_CMV\"/><SDO name=\"phsC\" type=\"B_CMV\"/></DOType>"
    "<DAType id=\"B_AV\"><BDA name=\"f\" bType=\"FLOAT32\"/></DAType>"
    "<DAType id=\"B_Vector\"><BDA name=\"mag\" bType=\"Struct\" type=\"B_AV\"/>"
    "<BDA name=\"ang\" bType=\"Struct\" type=\"B_AV\"/></DAType>"
    "<DAType id=\"B_Unit\"><BDA name=\"SIUnit\" bType=\"Enum\" type=\"B_SIUnit\"/>"
    "<BDA name=\"multiplier\" bType=\"INT8\"/></DAType>"
    "<EnumType id=\"B_Beh\"><EnumVal ord=\"1\">on</EnumVal><EnumVal ord=\"5\">off</EnumVal></EnumType>"
    "<EnumType id=\"B_SIUnit\"><EnumVal ord=\"5\">A</EnumVal><EnumVal ord=\"29\">V</EnumVal>"
    "</EnumType></DataTypeTemplates>";

void writeLargeModel() {
    std::ofstream out(modelPath());
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SCL><IED name=\"BENCH\">"
           "<AccessPoint name=\"S1\"><Server>";
    for (int d = 0; d < kDevices; ++d) {
        out << "<LDevice inst=\"LD" << d << "\"><LN0 lnClass=\"LLN0\" inst=\"\" lnType=\"B_LLN0\">"
            << (d == 0 ? dataSets() : "") << "</LN0>";
        for (int n = 0; n < kNodesPerDevice; ++n) out << logicalNode(n);
        out << "</LDevice>";
    }
    out << "</Server></AccessPoint></IED>" << kTemplates << "</SCL>\n";
}

// An empty store from the shipped schema.
void createStore() { sqlite3_close(qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql")); }

long countRows(const char* table) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    long count = -1;
    sqlite3_open(QV_REALTIME_DB_PATH, &db);
    const std::string sql = std::string("select count(*) from ") + table;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        count = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// Resets the process's peak resident size to its current size, so that the
// next reading shows only what happened since (Linux).
bool resetPeakResidentSize() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good();
}

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
    }
    return -1;
}

// Peak resident growth, in KiB, of one more load in this process; -1 when
// the peak cannot be reset. Freed heap pages are returned first so that
// pages the load reuses count again.
long peakGrowthOfOneLoad(std::string path) {
    createStore();
    malloc_trim(0);
    if (!resetPeakResidentSize()) return -1;
    const long before = statusKiB("VmRSS:");
    if (zq_addIEDRealDB(path.data()) != 0) return -1;
    return statusKiB("VmHWM:") - before;
}

void BM_LoadLargeModel(benchmark::State& state) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    writeLargeModel();
    std::string path = modelPath();
    for (auto _ : state) {
        state.PauseTiming();
        createStore();
        state.ResumeTiming();
        if (zq_addIEDRealDB(path.data()) != 0) {
            state.SkipWithError("the large model did not load");
            break;
        }
    }
    state.counters["DA_rows"] = static_cast<double>(countRows("DA"));
    state.counters["DAValue_rows"] = static_cast<double>(countRows("DAValue"));
    state.counters["peak_rss_growth_KiB"] = static_cast<double>(peakGrowthOfOneLoad(path));
    unlink(path.c_str());
}

}  // namespace

BENCHMARK(BM_LoadLargeModel)->Name("Lib/LoadLargeModel")->Unit(benchmark::kMillisecond);

namespace {

// Every row of the four model tables, as the library's load left them.
struct ModelRows {
    std::vector<std::vector<std::string>> dataSets, members, attributes, values;
};

std::vector<std::vector<std::string>> allRows(sqlite3* db, const std::string& table) {
    std::vector<std::vector<std::string>> rows;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, ("select * from " + table).c_str(), -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int c = 0; c < sqlite3_column_count(stmt); ++c)
            row.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, c)));
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
}

void insertRows(sqlite3* db, const std::string& table,
                const std::vector<std::vector<std::string>>& rows) {
    if (rows.empty()) return;
    std::string sql = "insert into " + table + " values(?";
    for (size_t c = 1; c < rows[0].size(); ++c) sql += ",?";
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, (sql + ")").c_str(), -1, &stmt, nullptr);
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size(); ++c)
            sqlite3_bind_text(stmt, static_cast<int>(c + 1), row[c].c_str(), -1, SQLITE_STATIC);
        sqlite3_step(stmt);
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
}

// The baseline of a load: the same rows written by bare SQLite, prepared
// statements in one transaction, without reading or expanding any SCL.
void BM_BareWriteOfTheSameRows(benchmark::State& state) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    writeLargeModel();
    std::string path = modelPath();
    createStore();
    if (zq_addIEDRealDB(path.data()) != 0) {
        state.SkipWithError("the large model did not load");
        return;
    }
    sqlite3* db = nullptr;
    sqlite3_open(QV_REALTIME_DB_PATH, &db);
    const ModelRows rows{allRows(db, "DataSet"), allRows(db, "DataSetSub"), allRows(db, "DA"),
                         allRows(db, "DAValue")};
    sqlite3_close(db);
    for (auto _ : state) {
        state.PauseTiming();
        db = qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql");
        state.ResumeTiming();
        qvbench::execOrDie(db, "begin");
        insertRows(db, "DataSet", rows.dataSets);
        insertRows(db, "DataSetSub", rows.members);
        insertRows(db, "DA", rows.attributes);
        insertRows(db, "DAValue", rows.values);
        qvbench::execOrDie(db, "commit");
        sqlite3_close(db);
    }
    state.counters["DA_rows"] = static_cast<double>(rows.attributes.size());
    unlink(path.c_str());
}

}  // namespace

BENCHMARK(BM_BareWriteOfTheSameRows)->Name("Bare/LoadLargeModel")->Unit(benchmark::kMillisecond);
