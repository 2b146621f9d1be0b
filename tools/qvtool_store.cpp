// qvtool commands that make the stores and load models into them.
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
#include "qvtool_status.h"

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

}  // namespace

// The installed schema files, or the source tree's when the tool runs
// from a build tree that was never installed.
std::string schemaDir() {
    for (const char* dir : {QV_SCHEMA_DIR, QV_SOURCE_SCHEMA_DIR}) {
        if (isFile(std::string(dir) + "/realtime.sql") && isFile(std::string(dir) + "/conf.sql"))
            return dir;
    }
    return "";
}

namespace {

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
    // The change feed beside the store too: its followers reopen the new one.
    for (const char* suffix : {"", "-journal", "-wal", "-shm", "-feed"})
        unlink((path + suffix).c_str());
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

// Removing a store under running processes leaves them writing to a file
// that no longer has a name: --fresh refuses while any runs, unless --force.
bool storesInUse() {
    bool inUse = false;
    for (const char* path : {QV_REALTIME_DB_PATH, QV_CONF_DB_PATH}) {
        for (const std::string& opener : storeOpeners(path)) {
            complain("%s has the store %s open", opener.c_str(), path);
            inUse = true;
        }
    }
    if (inUse) complain("init --fresh refused: stop those processes first, or add --force");
    return inUse;
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
    if (fresh && !args.has("--force") && storesInUse()) return kFailed;
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

}  // namespace

const std::vector<Command>& storeCommands() {
    static const std::vector<Command> commands = {
        {"init", "init [--fresh [--force]] [--conf-sample FILE]",
         "create the real-time and configuration stores",
         "Creates the store directories and both stores from the shipped schema\n"
         "(realtime.sql and conf.sql of " QV_SCHEMA_DIR ",\n"
         "or of the source tree when they are not installed). An existing store keeps\n"
         "its rows; the schema only adds what is missing.\n\n"
         "  --fresh             remove both store files first; refused while other\n"
         "                      processes have a store open (they are named)\n"
         "  --force             with --fresh: remove them all the same\n"
         "  --conf-sample FILE  then run FILE (SQL, e.g. samples/conf_sample.sql) into the\n"
         "                      configuration store; refused when it already has processes\n",
         {"--conf-sample"}, {"--fresh", "--force"}, 0, 0, runInit},
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
    };
    return commands;
}

}  // namespace qvtool
