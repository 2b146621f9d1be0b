// The frames that the registry tables (the access list, terminal
// information and the topology) share: each record type names its fields
// once (fieldsOf), in table column order, and is bound and read through that
// list; writers run without a transaction, row after row. Internal to the
// real-time store.
#ifndef QV_REALSTORE_REGISTRY_TABLES_H
#define QV_REALSTORE_REGISTRY_TABLES_H

#include <sqlite3.h>

#include <cstddef>
#include <string_view>
#include <tuple>

#include "internal/qvsqlite.h"
#include "internal/qvtexts.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

namespace qvreal {

// A record's text field holds at most size - 1 characters, terminated or not.
template <std::size_t N>
void bindValue(sqlite3_stmt* stmt, int index, const char (&field)[N]) {
    qvsql::bindField(stmt, index, field);
}

// A text argument, bound up to its terminator. Taking a view rather than a
// pointer keeps record fields on the bounded overload above.
inline void bindValue(sqlite3_stmt* stmt, int index, std::string_view text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

inline void bindValue(sqlite3_stmt* stmt, int index, int value) {
    sqlite3_bind_int(stmt, index, value);
}

// Binds the values to parameters 1, 2, 3 ... in order (none for an empty list).
template <typename... Values>
void bindValues([[maybe_unused]] sqlite3_stmt* stmt, const Values&... values) {
    [[maybe_unused]] int index = 1;
    (bindValue(stmt, index++, values), ...);
}

template <std::size_t N>
void readColumn(sqlite3_stmt* row, int column, char (&field)[N]) {
    qvsql::copyColumnText(row, column, field);
}

inline void readColumn(sqlite3_stmt* row, int column, int& field) {
    field = sqlite3_column_int(row, column);
}

inline auto fieldsOf(LTUAccess& a) {
    return std::tie(a.date_time, a.deviceid, a.accessmodel, a.desc, a.key, a.version);
}

inline auto fieldsOf(LTUInfor& t) {
    return std::tie(t.id, t.QVsoftware_version, t.QVhardware_version, t.SGsoftware_version,
                    t.SGhardware_version, t.name, t.addr, t.failedcount, t.state, t.desc);
}

inline auto fieldsOf(TopoInfor& n) {
    return std::tie(n.id, n.type, n.m_rln, n.name, n.l_link, n.r_link, n.power_flag, n.iedName,
                    n.substation);
}

// Binding only reads the fields.
template <typename Record>
void bindRecord(sqlite3_stmt* stmt, const Record& record) {
    std::apply([stmt](const auto&... fields) { bindValues(stmt, fields...); },
               fieldsOf(const_cast<Record&>(record)));
}

// Reads a row whose select list is the record's fields in order.
template <typename Record>
void readRecord(sqlite3_stmt* row, Record& record) {
    std::apply(
        [row](auto&... fields) {
            int column = 0;
            (readColumn(row, column++, fields), ...);
        },
        fieldsOf(record));
}

// Prepares sql once and writes `rows` rows under one hold of the store lock:
// bindRow(stmt, i) binds row i, which is stepped to done and reset. There is
// no transaction: the first failing row ends the run, the rows before it stay.
template <typename BindRow>
int runWriter(const char* sql, int rows, BindRow bindRow) {
    StoreLock lock;
    return storeQueries(qvtext::kWriterPrepareFailed)
        .withStatement(sql, noBinds, [rows, &bindRow](sqlite3_stmt* stmt) {
            for (int i = 0; i < rows; ++i) {
                bindRow(stmt, i);
                if (stepGivingWay(stmt) != SQLITE_DONE) {
                    printStepError();
                    return -1;
                }
                sqlite3_reset(stmt);
            }
            return 0;
        });
}

// A writer of one row whose parameters are the given values.
template <typename... Values>
int writeRow(const char* sql, const Values&... values) {
    return runWriter(sql, 1, [&](sqlite3_stmt* stmt, int) { bindValues(stmt, values...); });
}

// The statements of one registry table that cover the whole table.
struct RegistryTable {
    const char* insertSql;
    const char* deleteAllSql;
    const char* countSql;
    const char* listSql;
};

int deleteAll(const RegistryTable& table, const char* operation);

// A delete whose one parameter is the caller's key text.
int deleteByKey(const char* sql, const char* key, const char* operation);

// The count and list of a whole table, with *pCount 0 until they succeed.
int countAll(const RegistryTable& table, int* pCount, const char* operation);

// Inserts `count` records under one statement; a single add is a run of one.
template <typename Record>
int addRecords(const RegistryTable& table, const Record* records, int count,
               const char* operation) {
    if (!storeIsOpen(operation)) return -1;
    if (count > 0 && !argumentGiven(records, operation)) return -1;
    return runWriter(table.insertSql, count,
                     [records](sqlite3_stmt* stmt, int i) { bindRecord(stmt, records[i]); });
}

template <typename Record>
int listAll(const RegistryTable& table, Record* records, int capacity, int* pCount,
            const char* operation) {
    if (!listCanStart(records, pCount, operation)) return -1;
    return listRows(table.listSql, noBinds, readRecord<Record>, records, capacity, pCount);
}

// The first record whose key column equals the caller's key text.
template <typename Record>
int lookupByKey(const char* sql, const char* key, Record* record, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(key, operation) ||
        !argumentGiven(record, operation))
        return -1;
    return lookupRow(
        sql, [key](sqlite3_stmt* stmt) { bindValues(stmt, key); }, readRecord<Record>, record);
}

}  // namespace qvreal

#endif  // QV_REALSTORE_REGISTRY_TABLES_H
