// Single values of the real-time store, saved and read by DA reference under
// the store lock, and the exported row key the references are stored by.
#include <sqlite3.h>

#include "internal/qvrowkey.h"
#include "internal/qvfeed_hooks.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

using namespace qvreal;

unsigned int RSHash(const char* str, unsigned int len) {
    qvreport::succeeded();
    return qvkey::rsHash(str, len);
}

namespace {

// Saves and reads say nothing when the reference has no value row.
void reportNoRow(const char* operation, const char* daName) {
    qvreport::silentFailure(QV_ERR_NO_ROW, "%s: no value row for %.256s\n", operation, daName);
}

// A timed save (in.timestamp positive) uses a statement of its own.
int saveValue(sqlite3_stmt* stmt, const char* daName, ValueIn in, const char* operation) {
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    qvfeed::SaveGroup changes(lock.held());
    const int saved = saveKey(rowKey(daName), in, stmt, lock.held());
    changes.committed();
    if (saved == 1) reportNoRow(operation, daName);
    return saved >= 0 ? 0 : -1;
}

// The value goes to whichever of out.asDouble and out.asInt is given; the
// quality is wanted when the statement reads it, the time by a timed read
// (which reads the quality too).
int readValue(sqlite3_stmt* stmt, const char* daName, ValueOut out, bool timed,
              const char* operation) {
    const bool wantsQuality = stmt == s_stmt_select1;
    if (!argumentGiven(out.asDouble != nullptr ? static_cast<void*>(out.asDouble) : out.asInt,
                       operation) ||
        (wantsQuality && !argumentGiven(out.quality, operation)) ||
        (timed && !argumentGiven(out.timestamp, operation)))
        return -1;
    if (!storeIsOpen(operation) || !argumentGiven(daName, operation)) return -1;
    StoreLock lock;
    const int read = readKey(rowKey(daName), out, stmt, lock.held());
    if (read == -1) reportNoRow(operation, daName);
    return read == 0 ? 0 : -1;
}

}  // namespace

int zq_saveDoubDAValue(const char* daName, double val) {
    return saveValue(s_stmt_update, daName, {val, nullptr, 0}, "zq_saveDoubDAValue");
}

int zq_saveDoubDAValue1(const char* daName, double val, int character) {
    return saveValue(s_stmt_update1, daName, {val, &character, 0}, "zq_saveDoubDAValue1");
}

int zq_saveDoubDAValueT(const char* daName, double val, int character, double timestamp) {
    return saveValue(s_stmt_update1, daName, {val, &character, timeOfSave(timestamp)}, __func__);
}

int zq_saveIntDAValueValue(const char* daName, int val) {
    return saveValue(s_stmt_update, daName, {static_cast<double>(val), nullptr, 0}, __func__);
}

int zq_saveIntDAValueValue1(const char* daName, int val, int character) {
    return saveValue(s_stmt_update1, daName, {static_cast<double>(val), &character, 0}, __func__);
}

int zq_saveIntDAValueValueT(const char* daName, int val, int character, double timestamp) {
    return saveValue(s_stmt_update1, daName,
                     {static_cast<double>(val), &character, timeOfSave(timestamp)}, __func__);
}

int zq_getIntDAValue(const char* daName, int* pValue) {
    return readValue(s_stmt_select, daName, {nullptr, pValue, nullptr, nullptr}, false, __func__);
}

int zq_getIntDAValue1(const char* daName, int* pValue, int* pCharacter) {
    return readValue(s_stmt_select1, daName, {nullptr, pValue, pCharacter, nullptr}, false,
                     __func__);
}

int zq_getIntDAValueT(const char* daName, int* pValue, int* pCharacter, double* pTimestamp) {
    return readValue(s_stmt_select1, daName, {nullptr, pValue, pCharacter, pTimestamp}, true,
                     __func__);
}

int zq_getDoubDAValue(const char* daName, double* pValue) {
    return readValue(s_stmt_select, daName, {pValue, nullptr, nullptr, nullptr}, false, __func__);
}

int zq_getDoubDAValue1(const char* daName, double* pValue, int* pCharacter) {
    return readValue(s_stmt_select1, daName, {pValue, nullptr, pCharacter, nullptr}, false,
                     __func__);
}

int zq_getDoubDAValueT(const char* daName, double* pValue, int* pCharacter, double* pTimestamp) {
    return readValue(s_stmt_select1, daName, {pValue, nullptr, pCharacter, pTimestamp}, true,
                     __func__);
}
