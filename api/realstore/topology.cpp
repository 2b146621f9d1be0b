// The feeder topology of the real-time store: its nodes, the power node and
// each node's left and right neighbours (the nodes that share its link).
#include <sqlite3.h>

#include <algorithm>
#include <cstring>

#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"
#include "realstore/registry_tables.h"

using namespace qvreal;

namespace {

const RegistryTable kTopology{
    "insert into TopoInfor values(?,?,?,?,?,?,?,?,?)", "delete from TopoInfor",
    "select count(*) from TopoInfor",
    "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor"};

// The nodes that share one side's link with a given node.
struct Side {
    char (TopoInfor::*link)[sizeof(TopoInfor::l_link)];
    const char* countSql;
    const char* listSql;
};

const Side kLeft{&TopoInfor::l_link, "select count(*) from TopoInfor where l_link=?",
                 "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor  where l_link=?"};
const Side kRight{&TopoInfor::r_link, "select count(*) from TopoInfor where r_link=?",
                  "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor  where r_link=?"};

// The node is looked up before the store lock is taken: the lookup takes the
// lock itself and the lock is not re-entrant.
bool findNode(const char* name, TopoInfor& node) {
    return zq_getTopoInforByLNName(name, &node) == 0;
}

// The link field of the found node, bound up to its terminator.
auto linkBinder(const TopoInfor& node, const Side& side) {
    return [&node, &side](sqlite3_stmt* stmt) { bindValues(stmt, node.*side.link); };
}

bool isTheNode(sqlite3_stmt* row, const char* name) {
    const auto* m_rln = reinterpret_cast<const char*>(sqlite3_column_text(row, 2));
    return std::strcmp(m_rln != nullptr ? m_rln : "", name) == 0;
}

// Shared rows less the node itself; never below 0, so that a node changed
// since the lookup cannot give a negative count.
int countNeighbours(const char* name, const Side& side, int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(name, operation) ||
        !argumentGiven(pCount, operation))
        return -1;
    TopoInfor node{};
    if (!findNode(name, node)) return -1;
    *pCount = 0;
    return queryRows(side.countSql, linkBinder(node, side), [pCount](sqlite3_stmt* row) {
        *pCount = std::max(sqlite3_column_int(row, 0) - 1, 0);
        return false;
    });
}

// Passes over exactly one row, the first whose m_rln is the given name, as the
// count takes away exactly one.
int listNeighbours(const char* name, const Side& side, TopoInfor* nodes, int capacity,
                   int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(name, operation) ||
        !argumentGiven(nodes, operation) || !argumentGiven(pCount, operation))
        return -1;
    TopoInfor node{};
    if (!findNode(name, node)) return -1;
    *pCount = 0;
    qvsql::BoundedList<TopoInfor> list(nodes, capacity);
    bool nodePassed = false;
    const int result = queryRows(side.listSql, linkBinder(node, side), [&](sqlite3_stmt* row) {
        if (!nodePassed && isTheNode(row, name)) {
            nodePassed = true;
            return true;
        }
        return list.add(row, readRecord<TopoInfor>);
    });
    return list.finish(result, pCount);
}

}  // namespace

int zq_addTopoInfor(const TopoInfor* pTopoInfor) {
    return addRecords(kTopology, pTopoInfor, 1, __func__);
}

int zq_addTopoInfors(const TopoInfor* pTopoInfors, int count) {
    return addRecords(kTopology, pTopoInfors, count, __func__);
}

int zq_deleteAllTopoInfors(void) { return deleteAll(kTopology, __func__); }

int zq_deleteTopoInforByLNName(const char* name) {
    return deleteByKey("delete from TopoInfor where m_rln=?", name, __func__);
}

int zq_getAllTopoInforsNum(int* pCount) { return countAll(kTopology, pCount, __func__); }

int zq_getAllTopoInfors(TopoInfor* pTopoInfors, int* pCount) {
    return listAll(kTopology, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getAllTopoInforsN(TopoInfor* pTopoInfors, int capacity, int* pCount) {
    return listAll(kTopology, pTopoInfors, capacity, pCount, __func__);
}

int zq_getTopoInforByLNName(const char* name, TopoInfor* pTopoInfor) {
    return lookupByKey(
        "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor where m_rln=?",
        name, pTopoInfor, __func__);
}

int zq_getTopoInforPower(TopoInfor* pTopoInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(pTopoInfor, __func__)) return -1;
    return lookupRow(
        "select id,type,m_rln,name,l_link,r_link,power_flag,iedName,substation from TopoInfor where power_flag=1",
        noBinds, readRecord<TopoInfor>, pTopoInfor);
}

int zq_getLeftTopoInforsNumByLNName(const char* name, int* pCount) {
    return countNeighbours(name, kLeft, pCount, __func__);
}

int zq_getLeftTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount) {
    return listNeighbours(name, kLeft, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getLeftTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                   int* pCount) {
    return listNeighbours(name, kLeft, pTopoInfors, capacity, pCount, __func__);
}

int zq_getRightTopoInforsNumByLNName(const char* name, int* pCount) {
    return countNeighbours(name, kRight, pCount, __func__);
}

int zq_getRightTopoInforsByLNName(const char* name, TopoInfor* pTopoInfors, int* pCount) {
    return listNeighbours(name, kRight, pTopoInfors, kNoLimit, pCount, __func__);
}

int zq_getRightTopoInforsByLNNameN(const char* name, TopoInfor* pTopoInfors, int capacity,
                                   int* pCount) {
    return listNeighbours(name, kRight, pTopoInfors, capacity, pCount, __func__);
}
