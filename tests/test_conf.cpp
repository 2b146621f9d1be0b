// Configuration store: connection, the three query shapes over the sample
// gateway's configuration, and the settings write seen across processes.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qvconf.h"
#include "qvtest.h"

using qvtest::confDbPath;
using qvtest::execSql;
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
