// The store writer: the model goes into the real-time store in one
// transaction on a connection of the load's own, replacing the rows of the
// file's IEDs; a failure anywhere rolls the whole load back.
#include <sqlite3.h>

#include <cstdio>
#include <initializer_list>
#include <string>
#include <unordered_map>
#include <vector>

#include "internal/qvbuildconfig.h"
#include "internal/qvfeed_hooks.h"
#include "internal/qvtexts.h"
#include "internal/qvreport.h"
#include "model.h"

namespace qvaddied {

namespace {

const char* iedName(const Model& model, int ied) {
    return model.giedVector[static_cast<std::size_t>(ied)].name;
}

// A reference as the store keeps it: the IED name immediately followed by it.
struct StoredReference {
    char text[sizeof(IED::name) + 256];  // an IED name and a reference of up to 255
    void set(const Model& model, int ied, const char* reference) {
        std::snprintf(text, sizeof text, "%s%s", iedName(model, ied), reference);
    }
};

void printPrepareError(sqlite3* db) {
    qvreport::sqliteFailure(db, qvtext::kPrepareFailed);
}

void printStepError(sqlite3* db) {
    qvreport::sqliteFailure(db, qvtext::kStepFailed);
}

bool execControl(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    qvreport::sqliteFailure(db, qvtext::kExecFailed);
    return false;
}

// One statement prepared once and stepped once per row.
class Inserter {
public:
    explicit Inserter(sqlite3* db) : db_(db) {}
    bool prepare(const char* sql) {
        if (stmt_.prepare(db_, sql) == SQLITE_OK) return true;
        printPrepareError(db_);
        return false;
    }
    sqlite3_stmt* get() const { return stmt_.get(); }
    // Steps the bound row and resets the statement for the next one.
    bool step() {
        const bool done = sqlite3_step(stmt_.get()) == SQLITE_DONE;
        if (!done) printStepError(db_);
        sqlite3_reset(stmt_.get());
        return done;
    }

private:
    sqlite3* db_;
    qvsql::Statement stmt_;
};

// Prepares `sql` once and steps it once per record, after `bind(stmt, i)`.
template <typename Bind>
bool runForEach(sqlite3* db, const char* sql, std::size_t count, const Bind& bind) {
    Inserter inserter(db);
    if (!inserter.prepare(sql)) return false;
    for (std::size_t i = 0; i < count; ++i) {
        bind(inserter.get(), i);
        if (!inserter.step()) return false;
    }
    return true;
}

// Row keys of the value rows that an earlier load of the IED wrote.
bool selectOldValueKeys(sqlite3* db, const char* ied, std::vector<sqlite3_int64>* keys) {
    qvsql::Statement stmt;
    if (stmt.prepare(db, "select fcdaName from DataSetSub where iedName=?") != SQLITE_OK) {
        printPrepareError(db);
        return false;
    }
    qvsql::bindText(stmt.get(), 1, ied);
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
        keys->push_back(qvsql::rowKey(text ? reinterpret_cast<const char*>(text) : ""));
    }
    if (rc == SQLITE_DONE) return true;
    printStepError(db);
    return false;
}

// Whether an earlier load left attribute rows of the IED.
bool hasRowsOfIed(sqlite3* db, const char* ied) {
    qvsql::Statement stmt;
    if (stmt.prepare(db, "select 1 from DA where iedName=? limit 1") != SQLITE_OK) return false;
    qvsql::bindText(stmt.get(), 1, ied);
    return sqlite3_step(stmt.get()) == SQLITE_ROW;
}

// A reload replaces the rows of each IED of the file instead of adding to
// them, and says so: another file's IED of the same name goes too.
bool removeRowsOfIeds(const Model& model) {
    sqlite3* db = model.g_sqliteDB;
    std::vector<sqlite3_int64> keys;
    for (const IED& ied : model.giedVector) {
        if (hasRowsOfIed(db, ied.name))
            qvreport::notice(QV_OK, false, "IED %s: its rows in the store are replaced\n", ied.name);
        if (!selectOldValueKeys(db, ied.name, &keys)) return false;
    }
    if (!runForEach(
            db, "delete from DAValue where hashID=?", keys.size(),
            [&](sqlite3_stmt* stmt, std::size_t i) { sqlite3_bind_int64(stmt, 1, keys[i]); }))
        return false;
    for (const char* sql :
         {"delete from DataSet where iedName=?", "delete from DataSetSub where iedName=?",
          "delete from DA where iedName=?"}) {
        const bool removed =
            runForEach(db, sql, model.giedVector.size(), [&](sqlite3_stmt* stmt, std::size_t i) {
                qvsql::bindText(stmt, 1, model.giedVector[i].name);
            });
        if (!removed) return false;
    }
    return true;
}

// Binds texts to the parameters 1, 2, ... in order.
void bindTexts(sqlite3_stmt* stmt, std::initializer_list<const char*> texts) {
    int index = 1;
    for (const char* text : texts) qvsql::bindText(stmt, index++, text);
}

bool insertDataSets(const Model& model) {
    return runForEach(model.g_sqliteDB,
                      "insert into DataSet(iedName,dsName,ldInst,dsDesc) values(?,?,?,?)",
                      model.gdsVector.size(), [&](sqlite3_stmt* stmt, std::size_t i) {
                          const DataSet& ds = model.gdsVector[i];
                          bindTexts(stmt, {iedName(model, ds.ied), ds.name, ds.ldInst, ds.desc});
                      });
}

bool insertMembers(const Model& model) {
    StoredReference reference;  // bound in place, rewritten per row
    return runForEach(
        model.g_sqliteDB,
        "insert into DataSetSub(fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc)"
        " values(?,?,?,?,?,?,?,?,?)",
        model.gdsSubVector.size(), [&](sqlite3_stmt* stmt, std::size_t i) {
            const DataSetSub& sub = model.gdsSubVector[i];
            reference.set(model, sub.ied, sub.fcdaName);
            bindTexts(stmt, {reference.text, iedName(model, sub.ied), sub.dsName, sub.ldInst,
                             sub.lnClass, sub.lnInst, sub.doName, sub.daName, sub.fc});
        });
}

// Writes every attribute row and counts them in *rows: 0, -1 for the model
// (after a message), 1 for the store.
int insertAttributes(Model& model, long* rows) {
    Inserter inserter(model.g_sqliteDB);
    if (!inserter.prepare("insert into DA(daName,iedName,ldName,lnName,doName,fcName,value,"
                          "valueType,doDesc,hashID) values(?,?,?,?,?,?,?,?,?,?)"))
        return 1;
    StoredReference reference;
    return forEachAttribute(model, [&](const DATable& da) {
        ++*rows;
        reference.set(model, da.ied, da.daName);
        sqlite3_stmt* stmt = inserter.get();
        bindTexts(stmt, {reference.text, iedName(model, da.ied), da.ldName, da.lnName, da.doName,
                         da.fcName, da.value, da.valueType, da.doDesc});
        sqlite3_bind_int64(stmt, 10, qvsql::rowKey(reference.text));
        return inserter.step() ? 0 : 1;
    });
}

// The references of one value row key: a 32-bit key may serve two.
struct SharedKeys {
    std::unordered_map<sqlite3_int64, std::string> firstOf;
    std::string pairs;
    int count = 0;
    // Whether `key` is new; else notes the pair.
    bool add(sqlite3_int64 key, const char* reference) {
        const auto at = firstOf.emplace(key, reference);
        if (at.second) return true;
        if (++count <= 3) pairs += (pairs.empty() ? "" : "; ") + at.first->second + " and " + reference;
        return false;
    }
    void report() const {
        if (count > 0)
            qvreport::notice(QV_OK, false,
                             "SCL notice: %d references share a row key with another (%s%s); one "
                             "value row serves each pair\n",
                             count, pairs.c_str(), count > 3 ? "; ..." : "");
    }
};

bool insertValueRows(const Model& model) {
    Inserter inserter(model.g_sqliteDB);
    if (!inserter.prepare("insert into DAValue(hashID,type,value,quality,timestamp ) values(?,?,?,?,?)"))
        return false;
    StoredReference reference;
    SharedKeys shared;
    for (const DAConfType& member : model.g_daConfTypeVector) {
        reference.set(model, member.ied, member.daName);
        const sqlite3_int64 key = qvsql::rowKey(reference.text);
        if (!shared.add(key, reference.text)) continue;
        sqlite3_stmt* stmt = inserter.get();
        sqlite3_bind_int64(stmt, 1, key);
        sqlite3_bind_double(stmt, 2, static_cast<double>(member.type));
        for (int column = 3; column <= 5; ++column) sqlite3_bind_double(stmt, column, 0.0);
        if (!inserter.step()) return false;
    }
    shared.report();
    return true;
}

// All four tables in one transaction: a load lands whole or not at all.
// 0, -1 for the store, -2 for the model.
int writeModel(Model& model, long* attributes) {
    if (!execControl(model.g_sqliteDB, "BEGIN TRANSACTION")) return -1;
    int result = -1;
    if (removeRowsOfIeds(model) && insertDataSets(model) && insertMembers(model)) {
        long rows = 0;
        const int written = insertAttributes(model, &rows);
        *attributes = rows;
        result = written < 0 ? -2 : written > 0 ? -1 : 0;
    }
    if (result == 0 && insertValueRows(model) && execControl(model.g_sqliteDB, "COMMIT TRANSACTION"))
        return 0;
    sqlite3_exec(model.g_sqliteDB, "ROLLBACK", nullptr, nullptr, nullptr);
    return result == -2 ? -2 : -1;
}

}  // namespace

int addRealTimeDB(Model& model, long* attributes) {
    if (sqlite3_open(QV_REALTIME_DB_PATH, &model.g_sqliteDB) != SQLITE_OK) {
        qvreport::sqliteFailure(model.g_sqliteDB, qvtext::kLoaderOpenFailed);
        sqlite3_close(model.g_sqliteDB);
        model.g_sqliteDB = nullptr;
        return -1;
    }
    const int result = writeModel(model, attributes);
    if (result == 0) qvfeed::announceReset();
    sqlite3_close(model.g_sqliteDB);
    model.g_sqliteDB = nullptr;
    return result;
}

}  // namespace qvaddied
