// The device registry of the real-time store: the terminal access list and
// the terminal information table, written, counted, listed and looked up.
#include <sqlite3.h>

#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"
#include "realstore/registry_tables.h"

namespace qvreal {

int deleteAll(const RegistryTable& table, const char* operation) {
    if (!storeIsOpen(operation)) return -1;
    return writeRow(table.deleteAllSql);
}

// A delete whose one parameter is the caller's key text.
int deleteByKey(const char* sql, const char* key, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(key, operation)) return -1;
    return writeRow(sql, key);
}

// The count and list of a whole table, with *pCount 0 until they succeed.
int countAll(const RegistryTable& table, int* pCount, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(pCount, operation)) return -1;
    *pCount = 0;
    return countRows(table.countSql, noBinds, pCount);
}

}  // namespace qvreal

using namespace qvreal;

// ---- Terminal access list -----------------------------------------------------

namespace {

// The access list has no delete of all entries.
const RegistryTable kAccessList{
    "insert into ltu_access_list values(?,?,?,?,?,?)", nullptr,
    "select count(*) from ltu_access_list",
    "select date_time,deviceid,accessmodel,desc,key,version  from ltu_access_list"};

}  // namespace

int zq_addLTUAccess(const LTUAccess* pLTUAccess) {
    return addRecords(kAccessList, pLTUAccess, 1, __func__);
}

int zq_deleteLTUAccessByDeviceid(const char* deviceid) {
    return deleteByKey("delete from ltu_access_list where deviceid=?", deviceid, __func__);
}

int zq_getAllLTUAccessNum(int* pCount) { return countAll(kAccessList, pCount, __func__); }

int zq_getAllLTUAccess(LTUAccess* pLTUAccess, int* pCount) {
    return listAll(kAccessList, pLTUAccess, kNoLimit, pCount, __func__);
}

int zq_getAllLTUAccessN(LTUAccess* pLTUAccess, int capacity, int* pCount) {
    return listAll(kAccessList, pLTUAccess, capacity, pCount, __func__);
}

// ---- Terminal information -----------------------------------------------------

namespace {

const RegistryTable kTerminals{
    "insert into LTUInfor values(?,?,?,?,?,?,?,?,?,?)", "delete from LTUInfor",
    "select count(*) from LTUInfor",
    "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc from LTUInfor"};

}  // namespace

int zq_addLTUInfor(const LTUInfor* pLTUInfor) {
    return addRecords(kTerminals, pLTUInfor, 1, __func__);
}

int zq_addLTUInfors(const LTUInfor* pLTUInfors, int count) {
    return addRecords(kTerminals, pLTUInfors, count, __func__);
}

int zq_deleteAllLTUInfors(void) { return deleteAll(kTerminals, __func__); }

int zq_deleteLTUInforByName(const char* name) {
    return deleteByKey("delete from LTUInfor where name=?", name, __func__);
}

int zq_getAllLTUInforsNum(int* pCount) { return countAll(kTerminals, pCount, __func__); }

int zq_getAllLTUInfors(LTUInfor* pLTUInfors, int* pCount) {
    return listAll(kTerminals, pLTUInfors, kNoLimit, pCount, __func__);
}

int zq_getAllLTUInforsN(LTUInfor* pLTUInfors, int capacity, int* pCount) {
    return listAll(kTerminals, pLTUInfors, capacity, pCount, __func__);
}

int zq_getLTUInforByName(const char* name, LTUInfor* pLTUInfor) {
    return lookupByKey(
        "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc  from LTUInfor where name=?",
        name, pLTUInfor, __func__);
}

// The record's id and name are not written: the row is chosen by `name`.
int zq_setLTUInforByName(const char* name, const LTUInfor* pLTUInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__) ||
        !argumentGiven(pLTUInfor, __func__))
        return -1;
    const LTUInfor& t = *pLTUInfor;
    return writeRow(
        "update LTUInfor set QVsoftware_version=? ,QVhardware_version=? ,SGsoftware_version=? ,SGhardware_version=? ,addr=?, failedcount=? ,state=? ,desc=? where name=?",
        t.QVsoftware_version, t.QVhardware_version, t.SGsoftware_version, t.SGhardware_version,
        t.addr, t.failedcount, t.state, t.desc, name);
}

int zq_setLTUInforStateByName(const char* name, int state) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__)) return -1;
    return writeRow("update LTUInfor set state=?  where name=?", state, name);
}

// A name that no row carries is reported like a failed step.
int zq_getLTUInforStateByName(const char* name, int* pState) {
    if (!storeIsOpen(__func__) || !argumentGiven(name, __func__) ||
        !argumentGiven(pState, __func__))
        return -1;
    return withStatement(
        "select state from LTUInfor where name=? ",
        [name](sqlite3_stmt* stmt) { bindValues(stmt, name); },
        [pState](sqlite3_stmt* stmt) {
            if (qvsql::stepAnnouncingBusy(stmt) != SQLITE_ROW) {
                printStepError();
                return -1;
            }
            *pState = sqlite3_column_int(stmt, 0);
            return 0;
        });
}

// No row and a failed step both give -1 without a message.
int zq_getLTUInforById(int id, LTUInfor* pLTUInfor) {
    if (!storeIsOpen(__func__) || !argumentGiven(pLTUInfor, __func__)) return -1;
    return withStatement(
        "select id,QVsoftware_version,QVhardware_version,SGsoftware_version,SGhardware_version,name,addr,failedcount,state,desc from LTUInfor where id=? ",
        [id](sqlite3_stmt* stmt) { bindValues(stmt, id); },
        [pLTUInfor](sqlite3_stmt* stmt) {
            const int rc = qvsql::stepAnnouncingBusy(stmt);
            if (rc != SQLITE_ROW) {
                qvreport::silentFailure(qvreport::codeOfSqlite(rc, nullptr),
                                        "zq_getLTUInforById: no row read\n");
                return -1;
            }
            readRecord(stmt, *pLTUInfor);
            return 0;
        });
}

