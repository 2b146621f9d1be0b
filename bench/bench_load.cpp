// Loading generated models of about 5 000, 50 000 and 100 000 data
// attributes, each load in a fresh process (the benchmark binary started
// again), as a provisioning process loads a model once.
//
// Lib/LoadModel/N: zq_addIEDRealDB of the file.
// LibOptions/LoadModel/100000: zq_addIEDRealDBEx of the same file with
// prefixes kept and "*=byfc" value rows; its goal is within 1.1x of Lib.
// Bare/LoadModel/N: the bare baseline in a fresh process as well: libxml2
// parses the same file, then one transaction inserts the same rows (those
// the library wrote, copied beforehand) with one prepared statement per
// table.
//
// The time of an iteration is the processor time (user and system) that the
// child spends on the work, measured inside it: on a machine shared with
// other work, wall time mostly measures the waits for a processor (wall_ms
// shows it). peak_rss_MiB is the child's peak resident size (wait4), and
// us_per_1000_attributes shows whether the time grows linearly with the
// model.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvaddied.h"

namespace {

// ---- The generated model -----------------------------------------------------

constexpr int kNodesPerDevice = 10;
constexpr int kAttributesPerNode = 99;  // five WYE objects of three phases, one MV, one ENS
const char* const kPhases[] = {"phsA", "phsB", "phsC"};
const char* const kWyeObjects[] = {"PhV", "A", "W", "VAr", "VA"};

std::string fcda(int device, int node, const std::string& doName, const char* daName,
                 const char* fc) {
    return "<FCDA ldInst=\"LD" + std::to_string(device) + "\" lnClass=\"MMXU\" lnInst=\"" +
           std::to_string(node + 1) + "\" doName=\"" + doName + "\" daName=\"" + daName +
           "\" fc=\"" + fc + "\"/>";
}

// Five members per node: three phase currents, its behaviour and its frequency.
std::string dataSets(int devices) {
    std::string ain = "<DataSet name=\"dsAin\" desc=\"analogues\">";
    std::string din = "<DataSet name=\"dsDin\" desc=\"behaviour\">";
    std::string energy = "<DataSet name=\"dsEnergy\" desc=\"energy\">";
    for (int d = 0; d < devices; ++d) {
        for (int n = 0; n < kNodesPerDevice; ++n) {
            for (const char* phase : kPhases)
                ain += fcda(d, n, std::string("A.") + phase, "cVal.mag.f", "MX");
            din += fcda(d, n, "Beh", "stVal", "ST");
            energy += fcda(d, n, "Hz", "mag.f", "MX");
        }
    }
    return ain + "</DataSet>" + din + "</DataSet>" + energy + "</DataSet>";
}

// Fifteen instance values per node.
std::string logicalNode(int node) {
    std::string ln = "<LN lnClass=\"MMXU\" inst=\"" + std::to_string(node + 1) +
                     "\" lnType=\"B_MMXU\" desc=\"feeder\">";
    for (const char* object : kWyeObjects) {
        ln += std::string("<DOI name=\"") + object + "\" desc=\"" + object + " per phase\">";
        for (const char* phase : kPhases) {
            ln += std::string("<SDI name=\"") + phase +
                  "\"><SDI name=\"units\">"
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
    "<DO name=\"Hz\" type=\"B_MV\"/><DO name=\"PhV\" type=\"B_WYE\"/><DO name=\"A\" "
    "type=\"B_WYE\"/>"
    "<DO name=\"W\" type=\"B_WYE\"/><DO name=\"VAr\" type=\"B_WYE\"/><DO name=\"VA\" "
    "type=\"B_WYE\"/>"
    "</LNodeType>"
    "<DOType id=\"B_ENS\" cdc=\"ENS\"><DA name=\"stVal\" bType=\"Enum\" type=\"B_Beh\" fc=\"ST\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"ST\"/><DA name=\"t\" bType=\"Timestamp\" "
    "fc=\"ST\"/></DOType>"
    "<DOType id=\"B_MV\" cdc=\"MV\"><DA name=\"mag\" bType=\"Struct\" type=\"B_AV\" fc=\"MX\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"MX\"/><DA name=\"t\" bType=\"Timestamp\" fc=\"MX\"/>"
    "<DA name=\"units\" bType=\"Struct\" type=\"B_Unit\" fc=\"CF\"/>"
    "<DA name=\"db\" bType=\"INT32U\" fc=\"CF\"/></DOType>"
    "<DOType id=\"B_CMV\" cdc=\"CMV\"><DA name=\"cVal\" bType=\"Struct\" type=\"B_Vector\" "
    "fc=\"MX\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"MX\"/><DA name=\"t\" bType=\"Timestamp\" fc=\"MX\"/>"
    "<DA name=\"units\" bType=\"Struct\" type=\"B_Unit\" fc=\"CF\"/></DOType>"
    "<DOType id=\"B_WYE\" cdc=\"WYE\"><SDO name=\"phsA\" type=\"B_CMV\"/>"
    "<SDO name=\"phsB\" type=\"B_CMV\"/><SDO name=\"phsC\" type=\"B_CMV\"/></DOType>"
    "<DAType id=\"B_AV\"><BDA name=\"f\" bType=\"FLOAT32\"/></DAType>"
    "<DAType id=\"B_Vector\"><BDA name=\"mag\" bType=\"Struct\" type=\"B_AV\"/>"
    "<BDA name=\"ang\" bType=\"Struct\" type=\"B_AV\"/></DAType>"
    "<DAType id=\"B_Unit\"><BDA name=\"SIUnit\" bType=\"Enum\" type=\"B_SIUnit\"/>"
    "<BDA name=\"multiplier\" bType=\"INT8\"/></DAType>"
    "<EnumType id=\"B_Beh\"><EnumVal ord=\"1\">on</EnumVal><EnumVal "
    "ord=\"5\">off</EnumVal></EnumType>"
    "<EnumType id=\"B_SIUnit\"><EnumVal ord=\"5\">A</EnumVal><EnumVal ord=\"29\">V</EnumVal>"
    "</EnumType></DataTypeTemplates>";

std::string storeFile(const std::string& name) {
    return std::string(QV_TEST_STORE_DIR) + "/" + name;
}
std::string modelPath(int attributes) {
    return storeFile("bench-model-" + std::to_string(attributes) + ".cid");
}
std::string rowsPath(int attributes) {
    return storeFile("bench-rows-" + std::to_string(attributes) + ".db");
}

// A model of about `attributes` data attributes, ten logical nodes per device.
void writeModel(int attributes, const std::string& path) {
    const int devices = attributes / kAttributesPerNode / kNodesPerDevice;
    std::ofstream out(path);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SCL><IED name=\"BENCH\">"
           "<AccessPoint name=\"S1\"><Server>";
    for (int d = 0; d < devices; ++d) {
        out << "<LDevice inst=\"LD" << d << "\"><LN0 lnClass=\"LLN0\" inst=\"\" lnType=\"B_LLN0\">"
            << (d == 0 ? dataSets(devices) : "") << "</LN0>";
        for (int n = 0; n < kNodesPerDevice; ++n) out << logicalNode(n);
        out << "</LDevice>";
    }
    out << "</Server></AccessPoint></IED>" << kTemplates << "</SCL>\n";
}

// ---- The child process ---------------------------------------------------------

const char* const kChildMode = "QV_BENCH_LOAD_MODE";  // "lib" or "bare"
const char* const kChildModel = "QV_BENCH_LOAD_MODEL";
const char* const kChildRows = "QV_BENCH_LOAD_ROWS";
const char* const kChildReportFd = "QV_BENCH_LOAD_FD";

void execOrFail(sqlite3* db, const char* sql, bool* ok) {
    *ok = *ok && sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Copies every row of one table of the attached "src" into the store with
// one prepared insert, binding each column as it was stored.
void copyRows(sqlite3* db, const char* table, int columns, bool* ok) {
    std::string insert = std::string("insert into ") + table + " values(?";
    for (int c = 1; c < columns; ++c) insert += ",?";
    insert += ")";
    const std::string select = std::string("select * from src.") + table + " order by rowid";
    sqlite3_stmt* from = nullptr;
    sqlite3_stmt* to = nullptr;
    *ok = *ok && sqlite3_prepare_v2(db, select.c_str(), -1, &from, nullptr) == SQLITE_OK &&
          sqlite3_prepare_v2(db, insert.c_str(), -1, &to, nullptr) == SQLITE_OK;
    while (*ok && sqlite3_step(from) == SQLITE_ROW) {
        for (int c = 0; c < columns; ++c)
            sqlite3_bind_value(to, c + 1, sqlite3_column_value(from, c));
        *ok = sqlite3_step(to) == SQLITE_DONE;
        sqlite3_reset(to);
    }
    sqlite3_finalize(from);
    sqlite3_finalize(to);
}

// libxml2's parse of the file, then the rows in one transaction.
bool bareLoad(const char* model, const char* rows) {
    xmlDocPtr doc = xmlReadFile(model, nullptr, XML_PARSE_NOBLANKS | XML_PARSE_NONET);
    if (doc == nullptr) return false;
    xmlFreeDoc(doc);
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(QV_REALTIME_DB_PATH, &db) == SQLITE_OK;
    const std::string attach = std::string("attach '") + rows + "' as src";
    execOrFail(db, attach.c_str(), &ok);
    execOrFail(db, "pragma src.cache_size=16", &ok);  // no more page cache than the library's
    execOrFail(db, "begin", &ok);
    copyRows(db, "DataSet", 4, &ok);
    copyRows(db, "DataSetSub", 9, &ok);
    copyRows(db, "DA", 10, &ok);
    copyRows(db, "DAValue", 5, &ok);
    execOrFail(db, "commit", &ok);
    sqlite3_close(db);
    return ok;
}

struct ChildReport {
    double cpuSeconds;
    double wallSeconds;
    int ok;
};

double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool loadWithOptions(const char* model) {
    const QvLoadOptions options{sizeof(QvLoadOptions), nullptr, 1, "*=byfc"};
    return zq_addIEDRealDBEx(model, &options) == 0;
}

// Runs before main in a child that the benchmark started: one load, its
// time to the parent, and the end of the process.
bool runAsLoadChild() {
    const char* mode = std::getenv(kChildMode);
    if (mode == nullptr) return false;
    const char* model = std::getenv(kChildModel);
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = cpuSeconds();
    const bool ok = std::strcmp(mode, "lib") == 0       ? zq_addIEDRealDB(model) == 0
                    : std::strcmp(mode, "options") == 0 ? loadWithOptions(model)
                                                        : bareLoad(model, std::getenv(kChildRows));
    const ChildReport report{
        cpuSeconds() - cpuStart,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), ok};
    const int fd = std::atoi(std::getenv(kChildReportFd));
    _exit(write(fd, &report, sizeof report) == sizeof report ? 0 : 1);
}

[[maybe_unused]] const bool g_isLoadChild = runAsLoadChild();

struct ChildRun {
    ChildReport report{0, 0, 0};
    long peakRssKiB = 0;
};

// Starts this benchmark binary again as a load child and waits for it.
ChildRun runLoadChild(const char* mode, int attributes) {
    int channel[2];
    if (pipe(channel) != 0) return {};
    const std::string model = modelPath(attributes), rows = rowsPath(attributes),
                      fd = std::to_string(channel[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        setenv(kChildMode, mode, 1);
        setenv(kChildModel, model.c_str(), 1);
        setenv(kChildRows, rows.c_str(), 1);
        setenv(kChildReportFd, fd.c_str(), 1);
        execl("/proc/self/exe", "qv_bench", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(channel[1]);
    ChildRun run;
    if (read(channel[0], &run.report, sizeof run.report) != sizeof run.report) run.report.ok = 0;
    close(channel[0]);
    struct rusage usage {};
    int status = 0;
    wait4(pid, &status, 0, &usage);
    run.peakRssKiB = usage.ru_maxrss;
    return run;
}

void createStore() { sqlite3_close(qvbench::freshStore(QV_REALTIME_DB_PATH, "realtime.sql")); }

long countAttributeRows() {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    long count = -1;
    sqlite3_open(QV_REALTIME_DB_PATH, &db);
    if (sqlite3_prepare_v2(db, "select count(*) from DA", -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        count = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// The model files of each size, made once per run and removed at its end.
class PreparedModels {
public:
    ~PreparedModels() {
        for (const auto& [attributes, ok] : prepared_) {
            unlink(modelPath(attributes).c_str());
            unlink(rowsPath(attributes).c_str());
        }
    }
    // The model file and the rows the library writes for it (the baseline's input).
    bool prepare(int attributes) {
        const auto found = prepared_.find(attributes);
        if (found != prepared_.end()) return found->second;
        mkdir(QV_TEST_STORE_DIR, 0755);
        writeModel(attributes, modelPath(attributes));
        createStore();
        const bool ok = runLoadChild("lib", attributes).report.ok;
        if (ok) {
            std::ifstream from(QV_REALTIME_DB_PATH, std::ios::binary);
            std::ofstream(rowsPath(attributes), std::ios::binary) << from.rdbuf();
        }
        return prepared_[attributes] = ok;
    }

private:
    std::map<int, bool> prepared_;
};

PreparedModels g_models;

void loadInFreshProcesses(benchmark::State& state, const char* mode) {
    const int attributes = static_cast<int>(state.range(0));
    if (!g_models.prepare(attributes)) {
        state.SkipWithError("the generated model did not load");
        return;
    }
    long peakRssKiB = 0;
    double seconds = 0, wallSeconds = 0;
    for (auto _ : state) {
        createStore();
        const ChildRun run = runLoadChild(mode, attributes);
        if (!run.report.ok) {
            state.SkipWithError("the load failed");
            return;
        }
        state.SetIterationTime(run.report.cpuSeconds);
        seconds += run.report.cpuSeconds;
        wallSeconds += run.report.wallSeconds;
        peakRssKiB = std::max(peakRssKiB, run.peakRssKiB);
    }
    const long rows = countAttributeRows();
    state.counters["DA_rows"] = static_cast<double>(rows);
    state.counters["peak_rss_MiB"] = static_cast<double>(peakRssKiB) / 1024.0;
    state.counters["wall_ms"] = wallSeconds / static_cast<double>(state.iterations()) * 1e3;
    state.counters["us_per_1000_attributes"] =
        seconds / static_cast<double>(state.iterations()) * 1e9 / static_cast<double>(rows);
}

// Library and baseline side by side at each size, so that both see the
// same load on the machine.
[[maybe_unused]] const bool g_registered = [] {
    for (int attributes : {5000, 50000, 100000}) {
        for (const char* mode : {"lib", "options", "bare"}) {
            if (std::strcmp(mode, "options") == 0 && attributes != 100000) continue;
            const std::string name = std::strcmp(mode, "lib") == 0       ? "Lib/LoadModel"
                                     : std::strcmp(mode, "options") == 0 ? "LibOptions/LoadModel"
                                                                         : "Bare/LoadModel";
            benchmark::RegisterBenchmark(name.c_str(), loadInFreshProcesses, mode)
                ->Arg(attributes)
                ->Iterations(3)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
    return true;
}();

}  // namespace
