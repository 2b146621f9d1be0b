// Configuration store: connection, the three query shapes over the sample
// gateway's configuration, and the settings write seen across processes.
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qvconf.h"
#include "qvtest.h"

using qvtest::confDbPath;
using qvtest::execSql;
using qvtest::query;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The sample gateway's configuration, opened by the library.
class ConfStore : public ::testing::Test {
protected:
    void SetUp() override {
        zq_closeConfDB();
        qvtest::freshConfStore();
        qvtest::execSqlFile(confDbPath(), qvtest::sourcePath("samples/conf_sample.sql"));
        ASSERT_EQ(zq_openConfDB(), 0);
    }
    void TearDown() override { zq_closeConfDB(); }
};

std::vector<std::string> routesOf(const char* sender) {
    int count = -1;
    EXPECT_EQ(zq_getProcessMsgAssociationsNum(sender, &count), 0);
    std::vector<ProcessMsgAssociation> routes(count + 1);
    int delivered = -1;
    EXPECT_EQ(zq_getProcessMsgAssociations(sender, routes.data(), &delivered), 0);
    EXPECT_EQ(delivered, count);
    std::vector<std::string> texts;
    for (int i = 0; i < delivered; ++i)
        texts.push_back(std::to_string(routes[i].sendProcessNo) + "->" +
                        std::to_string(routes[i].recvProcessNo) + ":" +
                        std::to_string(routes[i].msgType));
    return texts;
}

// A record filled with a pattern, to see that an operation left it alone.
template <typename Record>
Record patterned() {
    Record record;
    std::memset(&record, 0x5A, sizeof record);
    return record;
}

template <typename Record>
bool untouched(const Record& record) {
    const Record pattern = patterned<Record>();
    return std::memcmp(&record, &pattern, sizeof record) == 0;
}

std::string describe(const DeviceModelAssociation& a) {
    return std::string(a.associateName) + " " + std::to_string(a.lineNo) + " " +
           std::to_string(a.dataType) + " " + std::to_string(a.dataIndex) + " " + a.daName +
           " " + std::to_string(a.type);
}

std::string describe(const ProcessDataAssociation& a) {
    return std::string(a.associateName) + " " + std::to_string(a.dataType) + " " +
           std::to_string(a.dataIndex) + " " + a.daName + " " + std::to_string(a.scaleNo);
}

template <typename Record>
std::vector<std::string> describeAll(const Record* records, int count) {
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) texts.push_back(describe(records[i]));
    return texts;
}

int countOf(int (*countOperation)(int*)) {
    int count = -1;
    EXPECT_EQ(countOperation(&count), 0);
    return count;
}

}  // namespace

TEST_F(ConfStore, ProcessesAreNumberedByExactName) {
    int no = 0;
    EXPECT_EQ(zq_getProcessNoByName("qv104 -p 2404", &no), 0);
    EXPECT_EQ(no, 2);
    CaptureStderr();
    for (const char* other : {"qv104 -p 2404 ", "QVACQ", "qv104", ""}) {
        no = 99;
        EXPECT_EQ(zq_getProcessNoByName(other, &no), -1) << other;
        EXPECT_EQ(no, 99);
    }
    EXPECT_EQ(GetCapturedStderr(), "");

    int count = -1;
    ASSERT_EQ(zq_getAllProcessConfigsNum(&count), 0);
    ASSERT_EQ(count, 4);
    ProcessConfig processes[4];
    count = 77;
    ASSERT_EQ(zq_getAllProcessConfigs(processes, &count), 0);
    ASSERT_EQ(count, 4);
    EXPECT_STREQ(processes[1].processName, "qv104 -p 2404");
    EXPECT_STREQ(processes[1].processDescribe, "IEC 60870-5-104 converter");
    EXPECT_STREQ(processes[3].processName, "qvtool watch");
}

TEST_F(ConfStore, RoutesOfASender) {
    EXPECT_THAT(routesOf("qvacq"), testing::ElementsAre("1->2:18", "1->4:2"));
    EXPECT_THAT(routesOf("qvctrl"), testing::ElementsAre("3->2:64", "3->1:8"));
    EXPECT_THAT(routesOf("qvtool watch"), testing::IsEmpty());

    int count = 5;
    ProcessMsgAssociation route{};
    EXPECT_EQ(zq_getProcessMsgAssociationsNum("qvnone", &count), -1);
    EXPECT_EQ(count, 0);
    count = 5;
    EXPECT_EQ(zq_getProcessMsgAssociations("qvnone", &route, &count), -1);
    EXPECT_EQ(count, 0);
}

TEST_F(ConfStore, ScalesAreReadByNumber) {
    EXPECT_EQ(countOf(zq_getScaleConfigsNum), 3);
    ScaleConfig scale = patterned<ScaleConfig>();
    ASSERT_EQ(zq_getScaleConfig(2, &scale), 0);
    EXPECT_STREQ(scale.name, "phase voltage");
    EXPECT_EQ(scale.maxValue, 65535.0);
    EXPECT_EQ(scale.minValue, 0.0);
    EXPECT_EQ(scale.userMaxValue, 13.2);
    EXPECT_EQ(scale.userMinValue, 0.0);

    scale = patterned<ScaleConfig>();
    CaptureStderr();
    EXPECT_EQ(zq_getScaleConfig(9, &scale), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_TRUE(untouched(scale));
}

TEST_F(ConfStore, DeviceModelAssociations) {
    EXPECT_EQ(countOf(zq_getAllDeviceModelAssociationsNum), 8);
    DeviceModelAssociation rows[8];
    int count = -1;
    ASSERT_EQ(zq_getAllDeviceModelAssociations(rows, &count), 0);
    ASSERT_EQ(count, 8);
    // type comes after daName in the select list but before it in the record.
    EXPECT_EQ(describe(rows[7]), "cabinetAlarm 2 5 1 QVFTU1LD0/GGIO1$ST$Alm$stVal 7");

    // Digital inputs: indexes 1, 1 and 2.
    ASSERT_EQ(zq_getDeviceModelAssociationsByTypeNum(2, &count), 0);
    EXPECT_EQ(count, 3);
    ASSERT_EQ(zq_getDeviceInputNumByType(2, &count), 0);
    EXPECT_EQ(count, 2);
    ASSERT_EQ(zq_getDeviceModelAssociationsByTypeIndexNum(2, 1, &count), 0);
    EXPECT_EQ(count, 2);
    ASSERT_EQ(zq_getDeviceModelAssociationsByTypeIndex(2, 1, rows, &count), 0);
    EXPECT_THAT(describeAll(rows, count),
                testing::ElementsAre("breakerPos 1 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                                     "breakerPosLine2 2 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3"));
    ASSERT_EQ(zq_getDeviceModelAssociationsByType(2, rows, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(describe(rows[2]), "doorContact 1 2 2 QVFTU1LD0/GGIO1$ST$Ind1$stVal 2");

    // A data type without rows.
    for (auto countOperation : {zq_getDeviceModelAssociationsByTypeNum, zq_getDeviceInputNumByType}) {
        count = 5;
        EXPECT_EQ(countOperation(9, &count), 0);
        EXPECT_EQ(count, 0);
    }
    count = 5;
    EXPECT_EQ(zq_getDeviceModelAssociationsByType(9, rows, &count), 0);
    EXPECT_EQ(count, 0);

    DeviceModelAssociation one = patterned<DeviceModelAssociation>();
    ASSERT_EQ(zq_getDeviceModelAssociationByName("switchPos", &one), 0);
    EXPECT_EQ(describe(one), "switchPos 1 3 1 QVFTU1CTRL/CSWI1$ST$Pos$stVal 4");
    one = patterned<DeviceModelAssociation>();
    EXPECT_EQ(zq_getDeviceModelAssociationByName("switchpos", &one), -1);
    EXPECT_TRUE(untouched(one));
}

TEST_F(ConfStore, DataPointsOfAProcess) {
    int count = -1;
    ASSERT_EQ(zq_getAllProcessDataAssociationsNum("qvacq", &count), 0);
    EXPECT_EQ(count, 5);
    ProcessDataAssociation points[5];
    ASSERT_EQ(zq_getProcessDataAssociationsByTypeNum("qvacq", 2, &count), 0);
    EXPECT_EQ(count, 2);
    ASSERT_EQ(zq_getProcessDataAssociationsByType("qvacq", 2, points, &count), 0);
    EXPECT_THAT(describeAll(points, count),
                testing::ElementsAre("BreakerPos 2 1 QVFTU1CTRL/XCBR1$ST$Pos$stVal 3",
                                     "Ind1 2 2 QVFTU1LD0/GGIO1$ST$Ind1$stVal 3"));
    ASSERT_EQ(zq_getAllProcessDataAssociations("qv104 -p 2404", points, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(describe(points[2]), "SwitchCmd 3 24577 QVFTU1CTRL/CSWI1$ST$Pos$stVal 3");

    ProcessDataAssociation one{};
    ASSERT_EQ(zq_getProcessDataAssociationByTypeIndex("qvacq", 1, 2, &one), 0);
    EXPECT_EQ(describe(one), "Ua 1 2 QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f 2");
    // The same name under two processes: the named process's row.
    ASSERT_EQ(zq_getProcessDataAssociationByName("qv104 -p 2404", "TotW", &one), 0);
    EXPECT_EQ(describe(one), "TotW 1 16385 QVFTU1MEAS/MMXU1$MX$TotW$mag$f 1");

    // A process without data points, and an unknown one.
    count = 5;
    EXPECT_EQ(zq_getAllProcessDataAssociations("qvctrl", points, &count), 0);
    EXPECT_EQ(count, 0);
    count = 5;
    EXPECT_EQ(zq_getProcessDataAssociationsByTypeNum("qvnone", 1, &count), -1);
    EXPECT_EQ(count, 0);
    one = patterned<ProcessDataAssociation>();
    EXPECT_EQ(zq_getProcessDataAssociationByName("qvnone", "TotW", &one), -1);
    EXPECT_EQ(zq_getProcessDataAssociationByTypeIndex("qvacq", 1, 3, &one), -1);
    EXPECT_TRUE(untouched(one));
}

TEST_F(ConfStore, SettingsWriteUpdatesTheRowOfTheKeyArgument) {
    ProcessMisc misc{};
    ASSERT_EQ(zq_getProcessMiscValue("qvacq", "period", &misc), 0);
    EXPECT_STREQ(misc.value, "1000");
    EXPECT_STREQ(misc.describe, "polling period in ms");

    ProcessMisc update{};
    std::strcpy(update.key, "serialPort");  // not the row that changes
    std::strcpy(update.value, "500");
    std::strcpy(update.describe, "fast polling");
    ASSERT_EQ(zq_setProcessMiscValue("qvacq", "period", &update), 0);
    ASSERT_EQ(zq_getProcessMiscValue("qvacq", "period", &misc), 0);
    EXPECT_STREQ(misc.key, "period");
    EXPECT_STREQ(misc.value, "500");
    EXPECT_STREQ(misc.describe, "fast polling");

    // A missing key writes nothing.
    const qvtest::Rows before = query(confDbPath(), "select * from ProcessMisc");
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "baud", &update), 0);
    EXPECT_EQ(query(confDbPath(), "select * from ProcessMisc"), before);
    misc = patterned<ProcessMisc>();
    EXPECT_EQ(zq_getProcessMiscValue("qvacq", "baud", &misc), -1);
    EXPECT_TRUE(untouched(misc));
}

TEST_F(ConfStore, ASettingWrittenByAnotherProcessIsRead) {
    zq_closeConfDB();  // no open connection crosses the fork
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        ProcessMisc update{};
        std::strcpy(update.value, "2405");
        std::strcpy(update.describe, "moved port");
        const bool written =
            zq_openConfDB() == 0 && zq_setProcessMiscValue("qv104 -p 2404", "port", &update) == 0;
        zq_closeConfDB();
        _exit(written ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    ASSERT_EQ(zq_openConfDB(), 0);
    ProcessMisc misc{};
    ASSERT_EQ(zq_getProcessMiscValue("qv104 -p 2404", "port", &misc), 0);
    EXPECT_STREQ(misc.key, "port");
    EXPECT_STREQ(misc.value, "2405");
    EXPECT_STREQ(misc.describe, "moved port");
}

TEST_F(ConfStore, LongTextsAreCutAndNullTextsAreEmpty) {
    execSql(confDbPath(),
            "create table P2 (no integer, processName text, processDescribe text);"
            "drop table ProcessConfig; alter table P2 rename to ProcessConfig;"
            "insert into ProcessConfig values (1, NULL, NULL),"
            " (2, 'qvlong', '" + std::string(300, 'd') + "');"
            "update ProcessMisc set value = '" + std::string(2000, 'v') + "' where key='t1'");
    ProcessConfig processes[2];
    int count = 0;
    ASSERT_EQ(zq_getAllProcessConfigs(processes, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(processes[0].processName, "");
    EXPECT_STREQ(processes[0].processDescribe, "");
    EXPECT_EQ(processes[1].processDescribe, std::string(127, 'd'));
    ProcessMisc misc{};
    // Process 2, the owner of t1, is now called qvlong.
    ASSERT_EQ(zq_getProcessMiscValue("qvlong", "t1", &misc), 0);
    EXPECT_EQ(misc.value, std::string(1023, 'v'));
}

TEST_F(ConfStore, FailuresPrintSQLitesErrorText) {
    execSql(confDbPath(),
            "drop table ProcessMisc; drop table ScaleConfig;"
            // abs() of the smallest integer fails while the row is stepped.
            "create view ScaleConfig as select 1 as no, 'x' as name,"
            " abs(-9223372036854775807 - 1) as maxValue, 0 as minValue,"
            " 0 as userMaxValue, 0 as userMinValue");
    ProcessMisc misc{};
    CaptureStderr();
    EXPECT_EQ(zq_getProcessMiscValue("qvacq", "period", &misc), -1);
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "period", &misc), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_prepare_v2 err no such table: ProcessMisc\n"
              "sqlite3_prepare_v2 err:no such table: ProcessMisc\n");

    ScaleConfig scale = patterned<ScaleConfig>();
    CaptureStderr();
    EXPECT_EQ(zq_getScaleConfig(1, &scale), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err integer overflow\n");
    EXPECT_TRUE(untouched(scale));
}

TEST_F(ConfStore, NullArgumentsAndAClosedStoreAreRefused) {
    int count = 5;
    const ProcessMisc misc{};
    CaptureStderr();
    EXPECT_EQ(zq_getProcessNoByName(nullptr, &count), -1);
    EXPECT_EQ(zq_getAllProcessDataAssociationsNum("qvacq", nullptr), -1);
    EXPECT_EQ(zq_getAllProcessDataAssociations("qvacq", nullptr, &count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(zq_setProcessMiscValue("qvacq", "period", nullptr), -1);
    EXPECT_EQ(zq_setProcessMiscValue(nullptr, "period", &misc), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_getProcessNoByName: a required argument is null\n"
              "zq_getAllProcessDataAssociationsNum: a required argument is null\n"
              "zq_getAllProcessDataAssociations: a required argument is null\n"
              "zq_setProcessMiscValue: a required argument is null\n"
              "zq_setProcessMiscValue: a required argument is null\n");

    EXPECT_EQ(zq_closeConfDB(), 0);
    EXPECT_EQ(zq_closeConfDB(), 0);
    count = 5;
    CaptureStderr();
    EXPECT_EQ(zq_getProcessMsgAssociationsNum("qvacq", &count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_getProcessMsgAssociationsNum: the configuration store is not open "
              "(call zq_openConfDB first)\n");
}

TEST_F(ConfStore, ASecondOpenKeepsTheConnection) {
    // Replace the file under the open connection: it still reads the old one.
    qvtest::freshConfStore();
    EXPECT_EQ(zq_openConfDB(), 0);
    EXPECT_EQ(countOf(zq_getAllProcessConfigsNum), 4);
    ASSERT_EQ(zq_closeConfDB(), 0);
    ASSERT_EQ(zq_openConfDB(), 0);
    EXPECT_EQ(countOf(zq_getAllProcessConfigsNum), 0);
}

TEST_F(ConfStore, AFailedOpenIsTriedAgain) {
    zq_closeConfDB();
    qvtest::removeStore(confDbPath());
    ASSERT_EQ(mkdir(confDbPath().c_str(), 0755), 0);  // a directory cannot be opened
    CaptureStderr();
    EXPECT_EQ(zq_openConfDB(), -1);
    EXPECT_EQ(GetCapturedStderr(), "Can't open database: unable to open database file\n");
    int count = 5;
    CaptureStderr();
    EXPECT_EQ(zq_getScaleConfigsNum(&count), -1);
    EXPECT_THAT(GetCapturedStderr(), testing::HasSubstr("is not open"));

    ASSERT_EQ(rmdir(confDbPath().c_str()), 0);
    qvtest::freshConfStore();
    ASSERT_EQ(zq_openConfDB(), 0);
    EXPECT_EQ(countOf(zq_getScaleConfigsNum), 0);
}

// A writer holds the store; the process list waits it out, printing a line on
// stdout before each pause, and the writer lets go once it has seen one.
TEST_F(ConfStore, TheProcessListWaitsOutAWriter) {
    EXPECT_EQ(countOf(zq_getAllProcessConfigsNum), 4);  // schema read before the lock
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(confDbPath().c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    std::fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    dup2(pipeFds[1], STDOUT_FILENO);
    std::string seen;
    std::thread releaser([&] {
        char c;
        while (seen.find('\n') == std::string::npos && read(pipeFds[0], &c, 1) == 1) seen += c;
        sqlite3_exec(writer, "commit", nullptr, nullptr, nullptr);
    });
    ProcessConfig processes[4];
    int count = 0;
    const int result = zq_getAllProcessConfigs(processes, &count);
    std::fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    close(savedStdout);
    close(pipeFds[1]);
    releaser.join();
    close(pipeFds[0]);
    sqlite3_close(writer);

    EXPECT_EQ(seen, "sqlite3_step SQLITE_BUSY\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(count, 4);
}
