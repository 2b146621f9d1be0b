// qvtool commands on the message bus: send a record of any kind, watch the
// records that arrive for the tool.
//
// The library routes by the calling process's name (executable file name
// plus arguments), so "qvtool send soe ..." could never match a configured
// sender. send therefore builds the record, then re-executes the tool with
// no arguments, handing the record over in an environment variable; the
// child is the process named "qvtool" and sends along that process's routes.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <map>

#include "internal/qvmonitor.h"
#include "qvmessage.h"
#include "qvtool.h"

namespace qvtool {

namespace {

const char* const kRecordVariable = "QVTOOL_SEND_RECORD";

// A payload field, located relative to the start of the payload union.
struct Field {
    const char* name;
    size_t offset;
    size_t size;
    bool text;
};

struct Kind {
    const char* name;
    int type;
    std::vector<Field> fields;
    int (*send)(UNIONMSG* payload);
};

#define QV_INT(record, field) \
    Field { #field, offsetof(record, field), sizeof(int), false }
#define QV_TEXT(record, field) \
    Field { #field, offsetof(record, field), sizeof(record::field), true }

// Indexed by kind number - 1.
const std::vector<Kind>& kinds() {
    static const std::vector<Kind> table = {
        {"file", MSGFILE_TYPE,
         {QV_TEXT(MSGFILE, iedName), QV_INT(MSGFILE, fileType), QV_TEXT(MSGFILE, strFileName)},
         [](UNIONMSG* p) { return zq_sendFileMsg(&p->msgFile); }},
        {"soe", SOEINFO_TYPE,
         {QV_INT(SOEINFO, type), QV_TEXT(SOEINFO, strDa), QV_INT(SOEINFO, value),
          QV_INT(SOEINFO, minutes), QV_INT(SOEINFO, msec)},
         [](UNIONMSG* p) { return zq_sendSoeMsg(&p->soeInfo); }},
        {"protect", PROTECTINFO_TYPE,
         {QV_TEXT(PROTECTINFO, strDa), QV_INT(PROTECTINFO, type), QV_INT(PROTECTINFO, minutes),
          QV_INT(PROTECTINFO, msec), QV_INT(PROTECTINFO, value)},
         [](UNIONMSG* p) { return zq_sendProMsg(&p->protectInfo); }},
        {"sbodosave", SBODOSAVEINFO_TYPE,
         {QV_INT(SBODOSAVEINFO, minutes), QV_INT(SBODOSAVEINFO, msec),
          QV_TEXT(SBODOSAVEINFO, strDa), QV_INT(SBODOSAVEINFO, type),
          QV_INT(SBODOSAVEINFO, rtuNo), QV_INT(SBODOSAVEINFO, source),
          QV_INT(SBODOSAVEINFO, value)},
         [](UNIONMSG* p) { return zq_sendSBODOSaveMsg(&p->sbodoInfo); }},
        {"general", GENERALMSG_TYPE,
         {QV_INT(GENERALMSG, type), QV_TEXT(GENERALMSG, buf), QV_INT(GENERALMSG, dataLen)},
         [](UNIONMSG* p) { return zq_sendGeneralMsg(&p->generalMsg); }},
        {"sboctrl", SBOCTRL_TYPE,
         {QV_TEXT(SBOCTRL, strDa), QV_INT(SBOCTRL, type), QV_INT(SBOCTRL, duration),
          QV_INT(SBOCTRL, source)},
         [](UNIONMSG* p) { return zq_sendSBOCtrlMsg(&p->sboCtrlInfo); }},
        {"sboctrlret", SBOCTRLRET_TYPE,
         {QV_TEXT(SBOCTRLRET, strDa), QV_INT(SBOCTRLRET, function), QV_INT(SBOCTRLRET, count),
          QV_INT(SBOCTRLRET, duration), QV_INT(SBOCTRLRET, timeOut),
          QV_INT(SBOCTRLRET, source)},
         [](UNIONMSG* p) { return zq_sendSBOCtrlRetMsg(&p->sboCtrlRetInfo); }},
        {"digitalout", DIGITALOUT_TYPE,
         {QV_TEXT(DIGITALOUT, strDa), QV_INT(DIGITALOUT, bVal), QV_INT(DIGITALOUT, source)},
         [](UNIONMSG* p) { return zq_sendDigitalOutMsg(&p->digitalOutInfo); }},
        {"digitaloutret", DIGITALOUTRET_TYPE,
         {QV_TEXT(DIGITALOUTRET, strDa), QV_INT(DIGITALOUTRET, bVal)},
         [](UNIONMSG* p) { return zq_sendDigitalOutRetMsg(&p->digitalOutRetInfo); }},
        {"fault", FAULTINFO_TYPE,
         {QV_TEXT(FAULTINFO, strDa), QV_INT(FAULTINFO, value), QV_INT(FAULTINFO, minutes),
          QV_INT(FAULTINFO, msec)},
         [](UNIONMSG* p) { return zq_sendFaultMsg(&p->faultInfo); }},
        {"topo", TOPOINFO_TYPE, {QV_TEXT(TOPOINFO, strDa), QV_INT(TOPOINFO, value)},
         [](UNIONMSG* p) { return zq_sendTopoMsg(&p->topoInfo); }},
        {"register", REGISTERINFO_TYPE,
         {QV_TEXT(REGISTERINFO, devcieid), QV_TEXT(REGISTERINFO, key),
          QV_INT(REGISTERINFO, result), QV_TEXT(REGISTERINFO, desc),
          QV_TEXT(REGISTERINFO, version)},
         [](UNIONMSG* p) { return zq_sendRegisterMsg(&p->registerInfo); }},
        {"updatefile", UPDATEFILE_TYPE,
         {QV_TEXT(UPDATEFILE, iedName), QV_INT(UPDATEFILE, all_flag),
          QV_INT(UPDATEFILE, fileType), QV_TEXT(UPDATEFILE, strFileName)},
         [](UNIONMSG* p) { return zq_sendUpdateFileMsg(&p->updateFile); }},
    };
    return table;
}

#undef QV_INT
#undef QV_TEXT

const Kind* kindByName(const std::string& name) {
    for (const Kind& kind : kinds()) {
        if (name == kind.name) return &kind;
    }
    return nullptr;
}

const Kind* kindByType(int type) {
    const std::vector<Kind>& table = kinds();
    if (type < 1 || type > static_cast<int>(table.size())) return nullptr;
    return &table[static_cast<size_t>(type - 1)];
}

int kindBit(int type) { return 1 << (type - 1); }

const Field* fieldByName(const Kind& kind, const std::string& name) {
    for (const Field& field : kind.fields) {
        if (name == field.name) return &field;
    }
    return nullptr;
}

char* fieldAt(UNIONMSG* payload, const Field& field) {
    return reinterpret_cast<char*>(payload) + field.offset;
}

// ---- send, the part that parses -------------------------------------------------

// Sets one "field=value" argument into the payload.
int setField(const Kind& kind, const std::string& assignment, UNIONMSG* payload) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos)
        return usageError("send: %s is not FIELD=VALUE", assignment.c_str());
    const std::string name = assignment.substr(0, equals);
    const std::string value = assignment.substr(equals + 1);
    const Field* field = fieldByName(kind, name);
    if (field == nullptr) return usageError("send: %s has no field %s", kind.name, name.c_str());
    if (field->text) {
        if (value.size() >= field->size)
            return usageError("send: %s is %zu bytes long; at most %zu fit", name.c_str(),
                              value.size(), field->size - 1);
        std::memcpy(fieldAt(payload, *field), value.c_str(), value.size() + 1);
        return kOk;
    }
    int number = 0;
    if (!parseInt(value, &number))
        return usageError("send: %s=%s is not an integer", name.c_str(), value.c_str());
    std::memcpy(fieldAt(payload, *field), &number, sizeof number);
    return kOk;
}

std::string toHex(const void* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 0xF];
    }
    return hex;
}

bool fromHex(const char* hex, void* data, size_t size) {
    if (std::strlen(hex) != 2 * size) return false;
    unsigned char* bytes = static_cast<unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        unsigned int byte = 0;
        if (std::sscanf(hex + 2 * i, "%2x", &byte) != 1) return false;
        bytes[i] = static_cast<unsigned char>(byte);
    }
    return true;
}

// Becomes the process named after the tool's file alone; returns only when
// that fails.
// Runs the tool again as "NAME [word]", handing `value` over in `variable`
// (what is handed is named in a failure's message); returns only on failure.
int reexecute(const char* variable, const std::string& value, const char* what,
              const char* word = nullptr) {
    if (setenv(variable, value.c_str(), 1) != 0) {
        complain("cannot hand the %s over: %s", what, std::strerror(errno));
        return kFailed;
    }
    std::fflush(stdout);
    const std::string name = toolFileName();
    char* const childArgs[] = {const_cast<char*>(name.c_str()), const_cast<char*>(word), nullptr};
    execv("/proc/self/exe", childArgs);
    complain("cannot re-execute the tool: %s", std::strerror(errno));
    return kFailed;
}

int runSend(const Args& args) {
    const Kind* kind = kindByName(args.positional[0]);
    if (kind == nullptr)
        return usageError("send: unknown kind %s (see qvtool send --help)",
                          args.positional[0].c_str());
    MSGINFO record;
    std::memset(&record, 0, sizeof record);
    record.msgType = kind->type;
    bool dataLenGiven = false;
    for (size_t i = 1; i < args.positional.size(); ++i) {
        const int set = setField(*kind, args.positional[i], &record.msgInfo);
        if (set != kOk) return set;
        dataLenGiven |= args.positional[i].compare(0, 8, "dataLen=") == 0;
    }
    if (kind->type == GENERALMSG_TYPE && !dataLenGiven) {
        GENERALMSG& general = record.msgInfo.generalMsg;
        general.dataLen = static_cast<int>(std::strlen(general.buf));
    }
    return reexecute(kRecordVariable, toHex(&record, sizeof record), "record");
}

// ---- send, the child that sends -------------------------------------------------

// How many of the sender's routes carry the kind; -1 for an unknown sender.
int routesCarrying(const std::string& sender, int type) {
    std::vector<ProcessMsgAssociation> routes;
    if (!fetchRoutes(sender, &routes)) return -1;
    int carrying = 0;
    for (const ProcessMsgAssociation& route : routes) {
        if (route.msgType & kindBit(type)) ++carrying;
    }
    return carrying;
}

// ---- watch ------------------------------------------------------------------

// Options of watch travel to the re-executed tool in this variable, since
// arguments would change the name it subscribes under: "MASK COUNT JSON".
const char* const kWatchVariable = "QVTOOL_WATCH_OPTIONS";

struct WatchOptions {
    int mask = ~0;    // kinds to print
    long count = -1;  // records to print before the tool ends; -1 no end
    bool json = false;
};

WatchOptions g_watch;

// Local time with milliseconds: "2026-05-04 13:07:21.042".
std::string timeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[40];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + n, sizeof text - n, ".%03ld", now.tv_nsec / 1000000);
    return text;
}

// The record's kind, then `envelope` (who sent it to whom, for a monitor),
// then the payload fields, with the time it was taken.
Json messageJson(const MSGINFO& record, const Kind& kind, const Json& envelope) {
    Json message = {{"time", timeStamp()}, {"msgType", record.msgType}, {"kind", kind.name}};
    for (auto item = envelope.begin(); item != envelope.end(); ++item)
        message[item.key()] = item.value();
    for (const Field& field : kind.fields) {
        const char* at = reinterpret_cast<const char*>(&record.msgInfo) + field.offset;
        if (field.text) {
            message[field.name] = std::string(at, strnlen(at, field.size));
        } else {
            int number = 0;
            std::memcpy(&number, at, sizeof number);
            message[field.name] = number;
        }
    }
    return message;
}

// FIELD=VALUE for the message's fields from `first` on, texts quoted and
// escaped as in JSON.
std::string fieldsText(const Json& message, size_t first) {
    std::string text;
    for (auto field = std::next(message.begin(), static_cast<long>(first)); field != message.end();
         ++field)
        text += " " + field.key() + "=" + jsonText(field.value());
    return text;
}

// "TIME KIND FIELD=VALUE ...".
std::string messageLine(const Json& message) {
    return message["time"].get<std::string>() + " " + message["kind"].get<std::string>() +
           fieldsText(message, 3);
}

// Prints one record unless --kind leaves it out: -1 to go on, or the exit
// code to end with (--count reached, output that cannot be written).
int showMessage(const MSGINFO& record, const Json& envelope) {
    const Kind* kind = kindByType(record.msgType);
    if (kind != nullptr && (g_watch.mask & kindBit(kind->type)) == 0) return -1;
    if (kind == nullptr) {
        std::printf("%s unknown msgType=%d%s\n", timeStamp().c_str(), record.msgType,
                    fieldsText(envelope, 0).c_str());
    } else {
        const Json message = messageJson(record, *kind, envelope);
        std::puts((g_watch.json ? jsonText(message) : messageLine(message)).c_str());
    }
    if (std::fflush(stdout) != 0) {
        complain("cannot write the output: %s", std::strerror(errno));
        return kFailed;
    }
    return g_watch.count > 0 && --g_watch.count == 0 ? kOk : -1;
}

void printMessage(LPMSGINFO record) {
    const int end = showMessage(*record, Json::object());
    if (end >= 0) std::exit(end);
}

bool parseWatchOptions(const Args& args, WatchOptions* options) {
    if (args.has("--kind")) {
        std::vector<std::string> names;
        std::string list = args.value("--kind");
        for (size_t start = 0, comma; start <= list.size(); start = comma + 1) {
            comma = list.find(',', start);
            if (comma == std::string::npos) comma = list.size();
            names.push_back(list.substr(start, comma - start));
        }
        if (!kindMask(names, &options->mask)) return false;
    }
    int count = 0;
    if (args.has("--count") && (!parseInt(args.value("--count"), &count) || count < 1)) {
        usageError("watch: --count needs a number above 0");
        return false;
    }
    options->count = args.has("--count") ? count : -1;
    options->json = args.has("--json");
    return true;
}

// Becomes "TOOL watch" with the options in kWatchVariable; returns only when
// that fails.
int reexecuteToWatch(const WatchOptions& options) {
    const std::string handed = std::to_string(options.mask) + " " +
                               std::to_string(options.count) + " " + (options.json ? "1" : "0");
    return reexecute(kWatchVariable, handed, "options", "watch");
}

// ---- watch --all: the bus monitor --------------------------------------------

volatile sig_atomic_t g_stopWatching = 0;

void stopWatching(int) { g_stopWatching = 1; }

// A signal ends the monitor through its loop, so that it gives its slot back;
// a closed output is said and ends it too.
void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = stopWatching;  // no SA_RESTART: the wait for a copy ends
    sigemptyset(&action.sa_mask);
    for (int signo : {SIGINT, SIGTERM, SIGHUP}) sigaction(signo, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

Json nameOf(const std::map<int, std::string>& names, int processNo) {
    const auto found = names.find(processNo);
    return found == names.end() ? Json() : Json(found->second);
}

// Who sent the copy's record to whom, and whether the receiver's queue took it.
Json envelopeOf(const qvmonitor::Copy& copy, const std::map<int, std::string>& names) {
    return {{"sendProcessNo", copy.sendProcessNo},
            {"sendProcessName", nameOf(names, copy.sendProcessNo)},
            {"recvProcessNo", copy.recvProcessNo},
            {"recvProcessName", nameOf(names, copy.recvProcessNo)},
            {"delivered", copy.delivered != 0}};
}

// Says how many copies the monitor's full queue cost it since the last time.
void sayDropped(const qvmonitor::Monitor& monitor, unsigned long* said) {
    const unsigned long dropped = qvmonitor::droppedCopies(monitor);
    if (dropped == *said) return;
    complain("%lu records passed while this monitor's queue was full (their receivers got them)",
             dropped - *said);
    *said = dropped;
}

// The process names by number, when there is a configuration store.
std::map<int, std::string> knownNames() {
    std::map<int, std::string> names;
    if (access(QV_CONF_DB_PATH, F_OK) == 0 && zq_openConfDB() == 0) processNames(&names);
    return names;
}

int watchAll(const WatchOptions& options) {
    g_watch = options;
    const std::map<int, std::string> names = knownNames();
    qvmonitor::Monitor monitor;
    if (qvmonitor::openMonitor(&monitor) != 0) {
        complain("cannot watch the bus");
        return kFailed;
    }
    catchStopSignals();
    std::fprintf(stderr,
                 "qvtool: watching every record on the bus (monitor %d of %d, queue id %d, "
                 "room for %lu records)\n",
                 monitor.slot + 1, qvmonitor::kSlots, monitor.queueId, monitor.capacity);
    if (monitor.capacity < qvmonitor::kMonitorRecords)
        complain("a burst beyond that is lost to this monitor: for %lu records raise the system "
                 "limit (sysctl -w kernel.msgmnb=%lu) or give the tool CAP_SYS_RESOURCE",
                 qvmonitor::kMonitorRecords, qvmonitor::kMonitorRecords * qvmonitor::kCopyText);
    int end = -1;
    unsigned long saidDropped = 0;
    qvmonitor::Copy copy;
    while (end < 0 && g_stopWatching == 0) {
        if (qvmonitor::receiveCopy(monitor, &copy) != 0) {
            if (errno == EINTR) continue;
            complain("the monitor queue %d went away: %s", monitor.queueId, std::strerror(errno));
            end = kFailed;
            break;
        }
        sayDropped(monitor, &saidDropped);
        end = showMessage(copy.record, envelopeOf(copy, names));
    }
    qvmonitor::closeMonitor(&monitor);
    return end < 0 ? kOk : end;
}

int runWatch(const Args& args) {
    if (args.has("--all")) {
        WatchOptions options;
        return parseWatchOptions(args, &options) ? watchAll(options) : kUsage;
    }
    if (!args.options.empty()) {
        WatchOptions options;
        return parseWatchOptions(args, &options) ? reexecuteToWatch(options) : kUsage;
    }
    if (const char* handed = std::getenv(kWatchVariable)) {
        int json = 0;
        std::sscanf(handed, "%d %ld %d", &g_watch.mask, &g_watch.count, &json);
        g_watch.json = json != 0;
        unsetenv(kWatchVariable);
    }
    const std::string name = toolFileName() + " watch";
    if (!openConfStore()) return kFailed;
    waitingForStore(nullptr);  // from here on the tool waits for messages
    std::fprintf(stderr, "qvtool: watching the queue of process \"%s\"\n", name.c_str());
    zq_subscriberMsg_sync(printMessage);  // returns only when it could not subscribe
    complain("cannot subscribe as process \"%s\"; is it in ProcessConfig?", name.c_str());
    return kFailed;
}

}  // namespace

std::string kindNames(int mask) {
    std::string names;
    for (const Kind& kind : kinds()) {
        if ((mask & kindBit(kind.type)) == 0) continue;
        if (!names.empty()) names += ",";
        names += kind.name;
    }
    return names.empty() ? "-" : names;
}

bool kindMask(const std::vector<std::string>& names, int* mask) {
    *mask = 0;
    for (const std::string& name : names) {
        const Kind* kind = kindByName(name);
        if (kind == nullptr && name != "all") {
            usageError("unknown message kind \"%s\" (see qvtool send --help)", name.c_str());
            return false;
        }
        *mask |= kind != nullptr ? kindBit(kind->type) : (1 << kinds().size()) - 1;
    }
    return true;
}

bool isSendChild(int argc) { return argc == 1 && std::getenv(kRecordVariable) != nullptr; }

int runSendChild() {
    MSGINFO record;
    const bool decoded = fromHex(std::getenv(kRecordVariable), &record, sizeof record);
    unsetenv(kRecordVariable);
    const Kind* kind = decoded ? kindByType(record.msgType) : nullptr;
    if (kind == nullptr) {
        complain("%s does not hold a message record", kRecordVariable);
        return kFailed;
    }
    const std::string sender = toolFileName();
    if (!openConfStore()) return kFailed;
    const int carrying = routesCarrying(sender, kind->type);
    if (carrying < 0) {
        complain("process \"%s\" is not in ProcessConfig; nothing sent", sender.c_str());
        return kFailed;
    }
    if (carrying == 0 || zq_publisherMsg() != 0) {
        complain("no route from process \"%s\" carries %s messages; nothing sent",
                 sender.c_str(), kind->name);
        return kFailed;
    }
    if (kind->send(&record.msgInfo) != 0) {
        // The library has named each receiver whose queue stayed full.
        complain("the %s message was not queued for the receiver named above", kind->name);
        return kFailed;
    }
    std::printf("sent %s as process \"%s\" along %d route%s\n", kind->name, sender.c_str(),
                carrying, carrying == 1 ? "" : "s");
    return kOk;
}

const std::vector<Command>& messageCommands() {
    static const std::string sendDetails = [] {
        std::string text =
            "Sends one record along the routes of the process named \"qvtool\" (the tool's\n"
            "file name, no arguments): configure that process in ProcessConfig and give it\n"
            "routes (ProcessMsgAssociation) to the receivers. Fields not given are 0 or\n"
            "empty; general's dataLen defaults to the length of buf. Integers may be\n"
            "written 0x.. for hexadecimal.\n\nKinds and their fields:\n";
        for (const Kind& kind : kinds()) {
            char head[32];
            std::snprintf(head, sizeof head, "  %-14s", kind.name);
            text += head;
            for (const Field& field : kind.fields) {
                text += std::string(" ") + field.name + (field.text ? "=TEXT" : "=INT");
            }
            text += "\n";
        }
        return text + "\nExample: qvtool send soe strDa='QVFTU1LD0/GGIO1$ST$Ind1$stVal' value=1\n";
    }();
    static const std::vector<Command> commands = {
        {"send", "send KIND [FIELD=VALUE ...]", "send a message of any kind as process \"qvtool\"",
         sendDetails.c_str(), {}, {}, 1, -1, runSend},
        {"watch", "watch [--all] [--kind KIND[,KIND...]] [--count N] [--json]",
         "print every message sent to process \"qvtool watch\", or with --all every message",
         "Subscribes as the process named \"qvtool watch\" (configure it in ProcessConfig and\n"
         "route messages to it) and prints one line per message, as it arrives: the local\n"
         "time with milliseconds, the kind name, then FIELD=VALUE for every field of the\n"
         "payload, texts quoted and escaped as JSON strings. With options the tool runs\n"
         "itself again as \"qvtool watch\", so the name stays the same.\n\n"
         "  --all         monitor the whole bus instead: a copy of every record that any\n"
         "                publisher sends, one per receiver, while the receivers still get\n"
         "                theirs; no configuration needed. Each line also has sendProcessNo,\n"
         "                sendProcessName, recvProcessNo, recvProcessName (-1 and null when\n"
         "                no route carried the kind) and delivered (false when the\n"
         "                receiver's queue did not take it)\n"
         "  --kind KINDS  print only these kinds (names as for send, comma-separated)\n"
         "  --count N     end after N messages printed (exit code 0)\n"
         "  --json        one JSON object per line: time, msgType, kind, the fields\n\n"
         "Without --count it runs until it is interrupted (Ctrl-C) or killed. Messages\n"
         "wait in the queue (key: the process number plus the queue key offset) while\n"
         "no watch runs; ipcrm -Q KEY removes the queue. Up to 8 monitors (--all) watch at\n"
         "once, each with a queue of its own: a monitor that cannot keep up loses copies\n"
         "(it says how many), never the publishers' time or the receivers' records.\n",
         {"--kind", "--count"}, {"--json", "--all"}, 0, 0, runWatch},
    };
    return commands;
}

}  // namespace qvtool
