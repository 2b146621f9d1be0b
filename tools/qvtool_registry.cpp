// qvtool commands on the device registry of the real-time store: terminal
// information, the terminal access list and the feeder topology.
#include <string>

#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

namespace {

Json toJson(const LTUInfor& t) {
    return {{"id", t.id},
            {"QVsoftware_version", t.QVsoftware_version},
            {"QVhardware_version", t.QVhardware_version},
            {"SGsoftware_version", t.SGsoftware_version},
            {"SGhardware_version", t.SGhardware_version},
            {"name", t.name},
            {"addr", t.addr},
            {"failedcount", t.failedcount},
            {"state", t.state},
            {"desc", t.desc}};
}

Json toJson(const LTUAccess& e) {
    return {{"date_time", e.date_time}, {"deviceid", e.deviceid}, {"accessmodel", e.accessmodel},
            {"desc", e.desc},           {"key", e.key},           {"version", e.version}};
}

Json toJson(const TopoInfor& n) {
    return {{"id", n.id},         {"type", n.type},         {"m_rln", n.m_rln},
            {"name", n.name},     {"l_link", n.l_link},     {"r_link", n.r_link},
            {"power_flag", n.power_flag}, {"iedName", n.iedName}, {"substation", n.substation}};
}

// The whole table through count-then-fetch, as rows or JSON.
template <typename Record>
int listTable(const Args& args, int (*count)(int*), int (*fetch)(Record*, int, int*),
              const std::vector<Column>& columns) {
    std::vector<Record> records;
    if (!openRealStore() || !fetchList(&records, count, fetch)) return kFailed;
    Json rows = Json::array();
    for (const Record& record : records) rows.push_back(toJson(record));
    return printRows(args, columns, rows);
}

int runTerminals(const Args& args) {
    return listTable(args, zq_getAllLTUInforsNum, zq_getAllLTUInforsN,
                     {{"ID", "id"}, {"NAME", "name"}, {"ADDR", "addr"}, {"STATE", "state"},
                      {"FAILED", "failedcount"}, {"QV SW", "QVsoftware_version"},
                      {"QV HW", "QVhardware_version"}, {"SG SW", "SGsoftware_version"},
                      {"SG HW", "SGhardware_version"}, {"DESCRIPTION", "desc"}});
}

int runAccess(const Args& args) {
    return listTable(args, zq_getAllLTUAccessNum, zq_getAllLTUAccessN,
                     {{"DATE", "date_time"}, {"DEVICE", "deviceid"}, {"MODEL", "accessmodel"},
                      {"VERSION", "version"}, {"KEY", "key"}, {"DESCRIPTION", "desc"}});
}

int runTopology(const Args& args) {
    return listTable(args, zq_getAllTopoInforsNum, zq_getAllTopoInforsN,
                     {{"ID", "id"}, {"TYPE", "type"}, {"LN", "m_rln"}, {"NAME", "name"},
                      {"LEFT", "l_link"}, {"RIGHT", "r_link"}, {"POWER", "power_flag"},
                      {"IED", "iedName"}, {"SUBSTATION", "substation"}});
}

}  // namespace

const std::vector<Command>& registryCommands() {
    static const std::vector<Command> commands = {
        {"terminals", "terminals [--json]", "list the field terminals (LTUInfor)",
         "JSON fields: those of the LTUInfor record.\n", {}, {"--json"}, 0, 0, runTerminals},
        {"access", "access [--json]", "list the terminal access list (ltu_access_list)",
         "JSON fields: those of the LTUAccess record.\n", {}, {"--json"}, 0, 0, runAccess},
        {"topology", "topology [--json]", "list the feeder topology nodes (TopoInfor)",
         "POWER is power_flag (1 marks the power node). JSON fields: those of the\n"
         "TopoInfor record.\n",
         {}, {"--json"}, 0, 0, runTopology},
    };
    return commands;
}

}  // namespace qvtool
