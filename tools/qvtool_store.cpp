// qvtool commands on the real-time store: creating the stores, loading a
// model, single values and the model queries.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "internal/qvfeed_hooks.h"
#include "internal/qvloader.h"
#include "qvaddied.h"
#include "qvconf.h"
#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

namespace {

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
        if (mkdir(dir.c_str(), directoryMode()) == 0) {
            chmod(dir.c_str(), directoryMode());  // whatever the umask
        } else if (errno != EEXIST) {
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
    if (!storePathAllowed(path)) return false;
    if (fresh) removeStoreFiles(path);
    const bool existed = isFile(path);
    if (!makeParentDirs(path) || !createStoreFile(path)) return false;
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
    qvfeed::announceReset();  // followers of the feed re-read the store
    if (sampleFile == nullptr) return kOk;
    // Running a sample twice would duplicate every process and route.
    int processes = 0;
    if (!openConfStore() || zq_getAllProcessConfigsNum(&processes) != 0) return kFailed;
    waitingForStore(nullptr);
    if (processes != 0) {
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

// What the load options would do: names merged, value rows by class.
void printCheckDetails(const qvaddied::LoadSummary& summary) {
    const long* of = summary.valueRowsOfClass;
    std::printf("names merged: %ld logical nodes into %ld names\n"
                "value rows: %ld (ain %ld, din %ld, double point %ld, control %ld, energy %ld)\n",
                summary.mergedNodes, summary.mergedNames, summary.valueRows, of[MO_NI_LIANG],
                of[DIAN_DIAN_SHU_ZI_LIANG], of[SHUANG_DIAN_SHU_ZI_LIANG], of[SBO_YAO_KONG_LIANG],
                of[DIAN_DU_LEI_JIA_LIANG]);
}

// Loads (or with --check only reads and expands) one file and prints what
// it holds: its IEDs and its own data sets, members and attributes.
int runLoad(const Args& args) {
    const std::string& file = args.positional[0];
    const bool check = args.has("--check");
    if (!check && !openRealStore()) return kFailed;
    // The load takes no store lock: a long load is no wait for the store, and
    // --timeout must not cut it short.
    waitingForStore(nullptr);
    std::printf("%s %s ...\n", check ? "checking" : "loading", file.c_str());
    std::fflush(stdout);
    qvaddied::LoadSummary summary;
    qvaddied::LoadOptions options;
    options.iedName = args.value("--ied");
    options.lnPrefix = args.has("--ln-prefix");
    options.valueClasses = args.value("--values");
    const int result = qvaddied::loadFile(file.c_str(), options, !check, &summary);
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
    if (check) printCheckDetails(summary);
    return kOk;
}

// ---- get, set ---------------------------------------------------------------

// Why a reference has no value row: unknown, a whole data object, or an
// attribute that no classified data set holds.
void explainMissingValue(const std::string& ref) {
    DA attribute;
    DataSetSub member;
    if (zq_getDAByName(ref.c_str(), &attribute) == 0) {
        complain("no value row for %s: only members of the classified data sets (dsAin, dsDin, "
                 "dsGgio, dsControl, dsEnergy) have live values",
                 ref.c_str());
    } else if (zq_getDataSetSubByName(ref.c_str(), &member) == 0) {
        complain("no value row for %s: it names a whole data object; its data attributes carry "
                 "the values (see qvtool tree)",
                 ref.c_str());
    } else {
        complain("no value row for %s: no such data attribute in the model", ref.c_str());
    }
}

bool readValue(const std::string& ref, double* value, int* quality) {
    if (zq_getDoubDAValue1(ref.c_str(), value, quality) == 0) return true;
    explainMissingValue(ref);
    return false;
}

int printValue(const Args& args, const std::string& ref, double value, int quality) {
    const Json record = {{"daName", ref}, {"value", value}, {"quality", quality}};
    return printRecord(args, record,
                       "value=" + formatDouble(value) + " quality=" + std::to_string(quality));
}

int runGet(const Args& args) {
    double value = 0;
    int quality = 0;
    if (!openRealStore() || !readValue(args.positional[0], &value, &quality)) return kFailed;
    return printValue(args, args.positional[0], value, quality);
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
    // A save of a missing row succeeds without writing; the read back says so.
    if (!openRealStore()) return kFailed;
    const int saved = withQuality ? zq_saveDoubDAValue1(ref.c_str(), value, quality)
                                  : zq_saveDoubDAValue(ref.c_str(), value);
    if (saved != 0 || !readValue(ref, &value, &quality)) return kFailed;
    return printValue(args, ref, value, quality);
}

// ---- model queries ----------------------------------------------------------

Json toJson(const DataSet& set) {
    return {{"iedName", set.iedName}, {"name", set.name}, {"ldInst", set.ldInst},
            {"desc", set.desc}};
}

Json toJson(const DataSetSub& m) {
    return {{"fcdaName", m.fcdaName}, {"iedName", m.iedName}, {"dsName", m.dsName},
            {"ldInst", m.ldInst},     {"lnClass", m.lnClass}, {"lnInst", m.lnInst},
            {"doName", m.doName},     {"daName", m.daName},   {"fc", m.fc}};
}

Json toJson(const DA& da) {
    return {{"daName", da.daName}, {"iedName", da.iedName}, {"ldName", da.ldName},
            {"lnName", da.lnName}, {"doName", da.doName},   {"fcName", da.fcName},
            {"value", da.value},   {"valueType", da.valueType}, {"doDesc", da.doDesc}};
}

template <typename Record>
Json toJsonRows(const std::vector<Record>& records) {
    Json rows = Json::array();
    for (const Record& record : records) rows.push_back(toJson(record));
    return rows;
}

// A data object or attribute path in the notation that a table stores:
// members keep the dots of the model file (PhV.phsA), attributes use '$'
// (PhV$phsA). Either form is accepted on the command line.
const char* pathFilter(const Args& args, const char* option, char separator,
                       std::string* storage) {
    const char* given = args.value(option);
    if (given == nullptr) return nullptr;
    *storage = given;
    std::replace(storage->begin(), storage->end(), separator == '.' ? '$' : '.', separator);
    return storage->c_str();
}

// --ln LN (class and instance, e.g. MMXU1) as the members' two columns: the
// class is the four letters of an IEC 61850 logical node class.
bool splitLnName(const Args& args, std::string* lnClass, std::string* lnInst) {
    const char* ln = args.value("--ln");
    if (ln == nullptr) return true;
    if (args.has("--lnclass") || args.has("--lninst") || std::strlen(ln) < 4) return false;
    *lnClass = std::string(ln, 4);
    *lnInst = ln + 4;
    return true;
}

int runDataSets(const Args& args) {
    std::vector<DataSet> sets;
    if (!openRealStore() || !fetchList(&sets, zq_getAllDataSetsNum, zq_getAllDataSetsN))
        return kFailed;
    return printRows(args, {{"IED", "iedName"}, {"DATA SET", "name"}, {"LD", "ldInst"},
                            {"DESCRIPTION", "desc"}},
                     toJsonRows(sets));
}

int runMembers(const Args& args) {
    std::string doName, daName, lnClass, lnInst;
    if (!splitLnName(args, &lnClass, &lnInst))
        return usageError("members: --ln takes a class and instance (e.g. MMXU1) and goes "
                          "without --lnclass and --lninst");
    const bool lnGiven = args.has("--ln");
    std::vector<DataSetSub> members;
    if (!openRealStore() ||
        !fetchList(&members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN,
                   args.value("--ied"), args.value("--ds"), args.value("--ld"),
                   lnGiven ? lnClass.c_str() : args.value("--lnclass"),
                   lnGiven ? lnInst.c_str() : args.value("--lninst"),
                   pathFilter(args, "--do", '.', &doName), pathFilter(args, "--da", '.', &daName),
                   args.value("--fc")))
        return kFailed;
    return printRows(args, {{"IED", "iedName"}, {"DATA SET", "dsName"}, {"LD", "ldInst"},
                            {"LNCLASS", "lnClass"}, {"LNINST", "lnInst"}, {"DO", "doName"},
                            {"DA", "daName"}, {"FC", "fc"}, {"REFERENCE", "fcdaName"}},
                     toJsonRows(members));
}

int runAttrs(const Args& args) {
    std::string doName;
    std::vector<DA> attributes;
    if (!openRealStore() ||
        !fetchList(&attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, args.value("--ied"),
                   args.value("--ld"), args.value("--ln"), pathFilter(args, "--do", '$', &doName),
                   args.value("--fc")))
        return kFailed;
    return printRows(args, {{"REFERENCE", "daName"}, {"FC", "fcName"}, {"TYPE", "valueType"},
                            {"VALUE", "value"}, {"DESCRIPTION", "doDesc"}},
                     toJsonRows(attributes));
}

// The live values (under valueField) and qualities of the references, as
// fields of the rows, read in one list read so that they show one moment.
// A reference without a value row gets nulls: the list read leaves its
// element as it was, and no stored value is NaN (SQLite keeps NaN as null).
bool addLiveValues(const std::vector<const char*>& refs, const char* valueField, Json* rows) {
    const int count = static_cast<int>(refs.size());
    std::vector<DaNameRow> names(refs.size());
    for (int i = 0; i < count; ++i) std::snprintf(names[i], sizeof names[i], "%s", refs[i]);
    std::vector<double> values(refs.size(), std::nan(""));
    std::vector<int> qualities(refs.size(), 0);
    if (count > 0 && zq_getDAValues1(names.data(), count, values.data(), qualities.data()) != 0) {
        complain("cannot read the live values");
        return false;
    }
    for (int i = 0; i < count; ++i) {
        const bool live = !std::isnan(values[i]);
        (*rows)[i][valueField] = live ? Json(values[i]) : Json();
        (*rows)[i]["quality"] = live ? Json(qualities[i]) : Json();
    }
    return true;
}

// ---- tree -------------------------------------------------------------------

// A path of the model in dots (PhV$phsA -> PhV.phsA).
std::string dotted(std::string path) {
    std::replace(path.begin(), path.end(), '$', '.');
    return path;
}

// The attribute's own path within its data object: the reference less
// "IED" "LD" "/" "LN" "$" "FC" "$" "DO" "$".
std::string attributePath(const Json& da) {
    const std::string prefix = da["iedName"].get<std::string>() + da["ldName"].get<std::string>() +
                               "/" + da["lnName"].get<std::string>() + "$" +
                               da["fcName"].get<std::string>() + "$" +
                               da["doName"].get<std::string>() + "$";
    std::string path = da["daName"];
    if (path.compare(0, prefix.size(), prefix) == 0) path.erase(0, prefix.size());
    return dotted(path);
}

// One line per level that changes from the attribute before (IED, LD, LN,
// DO), then the attribute's line.
void printTree(const Json& attributes) {
    std::vector<std::string> above;
    for (const Json& da : attributes) {
        const std::vector<std::string> levels = {da["iedName"], da["ldName"], da["lnName"],
                                                 dotted(da["doName"])};
        size_t same = 0;
        while (same < above.size() && above[same] == levels[same]) ++same;
        for (size_t level = same; level < levels.size(); ++level)
            std::printf("%*s%s\n", static_cast<int>(2 * level), "", levels[level].c_str());
        above = levels;
        std::string line = std::string(8, ' ') + attributePath(da) + " [" +
                           da["fcName"].get<std::string>() + "]";
        if (!da["liveValue"].is_null())
            line += " = " + formatDouble(da["liveValue"]) + " quality=" + da["quality"].dump();
        std::puts(line.c_str());
    }
}

int runTree(const Args& args) {
    std::vector<DA> attributes;
    if (!openRealStore() ||
        !fetchList(&attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, args.value("--ied"),
                   args.value("--ld"), nullptr, nullptr, nullptr))
        return kFailed;
    Json rows = Json::array();
    std::vector<const char*> refs;
    for (const DA& da : attributes) {
        rows.push_back(toJson(da));
        refs.push_back(da.daName);
    }
    if (!addLiveValues(refs, "liveValue", &rows)) return kFailed;
    if (args.has("--json")) return printRows(args, {}, rows);
    waitingForStore(nullptr);
    printTree(rows);
    return kOk;
}

// ---- dump -------------------------------------------------------------------

int runDump(const Args& args) {
    const char* ied = args.positional[0].c_str();
    const char* dataSet = args.positional[1].c_str();
    if (!openRealStore()) return kFailed;
    DataSet set;
    if (zq_getDataSetByName(ied, dataSet, &set) != 0) {
        complain("no data set %s of IED %s", dataSet, ied);
        return kFailed;
    }
    std::vector<DataSetSub> members;
    if (!fetchList(&members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN, ied,
                   dataSet, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr))
        return kFailed;
    // A member without a value row (a whole data object, an unclassified
    // set) shows none.
    Json rows = Json::array();
    std::vector<const char*> refs;
    for (const DataSetSub& member : members) {
        rows.push_back({{"fcdaName", member.fcdaName}});
        refs.push_back(member.fcdaName);
    }
    if (!addLiveValues(refs, "value", &rows)) return kFailed;
    return printRows(args, {{"REFERENCE", "fcdaName"}, {"VALUE", "value"}, {"QUALITY", "quality"}},
                     rows);
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
        {"load", "load FILE [--ied NAME] [--ln-prefix] [--values RULES] [--check]",
         "load an SCL model (ICD/CID/SCD) into the real-time store",
         "Replaces the rows of the file's IEDs and prints the IEDs, data sets, members\n"
         "and attributes of this file. A load fails, leaving the store as it was, when\n"
         "the file is not a usable model or when another process keeps the store busy;\n"
         "run it again. Exit code 1 also for a file without any IED.\n\n"
         "  --ied NAME      load only the IED of that name (the file's types are shared)\n"
         "  --ln-prefix     name logical nodes prefix+lnClass+inst, so that nodes told\n"
         "                  apart by prefix only keep distinct references\n"
         "  --values RULES  value rows by data set: comma-separated PATTERN=CLASS, the\n"
         "                  first match wins ('*', '?' wildcards); CLASS ain, din,\n"
         "                  control, energy, none or byfc; e.g. '*=byfc'\n"
         "  --check         read and expand the model and report what would be loaded,\n"
         "                  names merged and value rows by class; the store is not touched\n",
         {"--ied", "--values"}, {"--check", "--ln-prefix"}, 1, 1, runLoad},
        {"get", "get REF [--json]", "print the live value and quality of a data attribute",
         "REF is the DA reference as loaded, e.g. 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f'.\n"
         "Prints \"value=V quality=Q\", with --json {\"daName\", \"value\", \"quality\"}.\n"
         "Only the members of the classified data sets (dsAin, dsDin, dsGgio, dsControl,\n"
         "dsEnergy) have live values; exit code 1 when REF has none.\n",
         {}, {"--json"}, 1, 1, runGet},
        {"set", "set REF VALUE [QUALITY] [--json]",
         "write the live value (and quality) of a data attribute",
         "Without QUALITY the stored quality is kept. QUALITY is an integer (0x.. for\n"
         "hexadecimal). Prints the value and quality read back. Exit code 1 when REF\n"
         "has no value row (nothing is written).\n",
         {}, {"--json"}, 2, 3, runSet},
        {"datasets", "datasets [--json]", "list the data sets of the loaded models",
         "JSON fields: iedName, name, ldInst, desc.\n", {}, {"--json"}, 0, 0, runDataSets},
        {"members", "members [--ied --ds --ld --ln|--lnclass --lninst --do --da --fc] [--json]",
         "list data set members, filtered",
         "Each option takes a value and keeps the members whose column equals it\n"
         "exactly (an empty value matches empty columns):\n"
         "  --ied IED  --ds DATASET  --ld LDINST  --ln LN (class and instance, e.g. MMXU1)\n"
         "  --lnclass CLASS  --lninst INST  --do DO  --da DA  --fc FC\n"
         "Paths may be written with dots or '$': --do PhV.phsA, --da cVal$mag$f.\n"
         "JSON fields: fcdaName, iedName, dsName, ldInst, lnClass, lnInst, doName,\n"
         "daName, fc.\n",
         {"--ied", "--ds", "--ld", "--ln", "--lnclass", "--lninst", "--do", "--da", "--fc"},
         {"--json"}, 0, 0, runMembers},
        {"attrs", "attrs [--ied --ld --ln --do --fc] [--json]",
         "list data attributes of the model, filtered",
         "Each option takes a value and keeps the attributes whose column equals it:\n"
         "  --ied IED  --ld LDINST  --ln LN (class and instance, e.g. MMXU1)\n"
         "  --do DO (data object path, PhV.phsA or PhV$phsA)  --fc FC\n"
         "VALUE is the value text of the model file, not the live value.\n"
         "JSON fields: daName, iedName, ldName, lnName, doName, fcName, value,\n"
         "valueType, doDesc.\n",
         {"--ied", "--ld", "--ln", "--do", "--fc"}, {"--json"}, 0, 0, runAttrs},
        {"tree", "tree [--ied IED] [--ld LDINST] [--json]",
         "show the model as a tree with live values",
         "One line per level: IED, logical device, logical node, data object, then each\n"
         "data attribute with its functional constraint in brackets and, where it has a\n"
         "value row, \"= VALUE quality=Q\". Paths are written with dots. With --json the\n"
         "attributes as attrs --json prints them, each with liveValue and quality (null\n"
         "without a value row).\n",
         {"--ied", "--ld"}, {"--json"}, 0, 0, runTree},
        {"dump", "dump IED DATASET [--json]", "show a data set's live values and qualities",
         "One row per member in member order; a member without a value row (a whole\n"
         "data object) shows \"-\", in JSON null. Exit code 1 when the data set does not\n"
         "exist. JSON: [{\"fcdaName\", \"value\", \"quality\"}, ...].\n",
         {}, {"--json"}, 2, 2, runDump},
    };
    return commands;
}

}  // namespace qvtool
