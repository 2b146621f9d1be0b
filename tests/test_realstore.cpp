// Real-time store: connection lifecycle, row keys, single values and a full
// file system. The store lock across processes is exercised in
// test_stress.cpp, bounded data-set reads in test_bounded_lists.cpp.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "faults.h"
#include "qvconf.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "qvtool_run.h"

using namespace qvtest;
using testing::HasSubstr;

namespace {

void addValueRow(const std::string& reference, double value = 0.0, int quality = 0) {
    execSql(realDbPath(), "insert into DAValue(hashID,type,value,quality,timestamp) values(" +
                              std::to_string(rowKey(reference)) + ",1," + std::to_string(value) +
                              "," + std::to_string(quality) + ",0)");
}

const char* const kRef = "IED1LD0/MMXU1$MX$TotW$mag$f";

}  // namespace

TEST(RSHash, MatchesTheKnownKeys) {
    EXPECT_EQ(RSHash("", 0), 0u);
    EXPECT_EQ(RSHash("a", 1), 97u);
    EXPECT_EQ(RSHash("abc", 3), 2969643692u);
    EXPECT_EQ(RSHash("\xE9", 1), 4294967273u);  // bytes above 0x7F count as negative chars
    EXPECT_EQ(RSHash("abcdef", 3), 2969643692u);  // only the first len bytes count
    EXPECT_NE(RSHash("a\0b", 3), RSHash("a", 1));  // a zero byte inside counts too
}

class RealStore : public RealStoreTest {};

// Each save read back through all four reads: ints and doubles convert (cut
// toward zero), and the saves without a quality keep the stored one. The row
// key, 4294967273, would be negative if bound as an int32. An unknown
// reference saves nothing (quietly, result 0) and reads nothing.
TEST_F(RealStore, SavesAndReadsConvertKeepTheQualityAndIgnoreUnknownReferences) {
    constexpr const char* ref = "\xE9";
    addValueRow(ref);
    addValueRow(kRef, 9.0);
    const struct {
        int (*save)();
        double value;
        int asInt, quality;
    } steps[] = {
        {[] { return zq_saveDoubDAValue1(ref, 1.25, 0x40); }, 1.25, 1, 0x40},
        {[] { return zq_saveIntDAValueValue(ref, 5); }, 5, 5, 0x40},
        {[] { return zq_saveDoubDAValue(ref, 2.7); }, 2.7, 2, 0x40},
        {[] { return zq_saveDoubDAValue(ref, -2.7); }, -2.7, -2, 0x40},
        {[] { return zq_saveIntDAValueValue1(ref, INT_MIN, 3); }, INT_MIN, INT_MIN, 3},
    };
    for (const auto& step : steps) {
        ASSERT_EQ(step.save(), 0) << step.value;
        double d = 0, d1 = 0;
        int i = 0, i1 = 0, dq = 0, iq = 0;
        ASSERT_EQ(zq_getDoubDAValue(ref, &d) | zq_getDoubDAValue1(ref, &d1, &dq), 0);
        ASSERT_EQ(zq_getIntDAValue(ref, &i) | zq_getIntDAValue1(ref, &i1, &iq), 0);
        EXPECT_TRUE(d == step.value && d1 == step.value && dq == step.quality) << step.value;
        EXPECT_TRUE(i == step.asInt && i1 == step.asInt && iq == step.quality) << step.value;
    }
    double value = 42.0;
    int quality = 42;
    CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue("IED1LD0/NOPE$MX$x", 1.0), 0);
    // Letter case and a trailing blank name other rows.
    EXPECT_EQ(zq_getDoubDAValue("ied1LD0/MMXU1$MX$TotW$mag$f", &value), -1);
    EXPECT_EQ(zq_getDoubDAValue1((std::string(kRef) + " ").c_str(), &value, &quality), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_TRUE(value == 42.0 && quality == 42);
    EXPECT_EQ(query(realDbPath(), "select hashID,value,quality from DAValue order by rowid"),
              (Rows{{"4294967273", "-2147483648.0", "3"}, {std::to_string(rowKey(kRef)), "9.0", "0"}}));
}

// Reads and saves go first to the row where a key was found before: rows
// that another process moved, swapped or removed since must not mislead them.
TEST_F(RealStore, ValuesFollowRowsThatMovedOrWentAway) {
    const char* const other = "IED1LD0/MMXU1$MX$Hz$mag$f";
    addValueRow(kRef, 1.0, 1);
    addValueRow(other, 2.0, 2);
    double value = 0;
    int quality = 0;
    ASSERT_EQ(zq_getDoubDAValue1(kRef, &value, &quality), 0);  // both rows remembered:
    ASSERT_EQ(zq_saveDoubDAValue1(other, 2.0, 2), 0);         // by a read, by a save
    // The two rows swap places, as a reload writing them in another order would.
    ASSERT_EQ(query(realDbPath(), "select rowid from DAValue order by rowid"),
              (Rows{{"1"}, {"2"}}));
    execSql(realDbPath(), "update DAValue set rowid=-rowid; update DAValue set rowid=3+rowid; "
                          "update DAValue set value=value*10, quality=quality*10");
    ASSERT_EQ(zq_saveDoubDAValue(kRef, 11.0), 0);
    ASSERT_EQ(zq_getDoubDAValue1(other, &value, &quality), 0);
    EXPECT_EQ(value, 20.0);
    EXPECT_EQ(quality, 20);
    ASSERT_EQ(zq_saveDoubDAValue1(other, 21.0, 21), 0);
    ASSERT_EQ(zq_getDoubDAValue1(kRef, &value, &quality), 0);
    EXPECT_EQ(value, 11.0);
    EXPECT_EQ(quality, 10);
    EXPECT_EQ(queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                         std::to_string(rowKey(other))),
              21);
    // Gone: the read finds nothing and the save changes nothing; back in a new row.
    execSql(realDbPath(), "delete from DAValue where hashID=" + std::to_string(rowKey(kRef)));
    value = -1;
    EXPECT_EQ(zq_getDoubDAValue(kRef, &value), -1);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(zq_saveDoubDAValue(kRef, 4.0), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 1);
    addValueRow(kRef, 3.0, 3);
    EXPECT_EQ(zq_getDoubDAValue1(kRef, &value, &quality), 0);
    EXPECT_EQ(value, 3.0);
}

TEST(RealStoreConnection, ClosedTwiceFailedReopenedAndNullArguments) {
    zq_closeRealDB();
    removeStore(realDbPath());
    EXPECT_EQ(zq_closeRealDB(), 0);  // closing a closed store is harmless
    // Without a store the open fails, leaving nothing half-open nor a file made.
    CaptureStderr();
    EXPECT_EQ(zq_openRealDB(), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_openRealDB: " + realDbPath() + " does not exist: create it with qvtool init\n");
    EXPECT_NE(access(realDbPath().c_str(), F_OK), 0);
    freshRealStore();
    ASSERT_EQ(zq_openRealDB(), 0);
    addValueRow(kRef, 4.0);
    // A second open keeps the connection and leaves a taken lock taken.
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    locksem(semid);
    EXPECT_EQ(zq_openRealDB(), 0);
    EXPECT_EQ(storeLockValue(), 0);
    unlocksem(semid);
    CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue(nullptr, 1), -1);
    EXPECT_EQ(zq_getDoubDAValue(kRef, nullptr), -1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("a required argument is null"));
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
    ASSERT_EQ(tool({"init", "--fresh"}).code, 0);
    EXPECT_EQ(query(realDbPath(), mode), (Rows{{"wal"}}));
    freshRealStore();
    EXPECT_EQ(query(realDbPath(), mode), (Rows{{"wal"}}));
    execSql(realDbPath(), mode + "=DELETE");
    ASSERT_EQ(zq_openRealDB(), 0);
    EXPECT_EQ(query(realDbPath(), mode), (Rows{{"wal"}}));
    // A reader in the way: the switch fails, the store works as it is.
    openRealStoreInRollbackMode();
    EXPECT_EQ(query(realDbPath(), mode), (Rows{{"delete"}}));
    addValueRow(kRef, 1.0);
    DaNameRow names[1] = {};
    std::strcpy(names[0], kRef);
    const double values[1] = {2.5};
    double value = 0;
    EXPECT_EQ(zq_saveDAValues(names, values, 1), 0);
    EXPECT_EQ(zq_getDAValues(names, 1, &value), 0);
    EXPECT_EQ(value, 2.5);
    zq_closeRealDB();
}

// The connection has no mutex of its own: threads stay apart only through the
// store lock, so a lock removed under a running process must come back.
TEST_F(RealStore, ALockRemovedUnderThreadsIsMadeAnew) {
    constexpr int kThreads = 4, kOps = 3000;
    std::vector<std::string> refs;
    for (int t = 0; t < kThreads; ++t) {
        refs.push_back("IED1LD0/GGIO1$ST$Ind" + std::to_string(t) + "$stVal");
        addValueRow(refs.back());
    }
    removeStoreLock();
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 1; i <= kOps; ++i) {
                double value = 0;
                int quality = 0;
                if (zq_saveDoubDAValue1(refs[t].c_str(), i, t) != 0 ||
                    zq_getDoubDAValue1(refs[t].c_str(), &value, &quality) != 0 || value != i ||
                    quality != t)
                    ++failures[t];
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
    EXPECT_EQ(storeLockValue(), 1);
}

// ---- Faults: damaged store files, and every kind of write on a full disk ----

// A store file of either store that is no database, is empty or is read-only:
// the open or the first query fails with SQLite's cause, a write fails, the
// lock stays free, and a read-only store still reads. (Read-only comes last:
// without root it is skipped.)
TEST(StoreFaults, ADamagedStoreFileFailsWithTheCause) {
    const struct {
        Damage damage;
        int opened;
        const char *realCause, *confCause;
        int code;  // of the last, the configuration store's, failure
    } cases[] = {{Damage::Garbage, -1, "sqlite3_prepare_v2 err file is not a database\n",
                  "sqlite3_prepare_v2 err file is not a database\n", QV_ERR_CORRUPT},
                 {Damage::Empty, -1, "has no model tables: create it with qvtool init\n",
                  "sqlite3_prepare_v2 err no such table: ProcessConfig\n", QV_ERR_CORRUPT},
                 {Damage::ReadOnly, 0, "sqlite3_step err attempt to write a readonly database\n",
                  "sqlite3_step err attempt to write a readonly database\n", QV_ERR_PERMISSION}};
    const ProcessMisc update{"port", "2405", "moved port"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.realCause);
        zq_closeRealDB();
        freshRealStore();
        addValueRow(kRef, 3.0);
        openSampleConfStore();
        zq_closeConfDB();
        DamagedStore damagedReal(realDbPath(), c.damage), damagedConf(confDbPath(), c.damage);
        if (!damagedReal.done() || !damagedConf.done())
            GTEST_SKIP() << "a read-only bind mount needs root";
        double value = 0;
        int processes = -1;
        CaptureStderr();
        EXPECT_EQ(zq_openRealDB(), c.opened);
        EXPECT_EQ(zq_saveDoubDAValue(kRef, 1.0), -1);
        EXPECT_EQ(zq_getDoubDAValue(kRef, &value), c.opened);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr(c.realCause));
        EXPECT_EQ(value, c.opened == 0 ? 3.0 : 0.0);
        EXPECT_EQ(storeLockValue(), 1);
        CaptureStderr();
        EXPECT_EQ(zq_openConfDB(), 0);  // SQLite reads the file at the first query
        EXPECT_EQ(zq_getAllProcessConfigsNum(&processes), c.opened);
        EXPECT_EQ(processes, c.opened == 0 ? 4 : 0);
        EXPECT_EQ(zq_setProcessMiscValue("qv104 -p 2404", "port", &update), -1);
        EXPECT_EQ(zq_lastErrorCode(), c.code);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr(c.confCause));
        zq_closeRealDB();
        zq_closeConfDB();
    }
}

// Each kind of write, to either store (both live in the store directory), on
// a full disk: -1 with the cause in one line, every row of both stores as it was, the lock
// free; once there is room the same write goes through.
TEST(RealStoreFull, EveryKindOfWriteFailsWholeWithTheCauseAndWorksOnceThereIsRoom) {
    static const double values[3] = {1, 2, 3};
    static const int qualities[3] = {4, 5, 6};
    static const LTUInfor terminals[2] = {{2, "QS1", "QH1", "SS1", "SH1", "T2", "10.0.0.2", 0, 1, ""},
                                          {3, "QS1", "QH1", "SS1", "SH1", "T3", "10.0.0.3", 0, 1, ""}};
    static const LTUAccess entry{"2024-05-02", "dev2", 2, "feeder 8", "k2", "V2"};
    static const TopoInfor node{2, "switch", "QS2", "QS2", "QS1", "", 1, "FAULT", "North"};
    static const ProcessMisc setting{"port", "2405", "moved port"};
    static const DaNameRow members[3] = {"FAULTLD0/GGIO1$ST$Ind1$stVal", "FAULTLD0/GGIO1$ST$Ind2$stVal",
                                         "FAULTLD0/GGIO1$ST$Ind3$stVal"};
    const std::pair<const char*, int (*)()> writes[] = {
        {"single", [] { return zq_saveDoubDAValue1(kRef, 7.5, 3); }},
        {"list", [] { return zq_saveDAValues(members, values, 3); }},
        {"data set", [] { return zq_saveDAValues1ByDataSet("FAULT", "dsFault", values, qualities, 3); }},
        {"terminal", [] { return zq_addLTUInfor(terminals); }},
        {"terminals", [] { return zq_addLTUInfors(terminals, 2); }},
        {"terminal update", [] { return zq_setLTUInforByName("T1", terminals); }},
        {"access entry", [] { return zq_addLTUAccess(&entry); }},
        {"topology node", [] { return zq_addTopoInfor(&node); }},
        {"setting", [] { return zq_setProcessMiscValue("qv104 -p 2404", "port", &setting); }},
    };
    const auto allRows = [] {
        Rows rows = query(confDbPath(), "select * from ProcessMisc");
        for (const std::string table : {"DAValue", "LTUInfor", "ltu_access_list", "TopoInfor"}) {
            const Rows more = query(realDbPath(), "select * from " + table + " order by rowid");
            rows.insert(rows.end(), more.begin(), more.end());
        }
        return rows;
    };
    for (const auto& [name, write] : writes) {
        SCOPED_TRACE(name);
        zq_closeRealDB();
        zq_closeConfDB();
        SmallStoreDir dir;
        if (!dir.mounted()) GTEST_SKIP() << "mounting a small tmpfs needs root";
        freshRealStore();
        freshConfStore();
        execSqlFile(confDbPath(), sourcePath("samples/conf_sample.sql"));
        execSqlFile(realDbPath(), dataPath("fault_rows.sql"));
        ASSERT_EQ(zq_openRealDB() | zq_openConfDB(), 0);
        const Rows before = allRows();
        dir.fill();
        CaptureStderr();
        EXPECT_EQ(write(), -1);
        EXPECT_EQ(zq_lastErrorCode(), QV_ERR_FULL);
        const std::string err = GetCapturedStderr();
        EXPECT_THAT(err, HasSubstr("database or disk is full"));
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_EQ(storeLockValue(), 1);
        EXPECT_EQ(allRows(), before);
        dir.makeRoom();
        EXPECT_EQ(write(), 0);
        EXPECT_NE(allRows(), before);
        zq_closeRealDB();
        zq_closeConfDB();
    }
}
