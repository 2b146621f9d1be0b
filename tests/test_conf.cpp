// Configuration store: connection, the query shapes over the sample gateway's
// configuration, and the settings write seen across processes.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "internal/qvconf_internal.h"
#include "process.h"
#include "qvconf.h"
#include "qvtest.h"

using qvtest::confDbPath;
using qvtest::joined;
using Texts = std::vector<std::string>;
using testing::Each;
using testing::ElementsAre;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The sample gateway's configuration, opened by the library.
class ConfStore : public ::testing::Test {
protected:
    void SetUp() override { qvtest::openSampleConfStore(); }
    void TearDown() override { zq_closeConfDB(); }
};

// A record filled with a pattern, to see that an operation left it alone.
template <typename Record>
Record patterned() { return qvtest::filledRecord<Record>(0x5A); }

template <typename Record>
bool untouched(const Record& record) {
    const Record pattern = patterned<Record>();
    return std::memcmp(&record, &pattern, sizeof record) == 0;
}

std::string describe(const ProcessConfig& p) { return joined(" ", p.processName, p.processDescribe); }
std::string describe(const ProcessMsgAssociation& r) {
    return joined(" ", r.sendProcessNo, r.recvProcessNo, r.msgType);
}
std::string describe(const DeviceModelAssociation& a) {
    return joined(" ", a.associateName, a.lineNo, a.dataType, a.dataIndex, a.daName, a.type);
}
std::string describe(const ProcessDataAssociation& a) {
    return joined(" ", a.associateName, a.dataType, a.dataIndex, a.daName, a.scaleNo);
}

// The rows a query fetched into `rows`, as texts; the query must succeed.
template <typename Query, typename Record, size_t N, typename... Args>
Texts fetched(Query query, Record (&rows)[N], Args... args) {
    int count = 0;
    EXPECT_EQ(query(args..., rows, &count), 0);
    Texts texts;
    for (int i = 0; i < count && i < int(N); ++i) texts.push_back(describe(rows[i]));
    return texts;
}

// A query's result code and the count it gave back (77 when it wrote none).
template <typename Query, typename... Args>
std::string counted(Query query, Args... args) {
    int count = 77;
    const int result = query(args..., &count);
    return std::to_string(result) + "/" + std::to_string(count);
}

}  // namespace

TEST_F(ConfStore, ProcessesRoutesAndScales) {
    int no = 0;
    EXPECT_EQ(zq_getProcessNoByName("qv104 -p 2404", &no), 0);
    EXPECT_EQ(no, 2);
    ProcessConfig processes[4];
    EXPECT_THAT(fetched(zq_getAllProcessConfigs, processes),
                ElementsAre("qvacq data acquisition", "qv104 -p 2404 IEC 60870-5-104 converter",
                            "qvctrl switch control", "qvtool watch message monitor"));

    ProcessMsgAssociation routes[2] = {{0, 0, 0}, {-7, -7, -7}};
    // The publisher's cut fetch is no failure and never writes past the table it sized.
    EXPECT_EQ(counted(listRoutesOf, "qvctrl", routes, 1), "0/1");
    EXPECT_EQ(describe(routes[1]), "-7 -7 -7");
    EXPECT_THAT(fetched(zq_getProcessMsgAssociations, routes, "qvctrl"),
                ElementsAre("3 2 64", "3 1 8"));
    EXPECT_EQ(counted(zq_getProcessMsgAssociations, "qvtool watch", routes), "0/0");
    EXPECT_THAT((Texts{counted(zq_getProcessMsgAssociationsNum, "qvnone"),
                       counted(zq_getProcessMsgAssociations, "qvnone", routes)}),
                Each("-1/0"));

    EXPECT_EQ(counted(zq_getScaleConfigsNum), "0/3");
    ScaleConfig scale = patterned<ScaleConfig>();
    ASSERT_EQ(zq_getScaleConfig(2, &scale), 0);
    EXPECT_EQ(joined(" ", scale.name, scale.maxValue, scale.minValue, scale.userMaxValue,
                     scale.userMinValue),
              "phase voltage 65535 0 13.2 0");

    // Missing rows: -1, the record untouched, nothing printed. Names match exactly.
    scale = patterned<ScaleConfig>();
    CaptureStderr();
    EXPECT_EQ(zq_getScaleConfig(9, &scale), -1);
    EXPECT_TRUE(untouched(scale));
    for (const char* other : {"qv104 -p 2404 ", "QVACQ", "qv104", ""}) {
        no = 99;
        EXPECT_EQ(zq_getProcessNoByName(other, &no), -1) << other;
        EXPECT_EQ(no, 99);
    }
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(ConfStore, DeviceModelAssociations) {
    DeviceModelAssociation rows[8];
    EXPECT_EQ(counted(zq_getAllDeviceModelAssociationsNum), "0/8");
    // type comes after daName in the select list but before it in the record.
    EXPECT_EQ(fetched(zq_getAllDeviceModelAssociations, rows).at(7),
              "cabinetAlarm 2 5 1 QVFTU1LD0/GGIO1$ST$Alm$stVal 7");

    // Digital inputs: three rows, indexes 1, 1 and 2 (two distinct).
    EXPECT_EQ(counted(zq_getDeviceInputNumByType, 2), "0/2");
    EXPECT_THAT(fetched(zq_getDeviceModelAssociationsByTypeIndex, rows, 2, 1),
                ElementsAre("breakerPos 1 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                            "breakerPosLine2 2 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3"));
    EXPECT_THAT(fetched(zq_getDeviceModelAssociationsByType, rows, 2),
                ElementsAre("breakerPos 1 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                            "breakerPosLine2 2 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                            "doorContact 1 2 2 QVFTU1LD0/GGIO1$ST$Ind1$stVal 2"));
    DeviceModelAssociation one = patterned<DeviceModelAssociation>();
    ASSERT_EQ(zq_getDeviceModelAssociationByName("switchPos", &one), 0);
    EXPECT_EQ(describe(one), "switchPos 1 3 1 QVFTU1CTRL/CSWI1$ST$Pos$stVal 4");

    // A data type without rows, a name that differs in case.
    EXPECT_THAT((Texts{counted(zq_getDeviceModelAssociationsByTypeNum, 9),
                       counted(zq_getDeviceInputNumByType, 9),
                       counted(zq_getDeviceModelAssociationsByType, 9, rows)}),
                Each("0/0"));
    one = patterned<DeviceModelAssociation>();
    EXPECT_EQ(zq_getDeviceModelAssociationByName("switchpos", &one), -1);
    EXPECT_TRUE(untouched(one));
}

TEST_F(ConfStore, DataPointsOfAProcess) {
    ProcessDataAssociation points[5];
    EXPECT_EQ(counted(zq_getAllProcessDataAssociationsNum, "qvacq"), "0/5");
    EXPECT_THAT(fetched(zq_getProcessDataAssociationsByType, points, "qvacq", 2),
                ElementsAre("BreakerPos 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                            "Ind1 2 2 QVFTU1LD0/GGIO1$ST$Ind1$stVal 3"));
    EXPECT_THAT(fetched(zq_getAllProcessDataAssociations, points, "qv104 -p 2404"),
                ElementsAre("TotW 1 16385 QVFTU1MEAS/MMXU1$MX$TotW$mag$f 1",
                            "BreakerPos 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                            "SwitchCmd 3 24577 QVFTU1CTRL/CSWI1$ST$Pos$stVal 3"));
    ProcessDataAssociation one{};
    ASSERT_EQ(zq_getProcessDataAssociationByTypeIndex("qvacq", 1, 2, &one), 0);
    EXPECT_EQ(describe(one), "Ua 1 2 QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f 2");
    // The same name under two processes: the named process's row.
    ASSERT_EQ(zq_getProcessDataAssociationByName("qv104 -p 2404", "TotW", &one), 0);
    EXPECT_EQ(describe(one), "TotW 1 16385 QVFTU1MEAS/MMXU1$MX$TotW$mag$f 1");

    // A process without data points, and an unknown one.
    EXPECT_EQ(counted(zq_getAllProcessDataAssociations, "qvctrl", points), "0/0");
    EXPECT_EQ(counted(zq_getProcessDataAssociationsByTypeNum, "qvnone", 1), "-1/0");
    one = patterned<ProcessDataAssociation>();
    EXPECT_EQ(zq_getProcessDataAssociationByName("qvnone", "TotW", &one), -1);
    EXPECT_EQ(zq_getProcessDataAssociationByTypeIndex("qvacq", 1, 3, &one), -1);
    EXPECT_TRUE(untouched(one));
}

// Written by a child process; the key argument, not update.key, picks the row.
TEST_F(ConfStore, ASettingWrittenByAnotherProcessIsReadAndEachTextStopsAtItsField) {
    zq_closeConfDB();  // no open connection crosses the fork
    ASSERT_EQ(qvtest::runInChild([] {
        ProcessMisc update{"serialPort", "2405", "moved port"};
        return zq_openConfDB() != 0 || zq_setProcessMiscValue("qv104 -p 2404", "port", &update) != 0;
    }), 0);
    ASSERT_EQ(zq_openConfDB(), 0);
    ProcessMisc misc{};
    ASSERT_EQ(zq_getProcessMiscValue("qv104 -p 2404", "port", &misc), 0);
    EXPECT_EQ(joined(" ", misc.key, misc.value, misc.describe), "port 2405 moved port");

    // A missing key: the write changes nothing, the read leaves the record alone.
    const qvtest::Rows before = qvtest::query(confDbPath(), "select * from ProcessMisc");
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "baud", &misc), 0);
    EXPECT_EQ(qvtest::query(confDbPath(), "select * from ProcessMisc"), before);
    misc = patterned<ProcessMisc>();
    EXPECT_EQ(zq_getProcessMiscValue("qvacq", "baud", &misc), -1);
    EXPECT_TRUE(untouched(misc));

    // Each text of the record is bound up to its field's end, terminated or not.
    misc = qvtest::filledRecord<ProcessMisc>('x');
    ASSERT_EQ(zq_setProcessMiscValue("qv104 -p 2404", "port", &misc), 0);
    EXPECT_EQ(qvtest::query(confDbPath(), "select length(value),length(descripe) from ProcessMisc"
                                          " where key='port'"),
              (qvtest::Rows{{"1023", "127"}}));
}

TEST_F(ConfStore, LongTextsAreCutAndNullTextsAreEmpty) {
    qvtest::execSqlFile(confDbPath(), qvtest::dataPath("long_process_texts.sql"));
    ProcessConfig processes[2];
    EXPECT_THAT(fetched(zq_getAllProcessConfigs, processes),
                ElementsAre(" ", "qvlong " + std::string(127, 'd')));
    ProcessMisc misc{};
    // Process 2, the owner of t1, is now called qvlong.
    ASSERT_EQ(zq_getProcessMiscValue("qvlong", "t1", &misc), 0);
    EXPECT_EQ(misc.value, std::string(1023, 'v'));
}

TEST_F(ConfStore, NullArgumentsAndAClosedStoreAreRefused) {
    int count = 5;
    CaptureStderr();
    EXPECT_EQ(zq_getProcessNoByName(nullptr, &count), -1);
    EXPECT_EQ(zq_getAllProcessDataAssociations("qvacq", nullptr, &count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "period", nullptr), -1);
    EXPECT_EQ(GetCapturedStderr(), "zq_getProcessNoByName: a required argument is null\n"
                                   "zq_getAllProcessDataAssociations: a required argument is null\n"
                                   "zq_setProcessMiscValue: a required argument is null\n");

    // A closed store: the message has the form of a failed prepare.
    EXPECT_EQ(zq_closeConfDB(), 0);
    EXPECT_EQ(zq_closeConfDB(), 0);
    const ProcessMisc misc{};
    CaptureStderr();
    EXPECT_EQ(counted(zq_getProcessMsgAssociationsNum, "qvacq"), "-1/0");
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "period", &misc), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_prepare_v2 err the configuration store is not open "
              "(zq_getProcessMsgAssociationsNum called before zq_openConfDB)\n"
              "sqlite3_prepare_v2 err:the configuration store is not open "
              "(zq_setProcessMiscValue called before zq_openConfDB)\n");
}

TEST_F(ConfStore, AFailedOpenIsTriedAgain) {
    zq_closeConfDB();
    qvtest::removeStore(confDbPath());
    CaptureStderr();  // a missing store is not created
    EXPECT_EQ(zq_openConfDB(), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_NOT_OPEN);
    EXPECT_EQ(GetCapturedStderr(), "no configuration store at " + confDbPath() + "\n");
    EXPECT_NE(access(confDbPath().c_str(), F_OK), 0);
    ASSERT_EQ(mkdir(confDbPath().c_str(), 0755), 0);  // a directory cannot be opened
    CaptureStderr();
    EXPECT_EQ(zq_openConfDB(), -1);
    EXPECT_EQ(GetCapturedStderr(), "Can't open database: unable to open database file\n");
    ASSERT_EQ(rmdir(confDbPath().c_str()), 0);
    qvtest::freshConfStore();
    qvtest::execSql(confDbPath(), "PRAGMA journal_mode=DELETE");  // an older store: switched
    ASSERT_EQ(zq_openConfDB(), 0);
    EXPECT_EQ(counted(zq_getScaleConfigsNum), "0/0");
    EXPECT_EQ(qvtest::query(confDbPath(), "PRAGMA journal_mode"), qvtest::Rows{{"wal"}});
}

// A provisioning write held open: readers, one that has queried and one
// freshly opened, answer at once; the settings writer waits out the bound
// and then says that the store is busy.
TEST_F(ConfStore, ReadersAnswerAtOnceDuringAHeldProvisioningWrite) {
    int no = 0;
    ASSERT_EQ(zq_getProcessNoByName("qvacq", &no), 0);
    sqlite3* provisioning = nullptr;
    ASSERT_EQ(sqlite3_open(confDbPath().c_str(), &provisioning), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(provisioning, "begin immediate; insert into ProcessConfig values(9,'x','')",
                           nullptr, nullptr, nullptr), SQLITE_OK);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(zq_getProcessNoByName("qvacq", &no), 0);
    zq_closeConfDB();
    ASSERT_EQ(zq_openConfDB(), 0);
    EXPECT_EQ(counted(zq_getAllProcessConfigsNum), "0/4");
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(QV_CONF_BUSY_WAIT_MS / 2));
    const ProcessMisc misc{};
    CaptureStderr();
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "period", &misc), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_BUSY);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err database is locked\n");
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(QV_CONF_BUSY_WAIT_MS));
    sqlite3_exec(provisioning, "commit", nullptr, nullptr, nullptr);
    sqlite3_close(provisioning);
}

// A store kept in its rollback journal (another reader was on it at the open):
// the process list waits out a writer, printing a line before each pause.
TEST_F(ConfStore, TheProcessListWaitsOutAWriter) {
    qvtest::openInRollbackMode(confDbPath(), zq_closeConfDB, zq_openConfDB);
    EXPECT_EQ(counted(zq_getAllProcessConfigsNum), "0/4");  // schema read before the lock
    ProcessConfig processes[4];
    int count = 0, result = -1;
    const auto list = [&] { return zq_getAllProcessConfigs(processes, &count); };
    EXPECT_EQ(qvtest::stdoutWhileHeld(confDbPath(), list, result), "sqlite3_step SQLITE_BUSY\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(count, 4);
}
