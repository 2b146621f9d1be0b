// Test support: the private stores of the test build and plain SQLite access
// to them, so tests can prepare rows and check exactly what the library wrote.
#ifndef QVTEST_SUPPORT_H
#define QVTEST_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace qvtest {

using Rows = std::vector<std::vector<std::string>>;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::string realDbPath();
std::string confDbPath();
std::string sourcePath(const std::string& relative);  // a file of the source tree
std::string dataPath(const std::string& name);        // a file of tests/data
std::string storeFile(const std::string& name);       // a file beside the test stores
std::string fileText(const std::string& path);

// Runs SQL (one or more statements) on a database file; fails the test on error
// and says whether it ran. The SQL may call rowkey(reference): the row key of
// a DA reference.
bool execSql(const std::string& dbPath, const std::string& sql);
void execSqlFile(const std::string& dbPath, const std::string& sqlFile);

// Every row of a query, each column as text ("NULL" for a NULL column).
Rows query(const std::string& dbPath, const std::string& sql);
long long queryInt(const std::string& dbPath, const std::string& sql);

// Runs op while another connection holds the database exclusively; the holder
// lets go once op has printed a line on stdout. Returns what op printed by
// then and op's result in `result`.
std::string stdoutWhileHeld(const std::string& dbPath, const std::function<int()>& op,
                            int& result);

// The store lock's semaphore value: 1 free, 0 taken, -1 no semaphore yet.
int storeLockValue();

// Removes the store lock's semaphore set, so that the next zq_openRealDB
// creates it afresh, free, whatever an earlier run left in it.
void removeStoreLock();

// The row key of a DA reference, as the library binds it.
long long rowKey(const std::string& reference);

// A record whose every byte is `byte`: zero to compare records byte for byte,
// a pattern to see that an operation left a record alone.
template <typename Record>
Record filledRecord(unsigned char byte) {
    Record record;
    std::memset(&record, byte, sizeof record);
    return record;
}

// The fields of a record as one text, `separator` between them.
template <typename... Fields>
std::string joined(const char* separator, const Fields&... fields) {
    std::ostringstream text;
    const char* between = "";
    ((text << between << fields, between = separator), ...);
    return text.str();
}

// Removes a store file and its journals.
void removeStore(const std::string& dbPath);

// Empty stores created from the shipped schema files.
void freshRealStore();
void freshConfStore();
// The library's connection on a fresh configuration store holding the sample
// gateway's configuration.
void openSampleConfStore();

// Opens the library's connection on the real-time store with the store in
// rollback-journal mode: the library's switch to the write-ahead log fails
// while another connection is reading, and the store keeps its mode.
void openRealStoreInRollbackMode();
// The same for any store, closed and opened by the library's two operations.
void openInRollbackMode(const std::string& dbPath, int (*close)(), int (*open)());

// A fresh real-time store, opened by the library for the test's length.
class RealStoreTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace qvtest

#endif  // QVTEST_SUPPORT_H
