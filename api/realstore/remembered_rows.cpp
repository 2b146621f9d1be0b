// Values by row key, through remembered rows. A statement by key descends
// the hashID index and then the table; one by rowid only the table, a third
// less work for a read. The connection remembers where it found each key and
// goes there first, using that row only while it still holds the key: a
// model reload or a vacuum moves rows, and then the key is looked up again.
#include <sqlite3.h>

#include <cstddef>
#include <unordered_map>

#include "internal/qvsqlite.h"
#include "realstore/realstore.h"


namespace qvreal {

namespace {

// The update statements come without and with the quality.
sqlite3_stmt* s_selectByRow = nullptr;
sqlite3_stmt* s_selectWithRow = nullptr;
sqlite3_stmt* s_updateByRow[2] = {};
sqlite3_stmt* s_updateWithRow[2] = {};
const char* const kSelectByRowSql = "select value,quality,hashID from DAValue where rowid=?";
const char* const kSelectWithRowSql = "select value,quality,rowid from DAValue where hashID=?";
const char* const kUpdateByRowSql[2] = {
    "update DAValue set value=? where rowid=? and hashID=?",
    "update DAValue set value=?,quality=? where rowid=? and hashID=?"};
const char* const kUpdateWithRowSql[2] = {
    "update DAValue set value=? where hashID=? returning rowid",
    "update DAValue set value=?,quality=? where hashID=? returning rowid"};
sqlite3_stmt** const rowStatements[] = {&s_selectByRow,      &s_selectWithRow,
                                        &s_updateByRow[0],   &s_updateByRow[1],
                                        &s_updateWithRow[0], &s_updateWithRow[1]};
std::unordered_map<sqlite3_int64, sqlite3_int64> s_rowOfKey;

// Keys of rows long gone stay remembered until they are used again; a
// process that goes through more keys than a large model has starts over
// (about 10 MB at this size).
constexpr std::size_t kMostRememberedRows = 1 << 18;

void rememberRow(sqlite3_int64 key, sqlite3_int64 row) {
    if (s_rowOfKey.size() >= kMostRememberedRows) s_rowOfKey.clear();
    s_rowOfKey[key] = row;
}

bool rowStatementsReady(sqlite3_stmt*& byRow, const char* byRowSql, sqlite3_stmt*& withRow,
                        const char* withRowSql) {
    return keptStatement(byRow, byRowSql) == SQLITE_OK &&
           keptStatement(withRow, withRowSql) == SQLITE_OK;
}

// ---- Saves --------------------------------------------------------------------

// Binds the value, and the quality when given, as the first parameters;
// returns the index of the next one.
int bindValueAndQuality(sqlite3_stmt* stmt, double value, const int* quality) {
    sqlite3_bind_double(stmt, 1, value);
    if (quality == nullptr) return 2;
    sqlite3_bind_int(stmt, 2, *quality);
    return 3;
}

// Saves at the row where the key was found before, if it still holds the
// key: 0 saved, -1 not there (save by key), -2 failed.
int saveRememberedRow(sqlite3_int64 key, double value, const int* quality) {
    const auto remembered = s_rowOfKey.find(key);
    if (remembered == s_rowOfKey.end()) return -1;
    sqlite3_stmt* const stmt = s_updateByRow[quality != nullptr];
    const int index = bindValueAndQuality(stmt, value, quality);
    sqlite3_bind_int64(stmt, index, remembered->second);
    sqlite3_bind_int64(stmt, index + 1, key);
    const int rc = stepGivingWay(stmt);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return -2;
    if (sqlite3_changes(s_sqliteDB) == 1) return 0;
    s_rowOfKey.erase(remembered);
    return -1;
}

// Saves by key and remembers the row it changed: 0, 1 when no row has the
// key, -2 failed.
int saveAndRememberRow(sqlite3_int64 key, double value, const int* quality) {
    sqlite3_stmt* const stmt = s_updateWithRow[quality != nullptr];
    const int index = bindValueAndQuality(stmt, value, quality);
    sqlite3_bind_int64(stmt, index, key);
    int rc;
    bool changed = false;
    while ((rc = stepGivingWay(stmt)) == SQLITE_ROW) {
        rememberRow(key, sqlite3_column_int64(stmt, 0));
        changed = true;
    }
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return -2;
    return changed ? 0 : 1;
}

// ---- Reads --------------------------------------------------------------------

void takeValue(sqlite3_stmt* row, ValueOut out) {
    if (out.asDouble != nullptr) *out.asDouble = sqlite3_column_double(row, 0);
    if (out.asInt != nullptr) *out.asInt = sqlite3_column_int(row, 0);
    if (out.quality != nullptr) *out.quality = sqlite3_column_int(row, 1);
}

// Steps a read of value and quality: 0 with the row taken, -1 without a row,
// -2 after a failed step (reported).
int stepRead(sqlite3_stmt* stmt, ValueOut out) {
    const int rc = stepGivingWay(stmt);
    if (rc == SQLITE_ROW) {
        takeValue(stmt, out);
        return 0;
    }
    if (rc != SQLITE_DONE) printStepError();
    return rc == SQLITE_DONE ? -1 : -2;
}

// Reads the row where the key was found before, if it still holds the key:
// 0 read, -1 not there (look the key up), -2 failed.
int readRememberedRow(sqlite3_int64 key, ValueOut out) {
    const auto remembered = s_rowOfKey.find(key);
    if (remembered == s_rowOfKey.end()) return -1;
    sqlite3_bind_int64(s_selectByRow, 1, remembered->second);
    int result = -1;
    const int rc = stepGivingWay(s_selectByRow);
    if (rc == SQLITE_ROW &&
        sqlite3_column_int64(s_selectByRow, 2) == key) {
        takeValue(s_selectByRow, out);
        result = 0;
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        printStepError();
        result = -2;
    }
    sqlite3_reset(s_selectByRow);
    if (result == -1) s_rowOfKey.erase(remembered);
    return result;
}

// Looks the key up and remembers its row.
int readAndRememberRow(sqlite3_int64 key, ValueOut out) {
    sqlite3_bind_int64(s_selectWithRow, 1, key);
    const int result = stepRead(s_selectWithRow, out);
    if (result == 0) rememberRow(key, sqlite3_column_int64(s_selectWithRow, 2));
    sqlite3_reset(s_selectWithRow);
    return result;
}

}  // namespace

// The remembered rows are used only under the store lock (the map has no
// lock of its own) and once both statements are prepared.
int saveKey(sqlite3_int64 key, double value, const int* quality, sqlite3_stmt* byKey,
            bool lockHeld) {
    const int form = quality != nullptr;
    if (lockHeld && rowStatementsReady(s_updateByRow[form], kUpdateByRowSql[form],
                                       s_updateWithRow[form], kUpdateWithRowSql[form])) {
        const int result = saveRememberedRow(key, value, quality);
        return result == -1 ? saveAndRememberRow(key, value, quality) : result;
    }
    const int index = bindValueAndQuality(byKey, value, quality);
    sqlite3_bind_int64(byKey, index, key);
    const int rc = stepGivingWay(byKey);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(byKey);
    if (rc != SQLITE_DONE) return -2;
    return sqlite3_changes(s_sqliteDB) > 0 ? 0 : 1;
}

int readKey(sqlite3_int64 key, ValueOut out, sqlite3_stmt* byKey, bool lockHeld) {
    if (lockHeld &&
        rowStatementsReady(s_selectByRow, kSelectByRowSql, s_selectWithRow, kSelectWithRowSql)) {
        const int result = readRememberedRow(key, out);
        return result == -1 ? readAndRememberRow(key, out) : result;
    }
    sqlite3_bind_int64(byKey, 1, key);
    const int result = stepRead(byKey, out);
    sqlite3_reset(byKey);
    return result;
}

void releaseRememberedRows() {
    for (sqlite3_stmt** stmt : rowStatements) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    s_rowOfKey.clear();
}

}  // namespace qvreal
