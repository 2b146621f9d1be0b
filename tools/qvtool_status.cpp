// qvtool status: is this gateway healthy? The store files, their tables and
// integrity, the store lock and the receivers' queues, read without the
// library where it has no operation for them (a read-only SQLite connection,
// semctl, msgctl, /proc).
#include "qvtool_status.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "feed/feed_file.h"
#include "qvaddied.h"
#include "qvconf.h"
#include "qvmessage.h"
#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

namespace {

std::string processName(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name.empty() ? "?" : name;
}

// What the report found wrong, each said in one line.
class Problems {
public:
    void add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        char text[1024];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        list_.push_back(text);
    }
    const std::vector<std::string>& list() const { return list_; }

private:
    std::vector<std::string> list_;
};

using Rows = std::vector<std::vector<std::string>>;

// The rows of a query as texts (NULL as ""); false with SQLite's reason.
bool queryRows(sqlite3* db, const std::string& sql, Rows* rows, std::string* error) {
    sqlite3_stmt* statement = nullptr;
    int step = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    rows->clear();
    while (step == SQLITE_OK || step == SQLITE_ROW) {
        step = sqlite3_step(statement);
        if (step != SQLITE_ROW) break;
        rows->emplace_back();
        for (int c = 0; c < sqlite3_column_count(statement); ++c) {
            const unsigned char* text = sqlite3_column_text(statement, c);
            rows->back().push_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
    }
    const bool ok = step == SQLITE_DONE;
    if (!ok) *error = sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    return ok;
}

long long fileSize(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

// The table names of a schema file, in its order.
std::vector<std::string> schemaTables(const std::string& schemaFile) {
    std::ifstream in(schemaFile);
    std::vector<std::string> tables;
    const std::string create = "CREATE TABLE IF NOT EXISTS ";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, create.size(), create) != 0) continue;
        const std::string rest = line.substr(create.size());
        tables.push_back(rest.substr(0, rest.find_first_of(" (")));
    }
    return tables;
}

// ---- the stores ---------------------------------------------------------------

Json storeFiles(const std::string& path) {
    Json files = Json::array();
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const long long bytes = fileSize(path + suffix);
        if (bytes >= 0) files.push_back({{"file", path + suffix}, {"bytes", bytes}});
    }
    return files;
}

// Counts by IED and value rows by class: what a load put into the store.
void modelCounts(sqlite3* db, Json* store, Problems* problems) {
    Rows rows;
    std::string error;
    const char* byIed =
        "select iedName, sum(s), sum(m), sum(a) from ("
        " select iedName, 1 s, 0 m, 0 a from DataSet union all"
        " select iedName, 0, 1, 0 from DataSetSub union all"
        " select iedName, 0, 0, 1 from DA) group by iedName order by iedName";
    if (!queryRows(db, byIed, &rows, &error)) return problems->add("counting by IED: %s", error.c_str());
    Json ieds = Json::array();
    for (const auto& r : rows)
        ieds.push_back({{"iedName", r[0]}, {"dataSets", std::stoll(r[1])},
                        {"members", std::stoll(r[2])}, {"attributes", std::stoll(r[3])}});
    (*store)["ieds"] = ieds;
    if (!queryRows(db, "select cast(type as integer), count(*) from DAValue group by 1 order by 1",
                   &rows, &error))
        return problems->add("counting value rows: %s", error.c_str());
    static const std::map<int, const char*> names = {
        {OTHER_TYPE, "other"},  {MO_NI_LIANG, "ain"},           {DIAN_DIAN_SHU_ZI_LIANG, "din"},
        {SHUANG_DIAN_SHU_ZI_LIANG, "double point"}, {SBO_YAO_KONG_LIANG, "control"},
        {DIAN_DU_LEI_JIA_LIANG, "energy"}, {SHU_ZI_SHU_CHU_LIANG, "digital out"}};
    Json classes = Json::object();
    for (const auto& r : rows) {
        const auto name = names.find(std::stoi(r[0]));
        classes[name != names.end() ? name->second : "class " + r[0]] = std::stoll(r[1]);
    }
    (*store)["valueRows"] = classes;
}

// One store: its files, journal mode, integrity and the rows of each table.
Json storeReport(const char* what, const std::string& path, const std::string& schemaFile,
                 bool model, Problems* problems) {
    Json store = {{"store", what}, {"path", path}, {"files", storeFiles(path)}};
    if (fileSize(path) < 0) {
        problems->add("the %s store %s does not exist", what, path.c_str());
        return store;
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        problems->add("cannot open the %s store: %s", what, sqlite3_errmsg(db));
        sqlite3_close(db);
        return store;
    }
    sqlite3_busy_timeout(db, 2000);
    Rows rows;
    std::string error;
    if (queryRows(db, "PRAGMA journal_mode", &rows, &error) && !rows.empty())
        store["journalMode"] = rows[0][0];
    const bool checked = queryRows(db, "PRAGMA quick_check", &rows, &error);
    store["quickCheck"] = checked && !rows.empty() ? rows[0][0] : error;
    if (store["quickCheck"] != "ok")
        problems->add("the %s store fails quick_check: %s", what,
                      store["quickCheck"].get<std::string>().c_str());
    Json tables = Json::object();
    for (const std::string& table : schemaTables(schemaFile)) {
        if (queryRows(db, "select count(*) from \"" + table + "\"", &rows, &error)) {
            tables[table] = std::stoll(rows[0][0]);
        } else {
            tables[table] = nullptr;
            problems->add("the %s store's table %s: %s", what, table.c_str(), error.c_str());
        }
    }
    store["tables"] = tables;
    if (model) modelCounts(db, &store, problems);
    sqlite3_close(db);
    return store;
}

// ---- the lock and the queues --------------------------------------------------

// The store lock: free, or taken and by which process (the last one that
// changed it). Taken for over a second is a problem: the store operations
// hold it for microseconds.
Json lockReport(Problems* problems) {
    const int semid = semget(static_cast<key_t>(QV_SEM_KEY), 1, 0);
    if (semid < 0) return {{"state", "absent"}, {"key", QV_SEM_KEY}};
    int value = semctl(semid, 0, GETVAL);
    for (int waited = 0; value == 0 && waited < 100; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        value = semctl(semid, 0, GETVAL);
    }
    if (value != 0) return {{"state", "free"}, {"key", QV_SEM_KEY}};
    const long pid = semctl(semid, 0, GETPID);
    const std::string name = processName(pid);
    problems->add("the store lock has been taken for over a second, by process %ld (%s)", pid,
                  name.c_str());
    return {{"state", "taken"}, {"key", QV_SEM_KEY}, {"pid", pid}, {"process", name}};
}

long systemQueueLimit() {
    std::ifstream in("/proc/sys/kernel/msgmnb");
    long limit = -1;
    in >> limit;
    return limit;
}

// Each route's receiver queue: its depth, capacity and the system limit. A
// queue without room for one more record is a problem; one not made yet is
// not (its receiver has not started).
Json queueReport(const std::string& confPath, Problems* problems) {
    Json queues = Json::array();
    sqlite3* db = nullptr;
    Rows rows;
    std::string error;
    const char* sql =
        "select r.recvProcessNo, coalesce(p.processName, ''), group_concat(coalesce(s.processName,"
        " r.sendProcessNo), ',') from ProcessMsgAssociation r"
        " left join ProcessConfig p on p.no = r.recvProcessNo"
        " left join ProcessConfig s on s.no = r.sendProcessNo group by 1, 2 order by 1";
    const bool read = sqlite3_open_v2(confPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
                          SQLITE_OK &&
                      sqlite3_busy_timeout(db, 2000) == SQLITE_OK &&
                      queryRows(db, sql, &rows, &error);
    sqlite3_close(db);
    if (!read) {
        problems->add("cannot read the routes: %s", error.c_str());
        return queues;
    }
    const long limit = systemQueueLimit();
    for (const auto& r : rows) {
        const int no = std::stoi(r[0]);
        Json queue = {{"recvProcessNo", no}, {"recvProcessName", r[1]}, {"senders", r[2]},
                      {"key", no + QV_QUEUE_KEY_OFFSET}};
        const int msgid = msgget(no + QV_QUEUE_KEY_OFFSET, 0);
        msqid_ds info;
        if (msgid < 0 || msgctl(msgid, IPC_STAT, &info) != 0) {
            queue["state"] = "absent";
        } else {
            const bool full = info.msg_cbytes + sizeof(MSGINFO) > info.msg_qbytes;
            queue.update({{"state", full ? "full" : "ok"},
                          {"records", static_cast<long long>(info.msg_qnum)},
                          {"bytes", static_cast<long long>(info.msg_cbytes)},
                          {"capacity", static_cast<long long>(info.msg_qbytes)}});
            if (full)
                problems->add("the queue of process %d (%s) is full: %llu records, %llu of %llu "
                              "bytes",
                              no, r[1].c_str(), static_cast<unsigned long long>(info.msg_qnum),
                              static_cast<unsigned long long>(info.msg_cbytes),
                              static_cast<unsigned long long>(info.msg_qbytes));
        }
        queue["systemLimit"] = limit;
        queues.push_back(queue);
    }
    return queues;
}

// The change feed: its file, capacity and position (the last change
// published). A file that is no feed is a problem; none yet is not (the
// first save or follower makes it).
Json feedReport(Problems* problems) {
    const std::string path = qvfeed::feedPath();
    Json feed = {{"file", path}};
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        feed["state"] = "absent";
        return feed;
    }
    void* base = mmap(nullptr, qvfeed::kHeaderBytes, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    const auto* header = static_cast<const qvfeed::Header*>(base);
    if (base == MAP_FAILED || header->magic.load() != qvfeed::kMagic) {
        if (base != MAP_FAILED) munmap(base, qvfeed::kHeaderBytes);
        problems->add("the change feed %s is not a feed file", path.c_str());
        feed["state"] = "broken";
        return feed;
    }
    const bool retired = header->retired.load() != 0;
    if (retired)
        problems->add("the change feed %s is retired but still in place: its followers get "
                      "resets only (qvtool init --fresh makes it anew)",
                      path.c_str());
    feed.update({{"state", retired ? "retired" : "ok"},
                 {"bytes", fileSize(path)},
                 {"capacity", header->capacity},
                 {"published", header->published.load()}});
    munmap(base, qvfeed::kHeaderBytes);
    return feed;
}

// ---- printing -------------------------------------------------------------------

std::string countsText(const Json& counts) {
    std::string text;
    for (const auto& item : counts.items())
        text += (text.empty() ? "" : ", ") + item.key() + " " +
                (item.value().is_null() ? std::string("?") : item.value().dump());
    return text;
}

void printStore(const Json& store) {
    std::string files;
    for (const Json& file : store["files"])
        files += (files.empty() ? "" : ", ") + file["file"].get<std::string>() + " " +
                 file["bytes"].dump() + " bytes";
    std::printf("%s store %s\n  files: %s\n", store["store"].get<std::string>().c_str(),
                store["path"].get<std::string>().c_str(), files.empty() ? "none" : files.c_str());
    if (!store.contains("tables")) return;
    std::printf("  journal mode %s, quick_check %s\n  tables: %s\n",
                store.value("journalMode", "?").c_str(),
                store["quickCheck"].get<std::string>().c_str(), countsText(store["tables"]).c_str());
    for (const Json& ied : store.value("ieds", Json::array()))
        std::printf("  IED %s: %s data sets, %s members, %s attributes\n",
                    ied["iedName"].get<std::string>().c_str(), ied["dataSets"].dump().c_str(),
                    ied["members"].dump().c_str(), ied["attributes"].dump().c_str());
    if (store.contains("valueRows"))
        std::printf("  value rows: %s\n", countsText(store["valueRows"]).c_str());
}

void printReport(const Json& report) {
    for (const Json& store : report["stores"]) printStore(store);
    const Json& lock = report["lock"];
    if (lock["state"] == "taken")
        std::printf("lock: taken by process %s (%s)\n", lock["pid"].dump().c_str(),
                    lock["process"].get<std::string>().c_str());
    else
        std::printf("lock: %s\n", lock["state"] == "free" ? "free" : "not made yet");
    for (const Json& q : report["queues"]) {
        std::printf("queue of %s (process %s, from %s): ", q["recvProcessName"].get<std::string>().c_str(),
                    q["recvProcessNo"].dump().c_str(), q["senders"].get<std::string>().c_str());
        if (q["state"] == "absent")
            std::printf("not made yet (system limit %s bytes)\n", q["systemLimit"].dump().c_str());
        else
            std::printf("%s records, %s of %s bytes (system limit %s)%s\n",
                        q["records"].dump().c_str(), q["bytes"].dump().c_str(),
                        q["capacity"].dump().c_str(), q["systemLimit"].dump().c_str(),
                        q["state"] == "full" ? " FULL" : "");
    }
    const Json& feed = report["feed"];
    if (feed.contains("published"))
        std::printf("change feed %s: %s changes published, holds %s%s\n",
                    feed["file"].get<std::string>().c_str(), feed["published"].dump().c_str(),
                    feed["capacity"].dump().c_str(), feed["state"] == "retired" ? ", RETIRED" : "");
    else
        std::printf("change feed %s: %s\n", feed["file"].get<std::string>().c_str(),
                    feed["state"] == "absent" ? "not made yet" : "broken");
    for (const Json& problem : report["problems"])
        std::printf("PROBLEM: %s\n", problem.get<std::string>().c_str());
    if (report["problems"].empty()) std::puts("healthy");
}

int runStatus(const Args& args) {
    Problems problems;
    const std::string dir = schemaDir();
    Json report = {{"stores", Json::array()}};
    report["stores"].push_back(storeReport("real-time", QV_REALTIME_DB_PATH,
                                           dir + "/realtime.sql", true, &problems));
    report["stores"].push_back(storeReport("configuration", QV_CONF_DB_PATH, dir + "/conf.sql",
                                           false, &problems));
    report["lock"] = lockReport(&problems);
    report["queues"] = fileSize(QV_CONF_DB_PATH) >= 0 ? queueReport(QV_CONF_DB_PATH, &problems)
                                                      : Json::array();
    report["feed"] = feedReport(&problems);
    report["problems"] = problems.list();
    // CSV and raw text of a report are its one record, nested parts as JSON.
    if (args.has("--json") || args.has("--csv") || args.has("--raw"))
        printRecord(args, report, "");
    else
        printReport(report);
    for (const std::string& problem : problems.list()) complain("%s", problem.c_str());
    return problems.list().empty() ? kOk : kFailed;
}

}  // namespace

std::vector<std::string> storeOpeners(const std::string& path) {
    std::set<std::string> files;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) files.insert(path + suffix);
    std::vector<std::string> openers;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return openers;
    const long self = getpid();
    while (const dirent* entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (*end != '\0' || pid <= 0 || pid == self) continue;
        const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
        DIR* fds = opendir(fdDir.c_str());
        if (fds == nullptr) continue;
        bool holds = false;
        while (const dirent* fd = readdir(fds)) {
            char target[4096];
            const ssize_t n = readlink((fdDir + "/" + fd->d_name).c_str(), target, sizeof target - 1);
            if (n <= 0) continue;
            target[n] = '\0';
            holds = holds || files.count(target) != 0;
        }
        closedir(fds);
        if (holds) openers.push_back(std::to_string(pid) + " (" + processName(pid) + ")");
    }
    closedir(proc);
    return openers;
}

const std::vector<Command>& statusCommands() {
    static const std::vector<Command> commands = {
        {"status", "status [--json]", "check the gateway's stores, lock and queues",
         "Prints the store files and their sizes (the write-ahead log included), each\n"
         "store's journal mode, PRAGMA quick_check and rows per table, the model's\n"
         "data sets, members and attributes per IED and value rows per class, the\n"
         "store lock (free, or taken and by which process) and the queue of every\n"
         "route's receiver (records, bytes, capacity and the system limit msgmnb),\n"
         "and the change feed's position (changes published) and capacity.\n"
         "Exit code 1 when something is wrong, each problem said in a PROBLEM line\n"
         "(and on standard error): a store missing or failing quick_check, a table\n"
         "that cannot be read, the lock taken for over a second, a full queue, a feed\n"
         "file that is no feed.\n",
         {}, {"--json"}, 0, 0, runStatus},
    };
    return commands;
}

}  // namespace qvtool
