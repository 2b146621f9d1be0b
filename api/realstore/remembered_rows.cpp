// Values by row key, through remembered rows. A statement by key descends
// the hashID index and then the table; one by rowid only the table, a third
// less work for a read. The connection remembers where it found each key and
// goes there first, using that row only while it still holds the key: a
// model reload or a vacuum moves rows, and then the key is looked up again.
#include <sqlite3.h>

#include <cstddef>
#include <ctime>
#include <unordered_map>

#include "internal/qvfeed_hooks.h"
#include "internal/qvsqlite.h"
#include "realstore/realstore.h"

using qvsql::stepWithBusyRetry;

namespace qvreal {

namespace {

// The update statements come in three forms: the value alone, with the
// quality, and with the quality and the time (see saveForm).
constexpr int kSaveForms = 3;
sqlite3_stmt* s_selectByRow = nullptr;
sqlite3_stmt* s_selectWithRow = nullptr;
sqlite3_stmt* s_updateByRow[kSaveForms] = {};
sqlite3_stmt* s_updateWithRow[kSaveForms] = {};
// The timed forms' statements by key, for a save or read without the lock.
sqlite3_stmt* s_updateTimedByKey = nullptr;
sqlite3_stmt* s_selectTimedByKey = nullptr;
// Every read selects value, quality and time as columns 0, 1 and 2.
const char* const kSelectByRowSql =
    "select value,quality,timestamp,hashID from DAValue where rowid=?";
const char* const kSelectWithRowSql =
    "select value,quality,timestamp,rowid from DAValue where hashID=?";
const char* const kSelectTimedByKeySql =
    "select value,quality,timestamp from DAValue where hashID=?";
// A returning clause costs a save by row a tenth of its time, and a read
// after it another transaction: the plain save hands the quality that it
// leaves to a function of ours instead (see keptQuality).
const char* const kUpdateByRowSql[kSaveForms] = {
    "update DAValue set value=?,quality=qv_kept_quality(quality) where rowid=? and hashID=?",
    "update DAValue set value=?,quality=? where rowid=? and hashID=?",
    "update DAValue set value=?,quality=?,timestamp=? where rowid=? and hashID=?"};
const char* const kUpdateWithRowSql[kSaveForms] = {
    "update DAValue set value=? where hashID=? returning quality,rowid",
    "update DAValue set value=?,quality=? where hashID=? returning quality,rowid",
    "update DAValue set value=?,quality=?,timestamp=? where hashID=? returning quality,rowid"};
const char* const kUpdateTimedByKeySql =
    "update DAValue set value=?,quality=?,timestamp=? where hashID=?";
sqlite3_stmt** const rowStatements[] = {
    &s_selectByRow,      &s_selectWithRow,    &s_updateByRow[0],   &s_updateByRow[1],
    &s_updateByRow[2],   &s_updateWithRow[0], &s_updateWithRow[1], &s_updateWithRow[2],
    &s_updateTimedByKey, &s_selectTimedByKey};
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

// 0 the value alone, 1 with the quality, 2 with the quality and the time
// (the timed saves always give a quality).
int saveForm(const ValueIn& in) {
    if (in.timestamp > 0) return 2;
    return in.quality != nullptr ? 1 : 0;
}

// Binds the value, and the quality and the time when given, as the first
// parameters; returns the index of the next one.
int bindSaved(sqlite3_stmt* stmt, const ValueIn& in) {
    sqlite3_bind_double(stmt, 1, in.value);
    if (in.quality == nullptr) return 2;
    sqlite3_bind_int(stmt, 2, *in.quality);
    if (in.timestamp <= 0) return 3;
    sqlite3_bind_double(stmt, 3, in.timestamp);
    return 4;
}

// Tells the feed of a row that an update by key returned (its quality in
// column 0): true.
bool noteRow(sqlite3_stmt* row, sqlite3_int64 key, const ValueIn& in) {
    qvfeed::noteChange(static_cast<unsigned int>(key), in.value, sqlite3_column_int(row, 0),
                       in.timestamp);
    return true;
}

// qv_kept_quality(q) keeps q for the feed and gives it back unchanged; the
// plain save by rowid calls it on the one row it writes. Used under the
// store lock only.
int s_keptQuality = 0;
bool s_keptQualityRegistered = false;

void keepQuality(sqlite3_context* context, int, sqlite3_value** arguments) {
    s_keptQuality = sqlite3_value_int(arguments[0]);
    sqlite3_result_value(context, arguments[0]);
}

// Registered once per connection, before the statement that uses it is
// prepared; a failure shows as that prepare's.
void registerKeptQuality() {
    if (s_keptQualityRegistered) return;
    s_keptQualityRegistered =
        sqlite3_create_function_v2(s_sqliteDB, "qv_kept_quality", 1,
                                   SQLITE_UTF8 | SQLITE_DIRECTONLY, nullptr, keepQuality, nullptr,
                                   nullptr, nullptr) == SQLITE_OK;
}

// Tells the feed of the row that a save by rowid changed.
void noteSavedRow(sqlite3_int64 key, const ValueIn& in) {
    const int quality = in.quality != nullptr ? *in.quality : s_keptQuality;
    qvfeed::noteChange(static_cast<unsigned int>(key), in.value, quality, in.timestamp);
}

// Saves at the row where the key was found before, if it still holds the
// key: 0 saved, -1 not there (save by key), -2 failed.
int saveRememberedRow(sqlite3_int64 key, const ValueIn& in) {
    const auto remembered = s_rowOfKey.find(key);
    if (remembered == s_rowOfKey.end()) return -1;
    sqlite3_stmt* const stmt = s_updateByRow[saveForm(in)];
    const int index = bindSaved(stmt, in);
    sqlite3_bind_int64(stmt, index, remembered->second);
    sqlite3_bind_int64(stmt, index + 1, key);
    const int rc = stepWithBusyRetry(stmt);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return -2;
    if (sqlite3_changes(s_sqliteDB) == 1) {
        noteSavedRow(key, in);
        return 0;
    }
    s_rowOfKey.erase(remembered);
    return -1;
}

// Saves by key and remembers the row it changed: 0, 1 when no row has the
// key, -2 failed.
int saveAndRememberRow(sqlite3_int64 key, const ValueIn& in) {
    sqlite3_stmt* const stmt = s_updateWithRow[saveForm(in)];
    const int index = bindSaved(stmt, in);
    sqlite3_bind_int64(stmt, index, key);
    int rc;
    bool changed = false;
    while ((rc = stepWithBusyRetry(stmt)) == SQLITE_ROW) {
        rememberRow(key, sqlite3_column_int64(stmt, 1));
        changed = noteRow(stmt, key, in);
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
    if (out.timestamp != nullptr) *out.timestamp = sqlite3_column_double(row, 2);
}

// Steps a read of value and quality: 0 with the row taken, -1 without a row,
// -2 after a failed step (reported).
int stepRead(sqlite3_stmt* stmt, ValueOut out) {
    const int rc = stepWithBusyRetry(stmt);
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
    const int rc = stepWithBusyRetry(s_selectByRow);
    if (rc == SQLITE_ROW &&
        sqlite3_column_int64(s_selectByRow, 3) == key) {
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
    if (result == 0) rememberRow(key, sqlite3_column_int64(s_selectWithRow, 3));
    sqlite3_reset(s_selectWithRow);
    return result;
}

// A timed save or read without the lock uses its own statement by key,
// prepared on first use; null when that fails (reported).
sqlite3_stmt* timedByKey(sqlite3_stmt*& slot, const char* sql) {
    if (keptStatement(slot, sql) == SQLITE_OK) return slot;
    printPrepareError();
    return nullptr;
}

}  // namespace

double timeOfSave(double given) {
    if (given > 0) return given;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The remembered rows are used only under the store lock (the map has no
// lock of its own) and once both statements are prepared.
int saveKey(sqlite3_int64 key, ValueIn in, sqlite3_stmt* byKey, bool lockHeld) {
    const int form = saveForm(in);
    if (lockHeld) registerKeptQuality();
    if (lockHeld && rowStatementsReady(s_updateByRow[form], kUpdateByRowSql[form],
                                       s_updateWithRow[form], kUpdateWithRowSql[form])) {
        const int result = saveRememberedRow(key, in);
        return result == -1 ? saveAndRememberRow(key, in) : result;
    }
    if (form == 2 && (byKey = timedByKey(s_updateTimedByKey, kUpdateTimedByKeySql)) == nullptr)
        return -2;
    const int index = bindSaved(byKey, in);
    sqlite3_bind_int64(byKey, index, key);
    const int rc = stepWithBusyRetry(byKey);
    if (rc != SQLITE_DONE) printStepError();
    sqlite3_reset(byKey);
    if (rc != SQLITE_DONE) return -2;
    if (sqlite3_changes(s_sqliteDB) == 0) return 1;
    // Saved without telling the feed what: its readers must re-read.
    qvfeed::noteLoss();
    return 0;
}

int readKey(sqlite3_int64 key, ValueOut out, sqlite3_stmt* byKey, bool lockHeld) {
    if (lockHeld &&
        rowStatementsReady(s_selectByRow, kSelectByRowSql, s_selectWithRow, kSelectWithRowSql)) {
        const int result = readRememberedRow(key, out);
        return result == -1 ? readAndRememberRow(key, out) : result;
    }
    if (out.timestamp != nullptr &&
        (byKey = timedByKey(s_selectTimedByKey, kSelectTimedByKeySql)) == nullptr)
        return -2;
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
    s_keptQualityRegistered = false;
}

}  // namespace qvreal
