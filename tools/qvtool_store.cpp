// qvtool commands on the real-time store: creating the stores, loading a
// model, single values and the model queries.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "internal/qvloader.h"
#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

namespace {

// Room for rows that a load adds between a count and its fetch.
constexpr int kSpareRows = 5000;

// ---- init -------------------------------------------------------------------

bool readFile(const std::string& path, std::string* text) {
    std::ifstream in(path);
    if (!in.good()) return false;
    std::stringstream content;
    content << in.rdbuf();
    *text = content.str();
    return true;
}

bool isFile(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The installed schema files, or the source tree's when the tool runs
// from a build tree that was never installed.
std::string schemaDir() {
    for (const char* dir : {QV_SCHEMA_DIR, QV_SOURCE_SCHEMA_DIR}) {
        if (isFile(std::string(dir) + "/realtime.sql") && isFile(std::string(dir) + "/conf.sql"))
            return dir;
    }
    return "";
}

// mkdir -p of the directory that holds a file.
bool makeParentDirs(const std::string& file) {
    for (size_t slash = file.find('/', 1); slash != std::string::npos;
         slash = file.find('/', slash + 1)) {
        const std::string dir = file.substr(0, slash);
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            complain("cannot create the directory %s: %s", dir.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

void removeStoreFiles(const std::string& path) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) unlink((path + suffix).c_str());
}

// Runs SQL on a store file, creating the file when needed. All of it or,
// when a statement fails, none of it.
bool runSql(const std::string& path, const std::string& sql, const std::string& source) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    char* error = nullptr;
    ok = ok && sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK &&
         sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!ok) {
        complain("%s on %s failed: %s", source.c_str(), path.c_str(),
                 error != nullptr ? error : sqlite3_errmsg(db));
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    sqlite3_free(error);
    sqlite3_close(db);
    return ok;
}

long long countRows(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    long long count = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// A journal mode cannot change inside the transaction that runs the schema:
// the schema's journal mode line is taken out and run first, on its own. A
// store in use may refuse it; the library switches it when it opens it.
void setJournalModeFirst(const std::string& path, std::string& schema) {
    const std::size_t start = schema.find("PRAGMA journal_mode");
    if (start == std::string::npos) return;
    const std::size_t length = schema.find(';', start) + 1 - start;
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) == SQLITE_OK)
        sqlite3_exec(db, schema.substr(start, length).c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
    schema.erase(start, length);
}

bool createStore(const char* what, const std::string& path, const std::string& schemaFile,
                 bool fresh) {
    std::string schema;
    if (!readFile(schemaFile, &schema)) {
        complain("cannot read the schema %s", schemaFile.c_str());
        return false;
    }
    if (fresh) removeStoreFiles(path);
    const bool existed = isFile(path);
    if (!makeParentDirs(path)) return false;
    setJournalModeFirst(path, schema);
    if (!runSql(path, schema, schemaFile)) return false;
    std::printf("%s store %s: %s\n", what, path.c_str(),
                existed ? "schema checked, rows kept" : "created");
    return true;
}

int runInit(const Args& args) {
    const std::string dir = schemaDir();
    if (dir.empty()) {
        complain("no schema files found in %s or %s", QV_SCHEMA_DIR, QV_SOURCE_SCHEMA_DIR);
        return kFailed;
    }
    std::string sample;
    const char* sampleFile = args.value("--conf-sample");
    if (sampleFile != nullptr && !readFile(sampleFile, &sample)) {
        complain("cannot read %s", sampleFile);
        return kFailed;
    }
    const bool fresh = args.has("--fresh");
    if (!createStore("real-time", QV_REALTIME_DB_PATH, dir + "/realtime.sql", fresh) ||
        !createStore("configuration", QV_CONF_DB_PATH, dir + "/conf.sql", fresh))
        return kFailed;
    if (sampleFile == nullptr) return kOk;
    // Running a sample twice would duplicate every process and route.
    if (countRows(QV_CONF_DB_PATH, "select count(*) from ProcessConfig") != 0) {
        complain("the configuration store already holds processes; %s not run (use --fresh)",
                 sampleFile);
        return kFailed;
    }
    if (!runSql(QV_CONF_DB_PATH, sample, sampleFile)) return kFailed;
    std::printf("configuration store %s: %s run\n", QV_CONF_DB_PATH, sampleFile);
    return kOk;
}

// ---- load -------------------------------------------------------------------

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text;
}

// Loads (or with --check only reads and expands) one file and prints what
// it holds: its IEDs and its own data sets, members and attributes.
int runLoad(const Args& args) {
    const std::string& file = args.positional[0];
    const bool check = args.has("--check");
    if (!check && !openRealStore()) return kFailed;
    std::printf("%s %s ...\n", check ? "checking" : "loading", file.c_str());
    std::fflush(stdout);
    qvaddied::LoadSummary summary;
    const int result = qvaddied::loadFile(file.c_str(), args.value("--ied"), !check, &summary);
    if (result == -2) {
        complain("%s is not a usable SCL model; the store is unchanged", file.c_str());
        return kFailed;
    }
    if (result != 0) {
        complain("the model could not be written (store busy or unwritable); the store is "
                 "unchanged");
        return kFailed;
    }
    if (summary.ieds.empty()) {
        complain("%s has no IED: nothing %s", file.c_str(), check ? "to load" : "was loaded");
        return kFailed;
    }
    std::printf("IEDs: %s\n%s: %ld data sets, %ld members, %ld attributes\n",
                joined(summary.ieds).c_str(), check ? "would load" : "loaded", summary.dataSets,
                summary.members, summary.attributes);
    return kOk;
}

// ---- get, set ---------------------------------------------------------------

bool readValue(const std::string& ref, double* value, int* quality) {
    if (zq_getDoubDAValue1(ref.c_str(), value, quality) == 0) return true;
    complain("no value row for %s", ref.c_str());
    return false;
}

void printValue(double value, int quality) {
    std::printf("value=%s quality=%d\n", formatDouble(value).c_str(), quality);
}

int runGet(const Args& args) {
    double value = 0;
    int quality = 0;
    if (!openRealStore() || !readValue(args.positional[0], &value, &quality)) return kFailed;
    printValue(value, quality);
    return kOk;
}

int runSet(const Args& args) {
    const std::string& ref = args.positional[0];
    double value = 0;
    int quality = 0;
    const bool withQuality = args.positional.size() > 2;
    if (!parseDouble(args.positional[1], &value))
        return usageError("set: %s is not a number", args.positional[1].c_str());
    if (withQuality && !parseInt(args.positional[2], &quality))
        return usageError("set: quality %s is not an integer", args.positional[2].c_str());
    double old = 0;
    int oldQuality = 0;
    // A save of a missing row succeeds without writing; say so instead.
    if (!openRealStore() || !readValue(ref, &old, &oldQuality)) return kFailed;
    const int saved = withQuality ? zq_saveDoubDAValue1(ref.c_str(), value, quality)
                                  : zq_saveDoubDAValue(ref.c_str(), value);
    if (saved != 0 || !readValue(ref, &value, &quality)) return kFailed;
    printValue(value, quality);
    return kOk;
}

// ---- model queries ----------------------------------------------------------

int runDataSets(const Args&) {
    if (!openRealStore()) return kFailed;
    std::vector<DataSet> sets;
    if (!fetchList(&sets, zq_getAllDataSetsNum, zq_getAllDataSets, kSpareRows))
        return kFailed;
    Table table({"IED", "DATA SET", "LD", "DESCRIPTION"});
    for (const DataSet& set : sets) table.add({set.iedName, set.name, set.ldInst, set.desc});
    return printList(table, "data sets");
}

int runMembers(const Args& args) {
    const char* f[] = {args.value("--ied"),     args.value("--ds"),     args.value("--ld"),
                       args.value("--lnclass"), args.value("--lninst"), args.value("--do"),
                       args.value("--da"),      args.value("--fc")};
    if (!openRealStore()) return kFailed;
    std::vector<DataSetSub> members;
    const bool fetched = fetchList(
        &members,
        [&](int* count) {
            return zq_getDataSetSubsByParamsNum(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7],
                                                count);
        },
        [&](DataSetSub* rows, int* count) {
            return zq_getDataSetSubsByParams(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], rows,
                                             count);
        },
        kSpareRows);
    if (!fetched) return kFailed;
    Table table({"IED", "DATA SET", "LD", "LN", "DO", "DA", "FC", "REFERENCE"});
    for (const DataSetSub& m : members) {
        table.add({m.iedName, m.dsName, m.ldInst, std::string(m.lnClass) + m.lnInst, m.doName,
                   m.daName, m.fc, m.fcdaName});
    }
    return printList(table, "matching members");
}

int runAttrs(const Args& args) {
    const char* f[] = {args.value("--ied"), args.value("--ld"), args.value("--ln"),
                       args.value("--do"), args.value("--fc")};
    if (!openRealStore()) return kFailed;
    std::vector<DA> attributes;
    const bool fetched = fetchList(
        &attributes,
        [&](int* count) { return zq_getDAsByParamsNum(f[0], f[1], f[2], f[3], f[4], count); },
        [&](DA* rows, int* count) {
            return zq_getDAsByParams(f[0], f[1], f[2], f[3], f[4], rows, count);
        },
        kSpareRows);
    if (!fetched) return kFailed;
    Table table({"REFERENCE", "FC", "TYPE", "VALUE", "DESCRIPTION"});
    for (const DA& da : attributes) {
        table.add({da.daName, da.fcName, da.valueType, da.value, da.doDesc});
    }
    return printList(table, "matching attributes");
}

// ---- dump -------------------------------------------------------------------

std::string jsonString(const char* text) {
    std::string out = "\"";
    for (const char* c = text; *c != '\0'; ++c) {
        const unsigned char byte = static_cast<unsigned char>(*c);
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += *c;
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += *c;
        }
    }
    return out + "\"";
}

// One member's live value; a member without a value row has none.
struct MemberValue {
    const DataSetSub* member;
    bool present;
    double value;
    int quality;
};

void printDumpJson(const std::string& ied, const std::string& dataSet,
                   const std::vector<MemberValue>& values) {
    std::printf("{\n  \"ied\": %s,\n  \"dataSet\": %s,\n  \"members\": [",
                jsonString(ied.c_str()).c_str(), jsonString(dataSet.c_str()).c_str());
    for (size_t i = 0; i < values.size(); ++i) {
        const MemberValue& v = values[i];
        const std::string value = v.present ? formatDouble(v.value) : "null";
        const std::string quality = v.present ? std::to_string(v.quality) : "null";
        std::printf("%s\n    {\"reference\": %s, \"value\": %s, \"quality\": %s}",
                    i == 0 ? "" : ",", jsonString(v.member->fcdaName).c_str(), value.c_str(),
                    quality.c_str());
    }
    std::printf("%s]\n}\n", values.empty() ? "" : "\n  ");
}

void printDumpTable(const std::vector<MemberValue>& values) {
    Table table({"REFERENCE", "VALUE", "QUALITY"});
    for (const MemberValue& v : values) {
        table.add({v.member->fcdaName, v.present ? formatDouble(v.value) : "-",
                   v.present ? std::to_string(v.quality) : "-"});
    }
    table.print();
}

int runDump(const Args& args) {
    const std::string& ied = args.positional[0];
    const std::string& dataSet = args.positional[1];
    if (!openRealStore()) return kFailed;
    DataSet set;
    if (zq_getDataSetByName(ied.c_str(), dataSet.c_str(), &set) != 0) {
        complain("no data set %s of IED %s", dataSet.c_str(), ied.c_str());
        return kFailed;
    }
    std::vector<DataSetSub> members;
    const bool fetched = fetchList(
        &members,
        [&](int* count) {
            return zq_getDataSetSubsByParamsNum(ied.c_str(), dataSet.c_str(), nullptr, nullptr,
                                                nullptr, nullptr, nullptr, nullptr, count);
        },
        [&](DataSetSub* rows, int* count) {
            return zq_getDataSetSubsByParams(ied.c_str(), dataSet.c_str(), nullptr, nullptr,
                                             nullptr, nullptr, nullptr, nullptr, rows, count);
        },
        kSpareRows);
    if (!fetched) return kFailed;
    // The library reads the members again; room for a reload in between.
    const size_t room = members.size() + kSpareRows;
    std::vector<double> values(room, NAN);  // a member without a value row stays NaN
    std::vector<int> qualities(room, 0);
    int count = 0;
    if (zq_getDAValues1ByDataSet(ied.c_str(), dataSet.c_str(), values.data(), qualities.data(),
                                 &count) != 0)
        return kFailed;
    if (static_cast<size_t>(count) != members.size()) {
        complain("data set %s changed while it was read; run again", dataSet.c_str());
        return kFailed;
    }
    std::vector<MemberValue> dump;
    for (size_t i = 0; i < members.size(); ++i) {
        dump.push_back({&members[i], !std::isnan(values[i]), values[i], qualities[i]});
    }
    if (args.has("--json")) {
        printDumpJson(ied, dataSet, dump);
    } else {
        printDumpTable(dump);
    }
    return kOk;
}

}  // namespace

const std::vector<Command>& storeCommands() {
    static const std::vector<Command> commands = {
        {"init", "init [--fresh] [--conf-sample FILE]",
         "create the real-time and configuration stores",
         "Creates the store directories and both stores from the shipped schema\n"
         "(realtime.sql and conf.sql of " QV_SCHEMA_DIR ",\n"
         "or of the source tree when they are not installed). An existing store keeps\n"
         "its rows; the schema only adds what is missing.\n\n"
         "  --fresh             remove both store files first\n"
         "  --conf-sample FILE  then run FILE (SQL, e.g. samples/conf_sample.sql) into the\n"
         "                      configuration store; refused when it already has processes\n",
         {"--conf-sample"}, {"--fresh"}, 0, 0, runInit},
        {"load", "load FILE [--ied NAME] [--check]",
         "load an SCL model (ICD/CID/SCD) into the real-time store",
         "Replaces the rows of the file's IEDs and prints the IEDs, data sets, members\n"
         "and attributes of this file. A load fails, leaving the store as it was, when\n"
         "the file is not a usable model or when another process keeps the store busy;\n"
         "run it again. Exit code 1 also for a file without any IED.\n\n"
         "  --ied NAME  load only the IED of that name (the file's types are shared)\n"
         "  --check     read and expand the model and report what would be loaded;\n"
         "              the store is not touched\n",
         {"--ied"}, {"--check"}, 1, 1, runLoad},
        {"get", "get REF", "print the live value and quality of a data attribute",
         "REF is the DA reference as loaded, e.g. 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f'.\n"
         "Prints \"value=V quality=Q\". Exit code 1 when REF has no value row.\n",
         {}, {}, 1, 1, runGet},
        {"set", "set REF VALUE [QUALITY]", "write the live value (and quality) of a data attribute",
         "Without QUALITY the stored quality is kept. QUALITY is an integer (0x.. for\n"
         "hexadecimal). Prints the value and quality read back. Exit code 1 when REF\n"
         "has no value row (nothing is written).\n",
         {}, {}, 2, 3, runSet},
        {"datasets", "datasets", "list the data sets of the loaded models", "", {}, {}, 0, 0,
         runDataSets},
        {"members", "members [--ied --ds --ld --lnclass --lninst --do --da --fc]",
         "list data set members, filtered",
         "Each option takes a value and keeps the members whose column equals it\n"
         "exactly (an empty value matches empty columns):\n"
         "  --ied IED  --ds DATASET  --ld LDINST  --lnclass CLASS  --lninst INST\n"
         "  --do DO    --da DA       --fc FC\n"
         "Exit code 1 when no member matches.\n",
         {"--ied", "--ds", "--ld", "--lnclass", "--lninst", "--do", "--da", "--fc"}, {}, 0, 0,
         runMembers},
        {"attrs", "attrs [--ied --ld --ln --do --fc]",
         "list data attributes of the model, filtered",
         "Each option takes a value and keeps the attributes whose column equals it:\n"
         "  --ied IED  --ld LDINST  --ln LN (class and instance, e.g. MMXU1)\n"
         "  --do DO (data object path, e.g. PhV$phsA)  --fc FC\n"
         "VALUE is the value text of the model file, not the live value.\n"
         "Exit code 1 when no attribute matches.\n",
         {"--ied", "--ld", "--ln", "--do", "--fc"}, {}, 0, 0, runAttrs},
        {"dump", "dump IED DATASET [--json]", "show a data set's live values and qualities",
         "One row per member in member order; a member without a value row (a whole\n"
         "data object) shows \"-\", in JSON null.\n\n"
         "  --json  print {\"ied\", \"dataSet\", \"members\": [{\"reference\", \"value\",\n"
         "          \"quality\"}]}\n",
         {}, {"--json"}, 2, 2, runDump},
    };
    return commands;
}

}  // namespace qvtool
