// Real-time store: connection lifecycle, row keys, single values and the
// inter-process store lock.
#include <poll.h>
#include <sqlite3.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::query;
using qvtest::queryInt;
using qvtest::realDbPath;
using qvtest::storeLockValue;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

void addValueRow(const std::string& reference, double value = 0.0, int quality = 0) {
    execSql(realDbPath(), "insert into DAValue(hashID,type,value,quality,timestamp) values(" +
                              std::to_string(qvtest::rowKey(reference)) + ",1," + std::to_string(value) +
                              "," + std::to_string(quality) + ",0)");
}

const char* const kRef = "IED1LD0/MMXU1$MX$TotW$mag$f";

}  // namespace

TEST(RSHash, MatchesTheKnownKeys) {
    EXPECT_EQ(RSHash("", 0), 0u);
    EXPECT_EQ(RSHash("a", 1), 97u);
    EXPECT_EQ(RSHash("abc", 3), 2969643692u);
    // Bytes above 0x7F count as negative signed chars.
    EXPECT_EQ(RSHash("\xE9", 1), 4294967273u);
    // Only the first len bytes count; no terminator check inside.
    EXPECT_EQ(RSHash("abcdef", 3), 2969643692u);
    EXPECT_EQ(RSHash("a\0b", 3), RSHash(std::string("a\0b", 3).data(), 3));
    EXPECT_NE(RSHash("a\0b", 3), RSHash("a", 1));
}

class RealStore : public qvtest::RealStoreTest {};

TEST_F(RealStore, KeysAboveTwoToThe31AreBoundAsNonNegative) {
    const char* ref = "\xE9";  // RSHash 4294967273: negative if bound as int32
    addValueRow(ref, 0.0);
    ASSERT_EQ(zq_saveDoubDAValue1(ref, 12.5, 7), 0);
    EXPECT_EQ(query(realDbPath(), "select value,quality from DAValue where hashID=4294967273"),
              (qvtest::Rows{{"12.5", "7"}}));
    double value = 0;
    int quality = 0;
    ASSERT_EQ(zq_getDoubDAValue1(ref, &value, &quality), 0);
    EXPECT_EQ(value, 12.5);
    EXPECT_EQ(quality, 7);
}

TEST_F(RealStore, ValuesConvertBetweenIntAndDouble) {
    addValueRow(kRef);
    double d = 0;
    int i = 0;
    ASSERT_EQ(zq_saveIntDAValueValue(kRef, 5), 0);
    ASSERT_EQ(zq_getDoubDAValue(kRef, &d), 0);
    EXPECT_EQ(d, 5.0);
    ASSERT_EQ(zq_saveDoubDAValue(kRef, 2.7), 0);
    ASSERT_EQ(zq_getIntDAValue(kRef, &i), 0);
    EXPECT_EQ(i, 2);
    ASSERT_EQ(zq_saveDoubDAValue(kRef, -2.7), 0);
    ASSERT_EQ(zq_getIntDAValue(kRef, &i), 0);
    EXPECT_EQ(i, -2);
    ASSERT_EQ(zq_saveIntDAValueValue1(kRef, -2147483647 - 1, 3), 0);
    int quality = 0;
    ASSERT_EQ(zq_getIntDAValue1(kRef, &i, &quality), 0);
    EXPECT_EQ(i, -2147483647 - 1);
    EXPECT_EQ(quality, 3);
}

TEST_F(RealStore, PlainSaveKeepsTheQuality) {
    addValueRow(kRef);
    double value = -1;
    int quality = -1;
    ASSERT_EQ(zq_getDoubDAValue1(kRef, &value, &quality), 0);
    EXPECT_EQ(value, 0.0);
    EXPECT_EQ(quality, 0);
    ASSERT_EQ(zq_saveDoubDAValue1(kRef, 1.25, 0x40), 0);
    ASSERT_EQ(zq_saveDoubDAValue(kRef, 3.5), 0);
    ASSERT_EQ(zq_getDoubDAValue1(kRef, &value, &quality), 0);
    EXPECT_EQ(value, 3.5);
    EXPECT_EQ(quality, 0x40);
}

TEST_F(RealStore, UnknownReferenceSavesNothingAndReadsNothing) {
    addValueRow(kRef, 9.0);
    CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue("IED1LD0/NOPE$MX$x", 1.0), 0);
    double value = 42.0;
    int quality = 42;
    // Letter case and a trailing blank name other rows.
    EXPECT_EQ(zq_getDoubDAValue("ied1LD0/MMXU1$MX$TotW$mag$f", &value), -1);
    EXPECT_EQ(zq_getDoubDAValue1((std::string(kRef) + " ").c_str(), &value, &quality), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(value, 42.0);
    EXPECT_EQ(quality, 42);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value=9.0"), 1);
}

TEST_F(RealStore, StepFailureReportsAndReleasesTheLock) {
    addValueRow(kRef);
    execSql(realDbPath(), "drop table DAValue");
    CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue(kRef, 1.0), -1);
    double value = 0;
    EXPECT_EQ(zq_getDoubDAValue(kRef, &value), -1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("sqlite3_step err no such table: DAValue"));
    EXPECT_EQ(storeLockValue(), 1);
}

TEST(RealStoreConnection, OpenCloseReopen) {
    zq_closeRealDB();
    qvtest::freshRealStore();
    EXPECT_EQ(zq_closeRealDB(), 0);  // closing a closed store is harmless
    ASSERT_EQ(zq_openRealDB(), 0);
    addValueRow(kRef, 4.0);
    // A second open keeps the connection and leaves a taken lock taken.
    locksem(semget(QV_SEM_KEY, 1, 0666));
    EXPECT_EQ(storeLockValue(), 0);
    EXPECT_EQ(zq_openRealDB(), 0);
    EXPECT_EQ(storeLockValue(), 0);
    unlocksem(semget(QV_SEM_KEY, 1, 0666));
    EXPECT_EQ(storeLockValue(), 1);
    EXPECT_EQ(zq_closeRealDB(), 0);
    EXPECT_EQ(zq_closeRealDB(), 0);
    ASSERT_EQ(zq_openRealDB(), 0);
    double value = 0;
    EXPECT_EQ(zq_getDoubDAValue(kRef, &value), 0);
    EXPECT_EQ(value, 4.0);
    zq_closeRealDB();
}

TEST(RealStoreConnection, OpenSwitchesTheStoreToTheWriteAheadLogWhenItCan) {
    const std::string mode = "PRAGMA journal_mode";
    zq_closeRealDB();
    // Both the schema and the tool's init create the store in the log.
    ASSERT_EQ(std::system(QV_TOOL " init --fresh >/dev/null"), 0);
    EXPECT_EQ(query(realDbPath(), mode), (qvtest::Rows{{"wal"}}));
    qvtest::freshRealStore();
    EXPECT_EQ(query(realDbPath(), mode), (qvtest::Rows{{"wal"}}));
    execSql(realDbPath(), mode + "=DELETE");
    ASSERT_EQ(zq_openRealDB(), 0);
    EXPECT_EQ(query(realDbPath(), mode), (qvtest::Rows{{"wal"}}));
    // A reader in the way: the switch fails, the store works as it is.
    qvtest::openRealStoreInRollbackMode();
    EXPECT_EQ(query(realDbPath(), mode), (qvtest::Rows{{"delete"}}));
    addValueRow(kRef, 1.0);
    DaNameRow names[1] = {};
    std::snprintf(names[0], sizeof names[0], "%s", kRef);
    const double values[1] = {2.5};
    double value = 0;
    EXPECT_EQ(zq_saveDAValues(names, values, 1), 0);
    EXPECT_EQ(zq_getDAValues(names, 1, &value), 0);
    EXPECT_EQ(value, 2.5);
    zq_closeRealDB();
}

TEST(RealStoreConnection, OpenWithoutModelTablesFailsThenRetries) {
    zq_closeRealDB();
    qvtest::removeStore(realDbPath());
    CaptureStderr();
    EXPECT_EQ(zq_openRealDB(), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_prepare_v2 err no such table: DAValue\n");
    // The failed open left nothing half-open: once the tables exist, it opens.
    qvtest::freshRealStore();
    ASSERT_EQ(zq_openRealDB(), 0);
    addValueRow(kRef, 1.5);
    double value = 0;
    EXPECT_EQ(zq_getDoubDAValue(kRef, &value), 0);
    EXPECT_EQ(value, 1.5);
    zq_closeRealDB();
}

TEST(RealStoreConnection, ClosedStoreAndNullArgumentsAreRefused) {
    zq_closeRealDB();
    int i = 5;
    int q = 5;
    CaptureStderr();
    EXPECT_EQ(zq_saveIntDAValueValue1(kRef, 1, 1), -1);
    EXPECT_EQ(zq_getIntDAValue1(kRef, &i, &q), -1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("zq_getIntDAValue1: the real-time store is not open"));
    EXPECT_EQ(i, 5);
    qvtest::freshRealStore();
    ASSERT_EQ(zq_openRealDB(), 0);
    CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue(nullptr, 1), -1);
    EXPECT_EQ(zq_getDoubDAValue(kRef, nullptr), -1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("a required argument is null"));
    EXPECT_EQ(storeLockValue(), 1);
    zq_closeRealDB();
}

// ---- The store lock across processes ----------------------------------------

namespace {

// Adds one to the value under the library's store lock, by read-modify-write
// on a connection of the child's own: without the lock, updates get lost.
void incrementUnderStoreLock(int semid, sqlite3* db, long long rowKey) {
    locksem(semid);
    sqlite3_stmt* read = nullptr;
    sqlite3_prepare_v2(db, "select value from DAValue where hashID=?", -1, &read, nullptr);
    sqlite3_bind_int64(read, 1, rowKey);
    sqlite3_step(read);
    const double value = sqlite3_column_double(read, 0);
    sqlite3_finalize(read);
    usleep(50);  // widen the window a missing lock would leave open
    const std::string update = "update DAValue set value=" + std::to_string(value + 1) +
                               " where hashID=" + std::to_string(rowKey);
    sqlite3_exec(db, update.c_str(), nullptr, nullptr, nullptr);
    unlocksem(semid);
}

}  // namespace

TEST(StoreLock, ForkedIncrementersLoseNoUpdate) {
    zq_closeRealDB();
    qvtest::freshRealStore();
    addValueRow(kRef, 0.0);
    ASSERT_EQ(zq_openRealDB(), 0);  // creates the semaphore and sets it free
    zq_closeRealDB();               // no connection may cross a fork
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    ASSERT_GE(semid, 0);
    constexpr int kChildren = 4;
    constexpr int kIncrements = 150;
    pid_t children[kChildren];
    for (pid_t& child : children) {
        child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            sqlite3* db = nullptr;
            sqlite3_open(realDbPath().c_str(), &db);
            sqlite3_busy_timeout(db, 10000);
            for (int n = 0; n < kIncrements; ++n) incrementUnderStoreLock(semid, db, qvtest::rowKey(kRef));
            sqlite3_close(db);
            _exit(0);
        }
    }
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ASSERT_EQ(zq_openRealDB(), 0);
    double value = 0;
    ASSERT_EQ(zq_getDoubDAValue(kRef, &value), 0);
    EXPECT_EQ(value, kChildren * kIncrements);
    zq_closeRealDB();
}

TEST(StoreLock, BlockedLockWaitsForUnlock) {
    zq_closeRealDB();
    qvtest::freshRealStore();
    ASSERT_EQ(zq_openRealDB(), 0);
    zq_closeRealDB();
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    locksem(semid);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const pid_t child = fork();
    if (child == 0) {
        locksem(semid);
        const char got = 'L';
        (void)!write(pipeFds[1], &got, 1);
        unlocksem(semid);
        _exit(0);
    }
    pollfd waitForChild{pipeFds[0], POLLIN, 0};
    EXPECT_EQ(poll(&waitForChild, 1, 300), 0) << "the child got a taken lock";
    unlocksem(semid);
    EXPECT_EQ(poll(&waitForChild, 1, 10000), 1) << "the child never got the freed lock";
    int status = 0;
    waitpid(child, &status, 0);
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(storeLockValue(), 1);
}

// ---- Bounded data-set reads ------------------------------------------------------

namespace {

// A member of data set dsB of IED BIED with the value n and the quality 10 n.
void addMember(int n) {
    const std::string reference = "BIEDLD0/GGIO1$ST$Ind" + std::to_string(n) + "$stVal";
    addValueRow(reference, n, 10 * n);
    execSql(realDbPath(), "insert into DataSetSub(fcdaName,iedName,dsName) values('" + reference +
                              "','BIED','dsB')");
}

}  // namespace

// The caller sizes its arrays from the count; another process then adds
// members. The bounded reads fill the arrays only, in member order.
TEST(DataSetValuesBounded, MembersAddedAfterTheCountStayOutsideTheArrays) {
    zq_closeRealDB();
    qvtest::freshRealStore();
    for (int n : {4, 1, 3}) addMember(n);
    ASSERT_EQ(zq_openRealDB(), 0);
    const char* n = nullptr;
    int count = 0;
    ASSERT_EQ(zq_getDataSetSubsByParamsNum("BIED", "dsB", n, n, n, n, n, n, &count), 0);
    ASSERT_EQ(count, 3);
    std::vector<double> values(count);  // on the heap, exactly sized, for the sanitizer
    std::vector<int> qualities(count);

    const pid_t child = fork();
    if (child == 0) {
        for (int m : {2, 6}) addMember(m);
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);

    int written = -1;
    EXPECT_EQ(zq_getDAValues1ByDataSetN("BIED", "dsB", values.data(), qualities.data(), count,
                                        &written), 1);
    EXPECT_EQ(written, 3);
    // The first members in the order in which the member list delivers them.
    DataSetSub subs[5];
    int listed = 0;
    ASSERT_EQ(zq_getDataSetSubsByParams("BIED", "dsB", n, n, n, n, n, n, subs, &listed), 0);
    ASSERT_EQ(listed, 5);
    auto storedValue = [&subs](int i) {
        double stored = -1;
        zq_getDoubDAValue(subs[i].fcdaName, &stored);
        return stored;
    };
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(values[i], storedValue(i)) << i;
        EXPECT_EQ(qualities[i], 10 * storedValue(i)) << i;
    }
    // Room for all: 0 and every member; no room: 1 and nothing written.
    std::vector<double> all(listed);
    EXPECT_EQ(zq_getDAValuesByDataSetN("BIED", "dsB", all.data(), listed, &written), 0);
    EXPECT_EQ(written, listed);
    for (int i = 0; i < listed; ++i) EXPECT_EQ(all[i], storedValue(i)) << i;
    EXPECT_EQ(zq_getDAValuesByDataSetN("BIED", "dsB", nullptr, 0, &written), 1);
    EXPECT_EQ(written, 0);
    zq_closeRealDB();
}

// ---- A full file system -------------------------------------------------------

namespace {

// The store directory on a tmpfs of its own for the test's length.
class SmallTmpfs {
public:
    SmallTmpfs() {
        mkdir(QV_TEST_STORE_DIR, 0755);
        mounted_ = geteuid() == 0 && mount("tmpfs", QV_TEST_STORE_DIR, "tmpfs", 0, "size=1m") == 0;
    }
    ~SmallTmpfs() {
        if (mounted_) umount2(QV_TEST_STORE_DIR, MNT_DETACH);
    }
    bool mounted() const { return mounted_; }

    // Writes a file until the file system has no room left.
    void fill() const {
        const int fd = open(filler().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const std::vector<char> block(4096, 'x');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        close(fd);
    }
    void makeRoom() const { unlink(filler().c_str()); }

private:
    static std::string filler() { return std::string(QV_TEST_STORE_DIR) + "/filler"; }
    bool mounted_ = false;
};

}  // namespace

// A list save that finds no room fails whole, says why in one line and frees
// the lock; once there is room the same save goes through.
TEST(RealStoreFull, ABulkSaveOnAFullFileSystemFailsWholeWithTheCause) {
    zq_closeRealDB();
    SmallTmpfs tmpfs;
    if (!tmpfs.mounted()) GTEST_SKIP() << "mounting a small tmpfs needs root";
    qvtest::freshRealStore();
    constexpr int kRows = 300;
    std::vector<DaNameRow> names(kRows);
    std::vector<double> values(kRows);
    for (int i = 0; i < kRows; ++i) {
        std::snprintf(names[i], sizeof names[i], "FULLLD0/GGIO1$ST$Ind%d$stVal", i);
        addValueRow(names[i]);
        values[i] = i + 1;
    }
    ASSERT_EQ(zq_openRealDB(), 0);
    tmpfs.fill();
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues(names.data(), values.data(), kRows), -1);
    const std::string err = GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("database or disk is full"));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(storeLockValue(), 1);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value<>0"), 0);

    tmpfs.makeRoom();
    EXPECT_EQ(zq_saveDAValues(names.data(), values.data(), kRows), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value<>0"), kRows);
    zq_closeRealDB();
}
