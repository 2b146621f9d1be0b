// The model queries of the real-time store: data sets, their members and
// the data attributes, counted, listed or looked up, the members and the
// attributes under optional filters.
#include <sqlite3.h>

#include <string>

#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

using namespace qvreal;
using qvsql::bindText;

namespace qvreal {

std::string filteredSql(const char* base, const Filters& filters) {
    std::string sql = base;
    bool first = true;
    for (const Filter& filter : filters) {
        if (filter.text == nullptr) continue;
        if (first)
            sql += filter.joinsBaseDirectly ? "where " : " where ";
        else
            sql += " and ";
        sql += filter.column;
        sql += "=? ";
        first = false;
    }
    return sql;
}

Filters memberFilters(const char* iedName, const char* dsName, const char* ldInst,
                      const char* lnClass, const char* lnInst, const char* doName,
                      const char* daName, const char* fc) {
    return {{"iedName", iedName, true}, {"dsName", dsName},   {"ldInst", ldInst},
            {"lnClass", lnClass},       {"lnInst", lnInst},   {"doName", doName},
            {"daName", daName},         {"fc", fc}};
}

}  // namespace qvreal

// ---- Data sets and members ----------------------------------------------------

namespace {

void readDataSet(sqlite3_stmt* row, DataSet& set) {
    copyColumns(row, set.iedName, set.name, set.ldInst, set.desc);
}

void readDataSetSub(sqlite3_stmt* row, DataSetSub& sub) {
    copyColumns(row, sub.fcdaName, sub.iedName, sub.dsName, sub.ldInst, sub.lnClass, sub.lnInst,
                sub.doName, sub.daName, sub.fc);
}

int listDataSets(DataSet* pSets, int capacity, int* pCount, const char* operation) {
    if (!listCanStart(pSets, pCount, operation)) return -1;
    return listRows("select iedName, dsName,ldInst,dsDesc from DataSet", noBinds, readDataSet,
                    pSets, capacity, pCount);
}

// The matching members into at most `capacity` records: 0, 1 when cut, -1.
int listMembersBy(const Filters& filters, DataSetSub* pSubs, int capacity, int* pCount,
                  const char* operation) {
    if (!listCanStart(pSubs, pCount, operation)) return -1;
    const std::string sql = filteredSql(
        "select  fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc  from DataSetSub ",
        filters);
    return listRows(sql, filterBinds(filters), readDataSetSub, pSubs, capacity, pCount);
}

}  // namespace

int zq_getAllDataSetsNum(int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    return countRows("select count(*) from DataSet", noBinds, pCount);
}

int zq_getAllDataSets(DataSet* pSets, int* pCount) {
    return listDataSets(pSets, kNoLimit, pCount, __func__);
}

int zq_getAllDataSetsN(DataSet* pSets, int capacity, int* pCount) {
    return listDataSets(pSets, capacity, pCount, __func__);
}

int zq_getDataSetByName(const char* iedName, const char* name, DataSet* pSet) {
    if (!storeIsOpen(__func__) || !argumentGiven(iedName, __func__) ||
        !argumentGiven(name, __func__) || !argumentGiven(pSet, __func__))
        return -1;
    return lookupRow("select iedName, dsName,ldInst,dsDesc  from DataSet  where iedName=? and dsName=? ",
                     [&](sqlite3_stmt* stmt) {
                         bindText(stmt, 1, iedName);
                         bindText(stmt, 2, name);
                     },
                     readDataSet, pSet);
}

int zq_getDataSetSubByName(const char* fcdaName, DataSetSub* pSub) {
    if (!storeIsOpen(__func__) || !argumentGiven(fcdaName, __func__) ||
        !argumentGiven(pSub, __func__))
        return -1;
    return lookupRow(
        "select fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc from DataSetSub where fcdaName=?",
        [&](sqlite3_stmt* stmt) { bindText(stmt, 1, fcdaName); }, readDataSetSub, pSub);
}

int zq_getDataSetSubsByParamsNum(const char* iedName, const char* dsName, const char* ldInst,
                                 const char* lnClass, const char* lnInst, const char* doName,
                                 const char* daName, const char* fc, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    const Filters filters =
        memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc);
    return countRows(filteredSql("select count(*) from DataSetSub ", filters),
                     filterBinds(filters), pCount);
}

int zq_getDataSetSubsByParams(const char* iedName, const char* dsName, const char* ldInst,
                              const char* lnClass, const char* lnInst, const char* doName,
                              const char* daName, const char* fc, DataSetSub* pSubs,
                              int* pCount) {
    return listMembersBy(memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc),
                         pSubs, kNoLimit, pCount, __func__);
}

int zq_getDataSetSubsByParamsN(const char* iedName, const char* dsName, const char* ldInst,
                               const char* lnClass, const char* lnInst, const char* doName,
                               const char* daName, const char* fc, DataSetSub* pSubs,
                               int capacity, int* pCount) {
    return listMembersBy(memberFilters(iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc),
                         pSubs, capacity, pCount, __func__);
}

// ---- Data attributes ----------------------------------------------------------

namespace {

void readDa(sqlite3_stmt* row, DA& da) {
    copyColumns(row, da.daName, da.iedName, da.ldName, da.lnName, da.doName, da.fcName, da.value,
                da.valueType, da.doDesc);
}

Filters attributeFilters(const char* iedName, const char* ldName, const char* lnName,
                         const char* doName, const char* fcName) {
    return {{"iedName", iedName}, {"ldName", ldName}, {"lnName", lnName}, {"doName", doName},
            {"fcName", fcName}};
}

int listAttributes(const Filters& filters, DA* pDas, int capacity, int* pCount,
                   const char* operation) {
    if (!listCanStart(pDas, pCount, operation)) return -1;
    return listRows(
        filteredSql(
            "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA ",
            filters),
        filterBinds(filters), readDa, pDas, capacity, pCount);
}

}  // namespace

// Looked up by row key: the daName column itself is not compared.
int zq_getDAByName(const char* daName, DA* pDa) {
    if (!storeIsOpen(__func__) || !argumentGiven(daName, __func__) ||
        !argumentGiven(pDa, __func__))
        return -1;
    return lookupRow(
        "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA  where hashID=?",
        [daName](sqlite3_stmt* stmt) { bindRowKey(stmt, 1, daName); }, readDa, pDa);
}

int zq_getDAsByParamsNum(const char* iedName, const char* ldName, const char* lnName,
                         const char* doName, const char* fcName, int* pCount) {
    if (!storeIsOpen(__func__) || !argumentGiven(pCount, __func__)) return -1;
    *pCount = 0;
    const Filters filters = attributeFilters(iedName, ldName, lnName, doName, fcName);
    return countRows(filteredSql("select count(*) from DA ", filters), filterBinds(filters),
                     pCount);
}

int zq_getDAsByParams(const char* iedName, const char* ldName, const char* lnName,
                      const char* doName, const char* fcName, DA* pDas, int* pCount) {
    return listAttributes(attributeFilters(iedName, ldName, lnName, doName, fcName), pDas,
                          kNoLimit, pCount, __func__);
}

int zq_getDAsByParamsN(const char* iedName, const char* ldName, const char* lnName,
                       const char* doName, const char* fcName, DA* pDas, int capacity,
                       int* pCount) {
    return listAttributes(attributeFilters(iedName, ldName, lnName, doName, fcName), pDas,
                          capacity, pCount, __func__);
}

