// qvtool commands on the configuration store: processes, their message
// routes and their settings.
#include <sqlite3.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>

#include "qvconf.h"
#include "qvtool.h"

namespace qvtool {

namespace {

struct Action {
    const char* name;
    int (*run)(const Args& args);
};

// Runs the action that the first argument names ("process add ...").
int runAction(const char* command, const Args& args, const std::vector<Action>& actions) {
    for (const Action& action : actions) {
        if (args.positional[0] == action.name) return action.run(args);
    }
    std::string names;
    for (const Action& action : actions) names += std::string(names.empty() ? "" : ", ") + action.name;
    return usageError("%s: unknown action %s (one of %s)", command, args.positional[0].c_str(),
                      names.c_str());
}

}  // namespace

// A store that could not be read (busy past the library's wait, for example)
// is said as such and never taken for a missing row.
bool missingRow() {
    if (zq_lastErrorCode() == QV_ERR_NO_ROW) return true;
    complain("cannot read the configuration store %s: %s", QV_CONF_DB_PATH, zq_lastErrorText());
    return false;
}

namespace {

// Every process with its number; the library's record has no number, so
// each name is looked up.
bool listProcesses(Json* rows) {
    std::vector<ProcessConfig> processes;
    if (!fetchList(&processes, zq_getAllProcessConfigsNum, zq_getAllProcessConfigsN)) return false;
    *rows = Json::array();
    for (const ProcessConfig& process : processes) {
        int number = 0;
        const bool numbered = zq_getProcessNoByName(process.processName, &number) == 0;
        rows->push_back({{"no", numbered ? Json(number) : Json()},
                         {"processName", process.processName},
                         {"processDescribe", process.processDescribe}});
    }
    return true;
}

void namesOf(const Json& processes, std::map<int, std::string>* names) {
    for (const Json& process : processes) {
        if (process["no"].is_number()) (*names)[process["no"].get<int>()] = process["processName"];
    }
}

int runProcesses(const Args& args) {
    Json rows;
    if (!openConfStore() || !listProcesses(&rows)) return kFailed;
    return printRows(args, {{"NO", "no"}, {"NAME", "processName"},
                            {"DESCRIPTION", "processDescribe"}},
                     rows);
}

std::string hexMask(int mask) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(mask));
    return text;
}

int runRoutes(const Args& args) {
    const std::string& sender = args.positional[0];
    int number = 0;
    Json processes;
    std::vector<ProcessMsgAssociation> routes;
    if (!openConfStore() || !knownProcess(sender, &number) || !listProcesses(&processes) ||
        !fetchRoutes(sender, &routes))
        return kFailed;
    std::map<int, std::string> names;
    namesOf(processes, &names);
    Json rows = Json::array();
    for (const ProcessMsgAssociation& route : routes) {
        auto receiver = names.find(route.recvProcessNo);
        rows.push_back({{"sendProcessNo", route.sendProcessNo},
                        {"recvProcessNo", route.recvProcessNo},
                        {"msgType", route.msgType},
                        {"recvProcessName", receiver != names.end() ? Json(receiver->second)
                                                                    : Json()},
                        {"mask", hexMask(route.msgType)},
                        {"kinds", kindNames(route.msgType)}});
    }
    return printRows(args, {{"TO", "recvProcessName"}, {"NO", "recvProcessNo"},
                            {"MASK", "mask"}, {"KINDS", "kinds"}},
                     rows);
}

// ---- process, route: the writes that provisioning does ---------------------

using Binder = std::function<void(sqlite3_stmt*)>;

// Runs statements on the configuration store in one transaction, each with
// its binds; returns the rows the last one changed, or -1 (said why). The
// library writes no processes or routes, so the tool has a connection of its
// own; a busy store is waited for like the library's.
int changeConf(const std::vector<std::pair<const char*, Binder>>& statements) {
    sqlite3* db = nullptr;
    waitingForStore("configuration store");
    int changed = -1;
    bool ok = sqlite3_open_v2(QV_CONF_DB_PATH, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
              sqlite3_busy_timeout(db, INT_MAX) == SQLITE_OK &&
              sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (size_t i = 0; ok && i < statements.size(); ++i) {
        sqlite3_stmt* stmt = nullptr;
        ok = sqlite3_prepare_v2(db, statements[i].first, -1, &stmt, nullptr) == SQLITE_OK;
        if (ok) statements[i].second(stmt);
        ok = ok && sqlite3_step(stmt) == SQLITE_DONE;
        sqlite3_finalize(stmt);
        changed = sqlite3_changes(db);
    }
    ok = ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!ok) {
        complain("the configuration store %s was not changed: %s", QV_CONF_DB_PATH,
                 sqlite3_errmsg(db));
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    sqlite3_close(db);
    return ok ? changed : -1;
}

Binder bindNumbers(int first, int second, int third = 0) {
    return [=](sqlite3_stmt* stmt) {
        sqlite3_bind_int(stmt, 1, first);
        sqlite3_bind_int(stmt, 2, second);
        sqlite3_bind_int(stmt, 3, third);
    };
}

int processAdd(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    int number = 0;
    if (words.size() < 3 || words.size() > 4 || !parseInt(words[2], &number))
        return usageError("process add: usage: qvtool process add NAME NUMBER [DESCRIPTION]");
    const std::string& name = words[1];
    const std::string describe = words.size() == 4 ? words[3] : "";
    if (!openConfStore()) return kFailed;
    int known = 0;
    if (zq_getProcessNoByName(name.c_str(), &known) == 0) {
        if (known != number) {
            complain("process \"%s\" already has the number %d", name.c_str(), known);
            return kFailed;
        }
        std::printf("process \"%s\" is number %d already\n", name.c_str(), number);
        return kOk;
    }
    if (!missingRow()) return kFailed;
    const int added = changeConf({{"insert into ProcessConfig(no, processName, processDescribe) "
                                   "values(?1, ?2, ?3) on conflict do nothing",
                                   [&](sqlite3_stmt* stmt) {
                                       sqlite3_bind_int(stmt, 1, number);
                                       sqlite3_bind_text(stmt, 2, name.c_str(), -1, SQLITE_STATIC);
                                       sqlite3_bind_text(stmt, 3, describe.c_str(), -1,
                                                         SQLITE_STATIC);
                                   }}});
    if (added < 0) return kFailed;
    if (added == 0) {
        complain("the number %d belongs to another process", number);
        return kFailed;
    }
    std::printf("process \"%s\" added as number %d\n", name.c_str(), number);
    return kOk;
}

int processRemove(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() != 2) return usageError("process remove: usage: qvtool process remove NAME");
    int number = 0;
    if (!openConfStore()) return kFailed;
    if (zq_getProcessNoByName(words[1].c_str(), &number) != 0) {
        if (!missingRow()) return kFailed;
        std::printf("no process \"%s\"; nothing to remove\n", words[1].c_str());
        return kOk;
    }
    const int removed = changeConf(
        {{"delete from ProcessMsgAssociation where sendProcessNo=?1 or recvProcessNo=?1",
          bindNumbers(number, 0)},
         {"delete from ProcessConfig where no=?1", bindNumbers(number, 0)}});
    if (removed < 0) return kFailed;
    std::printf("process \"%s\" (number %d) and its routes removed\n", words[1].c_str(), number);
    return kOk;
}

int runProcess(const Args& args) {
    return runAction("process", args, {{"add", processAdd}, {"remove", processRemove}});
}

// The two ends of a route, by process name.
bool routeEnds(const std::vector<std::string>& words, int* from, int* to) {
    return openConfStore() && knownProcess(words[1], from) && knownProcess(words[2], to);
}

std::vector<std::string> kindsNamed(const std::vector<std::string>& words) {
    return {words.begin() + 3, words.end()};
}

// The routes between the two processes as they are now.
int printRoutes(const std::vector<std::string>& words, int to) {
    std::vector<ProcessMsgAssociation> routes;
    if (!fetchRoutes(words[1], &routes)) return kFailed;
    bool any = false;
    for (const ProcessMsgAssociation& route : routes) {
        if (route.recvProcessNo != to) continue;
        std::printf("route \"%s\" -> \"%s\": %s (%s)\n", words[1].c_str(), words[2].c_str(),
                    kindNames(route.msgType).c_str(), hexMask(route.msgType).c_str());
        any = true;
    }
    if (!any) std::printf("no route \"%s\" -> \"%s\"\n", words[1].c_str(), words[2].c_str());
    return kOk;
}

// The kinds that the routes from the sender to the receiver carry together.
bool kindsRouted(const std::string& sender, int to, int* mask) {
    std::vector<ProcessMsgAssociation> routes;
    if (!fetchRoutes(sender, &routes)) return false;
    *mask = 0;
    for (const ProcessMsgAssociation& route : routes) {
        if (route.recvProcessNo == to) *mask |= route.msgType;
    }
    return true;
}

std::string kindsText(int mask) { return kindNames(mask) + " (" + hexMask(mask) + ")"; }

// What a removal did, from the kinds routed before and after it.
std::string removalText(const std::vector<std::string>& words, int before, int after) {
    const std::string route = "route \"" + words[1] + "\" -> \"" + words[2] + "\"";
    const int removed = before & ~after;
    if (before == 0) return "no " + route + "; nothing removed";
    if (removed == 0) return route + " carries " + kindsText(before) + "; nothing removed";
    if (after == 0) return route + " removed; it carried " + kindsText(before);
    return "removed " + kindsText(removed) + " from " + route + "; it carries " + kindsText(after);
}

int routeAdd(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() < 4) return usageError("route add: usage: qvtool route add FROM TO KIND...");
    int from = 0, to = 0, mask = 0;
    if (!kindMask(kindsNamed(words), &mask)) return kUsage;
    if (!routeEnds(words, &from, &to)) return kFailed;
    // A new route, or the kinds added to the first route between the two.
    if (changeConf({{"insert into ProcessMsgAssociation(sendProcessNo, recvProcessNo, msgType) "
                     "select ?1, ?2, ?3 where not exists (select 1 from ProcessMsgAssociation "
                     "where sendProcessNo=?1 and recvProcessNo=?2)",
                     bindNumbers(from, to, mask)},
                    {"update or replace ProcessMsgAssociation set msgType = msgType | ?3 "
                     "where rowid = (select min(rowid) from ProcessMsgAssociation "
                     "where sendProcessNo=?1 and recvProcessNo=?2)",
                     bindNumbers(from, to, mask)}}) < 0)
        return kFailed;
    return printRoutes(words, to);
}

int routeRemove(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() < 3)
        return usageError("route remove: usage: qvtool route remove FROM TO [KIND...]");
    int from = 0, to = 0, mask = ~0;  // no kind named: all of them
    if (words.size() > 3 && !kindMask(kindsNamed(words), &mask)) return kUsage;
    int before = 0, after = 0;
    if (!routeEnds(words, &from, &to) || !kindsRouted(words[1], to, &before)) return kFailed;
    // Routes that end up alike merge (the key allows one of each).
    if (changeConf({{"update or replace ProcessMsgAssociation set msgType = msgType & ~?3 "
                     "where sendProcessNo=?1 and recvProcessNo=?2",
                     bindNumbers(from, to, mask)},
                    {"delete from ProcessMsgAssociation where sendProcessNo=?1 and "
                     "recvProcessNo=?2 and msgType=0",
                     bindNumbers(from, to)}}) < 0 ||
        !kindsRouted(words[1], to, &after))
        return kFailed;
    std::printf("%s\n", removalText(words, before, after).c_str());
    return kOk;
}

int runRoute(const Args& args) {
    return runAction("route", args, {{"add", routeAdd}, {"remove", routeRemove}});
}

// ---- setting ----------------------------------------------------------------

// Reads a setting; `hint` follows the line that says it is missing.
bool readSetting(const std::string& process, const std::string& key, ProcessMisc* setting,
                 const std::string& hint = "") {
    int number = 0;
    if (!knownProcess(process, &number)) return false;
    if (zq_getProcessMiscValue(process.c_str(), key.c_str(), setting) == 0) return true;
    if (missingRow())
        complain("process \"%s\" has no setting %s%s", process.c_str(), key.c_str(), hint.c_str());
    return false;
}

// Copies an argument into a record field, refusing what does not fit.
template <size_t N>
bool fitText(char (&field)[N], const std::string& text, const char* what) {
    if (text.size() >= N) {
        complain("the %s is %zu bytes long; at most %zu fit", what, text.size(), N - 1);
        return false;
    }
    std::memcpy(field, text.c_str(), text.size() + 1);
    return true;
}

Json toJson(const ProcessMisc& setting) {
    return {{"key", setting.key}, {"value", setting.value}, {"describe", setting.describe}};
}

// The setting as stored now.
int printSetting(const Args& args, const std::string& process, const std::string& key) {
    ProcessMisc setting{};
    if (!readSetting(process, key, &setting)) return kFailed;
    return printRecord(args, toJson(setting),
                       std::string(setting.key) + "=" + setting.value + " (" + setting.describe +
                           ")");
}

int settingGet(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() != 3) return usageError("setting get: usage: qvtool setting get PROCESS KEY");
    ProcessMisc setting{};
    if (!openConfStore() || !readSetting(words[1], words[2], &setting)) return kFailed;
    return printRecord(args, toJson(setting), setting.value);
}

int settingSet(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() < 4 || words.size() > 5)
        return usageError("setting set: usage: qvtool setting set PROCESS KEY VALUE [DESCRIPTION]");
    ProcessMisc setting{};
    // The library only changes settings that exist; check first to say so.
    const std::string hint = "; set changes existing settings, add one with: qvtool setting add '" +
                             words[1] + "' " + words[2] + " VALUE [DESCRIPTION]";
    if (!openConfStore() || !readSetting(words[1], words[2], &setting, hint)) return kFailed;
    if (!fitText(setting.value, words[3], "value") ||
        (words.size() == 5 && !fitText(setting.describe, words[4], "description")))
        return kUsage;
    if (zq_setProcessMiscValue(words[1].c_str(), words[2].c_str(), &setting) != 0) return kFailed;
    return printSetting(args, words[1], words[2]);
}

int settingAdd(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() < 4 || words.size() > 5)
        return usageError("setting add: usage: qvtool setting add PROCESS KEY VALUE [DESCRIPTION]");
    ProcessMisc setting{};
    const std::string describe = words.size() == 5 ? words[4] : "";
    if (!fitText(setting.key, words[2], "key") || !fitText(setting.value, words[3], "value") ||
        !fitText(setting.describe, describe, "description"))
        return kUsage;
    int number = 0;
    if (!openConfStore() || !knownProcess(words[1], &number)) return kFailed;
    if (zq_getProcessMiscValue(words[1].c_str(), words[2].c_str(), &setting) == 0) {
        complain("process \"%s\" has the setting %s already (change it with qvtool setting set)",
                 words[1].c_str(), words[2].c_str());
        return kFailed;
    }
    if (!missingRow()) return kFailed;
    const int added = changeConf(
        {{"insert into ProcessMisc(processNo, key, value, descripe) select ?1, ?2, ?3, ?4 "
          "where not exists (select 1 from ProcessMisc where processNo=?1 and key=?2)",
          [&](sqlite3_stmt* stmt) {
              sqlite3_bind_int(stmt, 1, number);
              sqlite3_bind_text(stmt, 2, words[2].c_str(), -1, SQLITE_STATIC);
              sqlite3_bind_text(stmt, 3, words[3].c_str(), -1, SQLITE_STATIC);
              sqlite3_bind_text(stmt, 4, describe.c_str(), -1, SQLITE_STATIC);
          }}});
    if (added < 0) return kFailed;
    if (added == 0) {
        complain("another process added the setting %s meanwhile", words[2].c_str());
        return kFailed;
    }
    return printSetting(args, words[1], words[2]);
}

int runSetting(const Args& args) {
    return runAction("setting", args,
                     {{"get", settingGet}, {"set", settingSet}, {"add", settingAdd},
                      {"list", listSettings}});
}

}  // namespace

bool knownProcess(const std::string& name, int* number) {
    if (zq_getProcessNoByName(name.c_str(), number) == 0) return true;
    if (missingRow()) complain("no process named \"%s\" in the configuration store", name.c_str());
    return false;
}

bool processNames(std::map<int, std::string>* names) {
    Json processes;
    if (!listProcesses(&processes)) return false;
    namesOf(processes, names);
    return true;
}

bool fetchRoutes(const std::string& sender, std::vector<ProcessMsgAssociation>* routes) {
    return fetchList(routes, zq_getProcessMsgAssociationsNum, zq_getProcessMsgAssociationsN,
                     sender.c_str());
}

namespace {

// The family's commands, then the listings of point mappings and scales.
std::vector<Command> withListings(std::vector<Command> commands) {
    const std::vector<Command>& listings = confListingCommands();
    commands.insert(commands.end(), listings.begin(), listings.end());
    return commands;
}

}  // namespace

const std::vector<Command>& confCommands() {
    static const std::vector<Command> commands = withListings({
        {"processes", "processes [--json]", "list the configured processes with their numbers",
         "A process is known by its executable's file name followed by its arguments,\n"
         "each after one blank. Its queue key is its number plus the queue key offset.\n"
         "JSON fields: no, processName, processDescribe.\n",
         {}, {"--json"}, 0, 0, runProcesses},
        {"process", "process add NAME NUMBER [DESCRIPTION] | process remove NAME",
         "configure a process or remove it with its routes",
         "add is harmless to repeat: a process that has that name and number already\n"
         "stays as it is; a name or number that another process holds is exit code 1.\n"
         "remove also removes every route from and to the process; removing a process\n"
         "that does not exist changes nothing (exit code 0).\n",
         {}, {}, 2, 4, runProcess},
        {"routes", "routes PROCESS [--json]", "list the message routes from a process",
         "One row per route: the receiving process, its number, the kind mask and the\n"
         "kinds it carries. Quote a process name with blanks: routes 'qv104 -p 2404'.\n"
         "Exit code 1 for an unknown process. JSON fields: sendProcessNo, recvProcessNo,\n"
         "msgType, recvProcessName, mask, kinds.\n",
         {}, {"--json"}, 1, 1, runRoutes},
        {"route", "route add FROM TO KIND... | route remove FROM TO [KIND...]",
         "add message kinds to a route, or take them off",
         "FROM and TO are process names; KIND is a kind name of \"qvtool send --help\"\n"
         "or all. add creates the route or adds the kinds to it; remove takes the kinds\n"
         "off (all of them when none is named) and deletes a route that carries none.\n"
         "Both are harmless to repeat; add prints the route as it is afterwards, remove\n"
         "what it removed and what the route still carries.\n",
         {}, {}, 3, -1, runRoute},
        {"setting", "setting get|set|add|list PROCESS [KEY [VALUE [DESCRIPTION]]] [--json]",
         "read, change, add or list the settings of a process",
         "  setting get PROCESS KEY\n"
         "  setting set PROCESS KEY VALUE [DESCRIPTION]\n"
         "  setting add PROCESS KEY VALUE [DESCRIPTION]\n"
         "  setting list [PROCESS]\n\n"
         "get prints the value alone. set replaces the value (and the description when\n"
         "given; else it is kept) of an existing setting; a missing key is exit code 1\n"
         "(the library changes existing settings only). add creates a setting (exit code\n"
         "1 when the process has it already). list prints every setting, or those of one\n"
         "process. With --json get, set and add print the setting as {\"key\", \"value\",\n"
         "\"describe\"}; list prints rows of processNo, processName, key, value, describe.\n",
         {}, {"--json"}, 1, 5, runSetting},
    });
    return commands;
}

}  // namespace qvtool
