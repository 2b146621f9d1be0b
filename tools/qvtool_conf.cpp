// qvtool commands on the configuration store: processes, their message
// routes and their settings.
#include <cstdio>
#include <cstring>
#include <map>

#include "qvconf.h"
#include "qvtool.h"

namespace qvtool {

namespace {

// Room for processes added by provisioning between count and fetch.
constexpr int kListRoom = 64;

bool knownProcess(const std::string& name, int* number) {
    if (zq_getProcessNoByName(name.c_str(), number) == 0) return true;
    complain("no process named \"%s\" in the configuration store", name.c_str());
    return false;
}

// Process number -> process name; the library's record has no number, so
// each name is looked up.
bool processNames(std::map<int, std::string>* names) {
    std::vector<ProcessConfig> processes;
    if (!fetchList(&processes, zq_getAllProcessConfigsNum, zq_getAllProcessConfigs, kListRoom))
        return false;
    for (const ProcessConfig& process : processes) {
        int number = 0;
        if (zq_getProcessNoByName(process.processName, &number) == 0)
            (*names)[number] = process.processName;
    }
    return true;
}

int runProcesses(const Args&) {
    if (!openConfStore()) return kFailed;
    std::vector<ProcessConfig> processes;
    if (!fetchList(&processes, zq_getAllProcessConfigsNum, zq_getAllProcessConfigs, kListRoom))
        return kFailed;
    Table table({"NO", "NAME", "DESCRIPTION"});
    for (const ProcessConfig& process : processes) {
        int number = 0;
        const bool numbered = zq_getProcessNoByName(process.processName, &number) == 0;
        table.add({numbered ? std::to_string(number) : "?", process.processName,
                   process.processDescribe});
    }
    return printList(table, "processes in the configuration store");
}

int runRoutes(const Args& args) {
    const std::string& sender = args.positional[0];
    int number = 0;
    if (!openConfStore() || !knownProcess(sender, &number)) return kFailed;
    std::map<int, std::string> names;
    std::vector<ProcessMsgAssociation> routes;
    if (!processNames(&names) || !fetchRoutes(sender, &routes)) return kFailed;
    Table table({"TO", "NO", "MASK", "KINDS"});
    for (const ProcessMsgAssociation& route : routes) {
        auto receiver = names.find(route.recvProcessNo);
        char mask[16];
        std::snprintf(mask, sizeof mask, "0x%X", static_cast<unsigned>(route.msgType));
        table.add({receiver != names.end() ? receiver->second : "?",
                   std::to_string(route.recvProcessNo), mask, kindNames(route.msgType)});
    }
    const std::string empty = "routes from \"" + sender + "\"";
    return printList(table, empty.c_str());
}

// ---- setting ----------------------------------------------------------------

bool readSetting(const std::string& process, const std::string& key, ProcessMisc* setting) {
    int number = 0;
    if (!knownProcess(process, &number)) return false;
    if (zq_getProcessMiscValue(process.c_str(), key.c_str(), setting) == 0) return true;
    complain("process \"%s\" has no setting %s", process.c_str(), key.c_str());
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

int settingGet(const std::vector<std::string>& words) {
    if (words.size() != 3) return usageError("setting get: usage: qvtool setting get PROCESS KEY");
    ProcessMisc setting{};
    if (!openConfStore() || !readSetting(words[1], words[2], &setting)) return kFailed;
    std::printf("%s\n", setting.value);
    return kOk;
}

int settingSet(const std::vector<std::string>& words) {
    if (words.size() < 4 || words.size() > 5)
        return usageError("setting set: usage: qvtool setting set PROCESS KEY VALUE [DESCRIPTION]");
    ProcessMisc setting{};
    // The library only changes settings that exist; check first to say so.
    if (!openConfStore() || !readSetting(words[1], words[2], &setting)) return kFailed;
    if (!fitText(setting.value, words[3], "value") ||
        (words.size() == 5 && !fitText(setting.describe, words[4], "description")))
        return kUsage;
    if (zq_setProcessMiscValue(words[1].c_str(), words[2].c_str(), &setting) != 0 ||
        !readSetting(words[1], words[2], &setting))
        return kFailed;
    std::printf("%s=%s (%s)\n", setting.key, setting.value, setting.describe);
    return kOk;
}

int runSetting(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words[0] == "get") return settingGet(words);
    if (words[0] == "set") return settingSet(words);
    return usageError("setting: unknown action %s (get or set)", words[0].c_str());
}

}  // namespace

bool fetchRoutes(const std::string& sender, std::vector<ProcessMsgAssociation>* routes) {
    return fetchList(
        routes,
        [&](int* count) { return zq_getProcessMsgAssociationsNum(sender.c_str(), count); },
        [&](ProcessMsgAssociation* rows, int* count) {
            return zq_getProcessMsgAssociations(sender.c_str(), rows, count);
        },
        kListRoom);
}

const std::vector<Command>& confCommands() {
    static const std::vector<Command> commands = {
        {"processes", "processes", "list the configured processes with their numbers",
         "A process is known by its executable's file name followed by its arguments,\n"
         "each after one blank. Its queue key is its number plus the queue key offset.\n",
         {}, {}, 0, 0, runProcesses},
        {"routes", "routes PROCESS", "list the message routes from a process",
         "One row per route: the receiving process, its number, the kind mask and the\n"
         "kinds it carries. Quote a process name with blanks: routes 'qv104 -p 2404'.\n",
         {}, {}, 1, 1, runRoutes},
        {"setting", "setting get|set PROCESS KEY [VALUE [DESCRIPTION]]",
         "read or change one setting of a process",
         "  setting get PROCESS KEY\n"
         "  setting set PROCESS KEY VALUE [DESCRIPTION]\n\n"
         "get prints the value alone. set replaces the value (and the description when\n"
         "given; else it is kept) of an existing setting; the library creates none, so a\n"
         "missing key is exit code 1. The library has no operation that lists a process's\n"
         "settings: ask for each key by name.\n",
         {}, {}, 1, 5, runSetting},
    };
    return commands;
}

}  // namespace qvtool
