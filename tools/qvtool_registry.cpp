// qvtool commands on the device registry of the real-time store: terminal
// information, the terminal access list and the feeder topology.
#include <string>

#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

namespace {

// Room for rows that field processes add between count and fetch.
constexpr int kListRoom = 256;

int runTerminals(const Args&) {
    if (!openRealStore()) return kFailed;
    std::vector<LTUInfor> terminals;
    if (!fetchList(&terminals, zq_getAllLTUInforsNum, zq_getAllLTUInfors, kListRoom))
        return kFailed;
    Table table({"ID", "NAME", "ADDR", "STATE", "FAILED", "QV SW/HW", "SG SW/HW", "DESCRIPTION"});
    for (const LTUInfor& t : terminals) {
        table.add({std::to_string(t.id), t.name, t.addr, std::to_string(t.state),
                   std::to_string(t.failedcount),
                   std::string(t.QVsoftware_version) + "/" + t.QVhardware_version,
                   std::string(t.SGsoftware_version) + "/" + t.SGhardware_version, t.desc});
    }
    return printList(table, "terminals");
}

int runAccess(const Args&) {
    if (!openRealStore()) return kFailed;
    std::vector<LTUAccess> entries;
    if (!fetchList(&entries, zq_getAllLTUAccessNum, zq_getAllLTUAccess, kListRoom))
        return kFailed;
    Table table({"DATE", "DEVICE", "MODEL", "VERSION", "KEY", "DESCRIPTION"});
    for (const LTUAccess& e : entries) {
        table.add({e.date_time, e.deviceid, std::to_string(e.accessmodel), e.version, e.key,
                   e.desc});
    }
    return printList(table, "entries in the access list");
}

int runTopology(const Args&) {
    if (!openRealStore()) return kFailed;
    std::vector<TopoInfor> nodes;
    if (!fetchList(&nodes, zq_getAllTopoInforsNum, zq_getAllTopoInfors, kListRoom))
        return kFailed;
    Table table({"ID", "TYPE", "LN", "NAME", "LEFT", "RIGHT", "POWER", "IED", "SUBSTATION"});
    for (const TopoInfor& n : nodes) {
        table.add({std::to_string(n.id), n.type, n.m_rln, n.name, n.l_link, n.r_link,
                   n.power_flag == 1 ? "yes" : "no", n.iedName, n.substation});
    }
    return printList(table, "topology nodes");
}

}  // namespace

const std::vector<Command>& registryCommands() {
    static const std::vector<Command> commands = {
        {"terminals", "terminals", "list the field terminals (LTUInfor)", "", {}, {}, 0, 0,
         runTerminals},
        {"access", "access", "list the terminal access list (ltu_access_list)", "", {}, {}, 0,
         0, runAccess},
        {"topology", "topology", "list the feeder topology nodes (TopoInfor)",
         "POWER marks the power node (power_flag 1).\n", {}, {}, 0, 0, runTopology},
    };
    return commands;
}

}  // namespace qvtool
