// qvtool, run as a subprocess on the private stores: what it prints, what it
// writes and the exit codes that scripts rely on.
#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::confDbPath;
using qvtest::execSql;
using qvtest::query;
using qvtest::queryInt;
using qvtest::realDbPath;
using qvtest::sourcePath;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct ToolRun {
    int code = -1;
    std::string out, err;
};

std::string storeFile(const char* name) { return std::string(QV_TEST_STORE_DIR) + "/" + name; }

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// Starts the tool with stdout and stderr going to the given files. The alarm
// outlives exec: a tool that hangs ends after 30 s instead of hanging the test.
pid_t startTool(const std::vector<std::string>& args, const std::string& out,
                const std::string& err) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(QV_TOOL)};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        alarm(30);
        execv(QV_TOOL, argv.data());
        _exit(127);
    }
    return pid;
}

ToolRun tool(const std::vector<std::string>& args) {
    int status = 0;
    waitpid(startTool(args, storeFile("tool.out"), storeFile("tool.err")), &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "the tool hung or crashed";
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(storeFile("tool.out")),
            readFile(storeFile("tool.err"))};
}

std::string toolName() {
    const std::string path = QV_TOOL;
    return path.substr(path.rfind('/') + 1);
}

void removeQueue(int processNo) {
    const int id = msgget(processNo + QV_QUEUE_KEY_OFFSET, 0666);
    if (id >= 0) msgctl(id, IPC_RMID, nullptr);
}

const char* const kTotW = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kPhsA = "QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f";

class Tool : public testing::Test {
protected:
    void SetUp() override {
        qvtest::removeStore(realDbPath());
        qvtest::removeStore(confDbPath());
    }
    // Both stores, the sample configuration and the sample model.
    void provision() {
        ASSERT_EQ(tool({"init", "--conf-sample", sourcePath("samples/conf_sample.sql")}).code, 0);
        ASSERT_EQ(tool({"load", sourcePath("samples/feeder_terminal.cid")}).code, 0);
    }
    std::string count(const std::string& from) {
        return std::to_string(queryInt(realDbPath(), "select count(*) from " + from));
    }
    long long processes() { return queryInt(confDbPath(), "select count(*) from ProcessConfig"); }
};

}  // namespace

TEST_F(Tool, InitCreatesBothStoresAndRunsAConfSampleOnceAndWhole) {
    const std::string sample = sourcePath("samples/conf_sample.sql");
    ToolRun run = tool({"init", "--conf-sample", sample});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "real-time store " + realDbPath() + ": created\nconfiguration store " +
                           confDbPath() + ": created\nconfiguration store " + confDbPath() +
                           ": " + sample + " run\n");
    EXPECT_EQ(count("sqlite_master where name in ('DAValue','DA','DataSet','DataSetSub',"
                    "'LTUInfor','ltu_access_list','TopoInfor')"),
              "7");
    EXPECT_EQ(processes(), 4);
    // Again: the sample is refused instead of doubled.
    run = tool({"init", "--conf-sample", sample});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("already holds processes"));
    EXPECT_EQ(processes(), 4);
    // A sample that fails half way leaves nothing behind.
    EXPECT_EQ(tool({"init", "--fresh"}).code, 0);
    const std::string broken = storeFile("broken_sample.sql");
    std::ofstream(broken) << "insert into ProcessConfig values(1,'a','');\n"
                             "insert into Nowhere values(1);\n";
    run = tool({"init", "--conf-sample", broken});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("no such table: Nowhere"));
    EXPECT_EQ(processes(), 0);
}

TEST_F(Tool, LoadCountsTheStoreAndSetGetRoundTripValueAndQuality) {
    ASSERT_EQ(tool({"init"}).code, 0);
    const std::string model = sourcePath("samples/feeder_terminal.cid");
    ToolRun run = tool({"load", model});
    ASSERT_EQ(run.code, 0) << run.err;
    const std::string attributes = count("DA");
    EXPECT_EQ(run.out, "loading " + model + " ...\nIEDs: QVFTU1\nloaded: " + count("DataSet") + " data sets, " +
                           count("DataSetSub") + " members, " + attributes + " attributes\n");
    run = tool({"load", sourcePath("schema/realtime.sql")});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("not a usable SCL model"));
    EXPECT_EQ(count("DA"), attributes);

    EXPECT_EQ(tool({"set", kTotW, "231.5", "0x4001"}).out, "value=231.5 quality=16385\n");
    EXPECT_EQ(tool({"get", kTotW}).out, "value=231.5 quality=16385\n");
    // Without a quality the stored one stays.
    EXPECT_EQ(tool({"set", kTotW, "-0.1"}).out, "value=-0.1 quality=16385\n");
    run = tool({"set", "QVFTU1MEAS/MMXU1$MX$NoSuch$mag$f", "1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err, "qvtool: no value row for QVFTU1MEAS/MMXU1$MX$NoSuch$mag$f\n");
}

TEST_F(Tool, DataSetsMembersAndAttrsApplyEveryFilterGiven) {
    provision();
    // Each listing is a header line and one line per matching row.
    const auto listed = [](const ToolRun& run) { return std::to_string(lines(run.out).size() - 1); };
    ToolRun run = tool({"datasets"});
    EXPECT_EQ(listed(run), count("DataSet"));
    EXPECT_THAT(run.out, HasSubstr("\nQVFTU1  dsAin "));
    EXPECT_EQ(listed(tool({"members", "--ds", "dsAin", "--fc", "MX"})),
              count("DataSetSub where dsName='dsAin' and fc='MX'"));
    run = tool({"members", "--ied", "QVFTU1", "--ds", "dsDin", "--ld", "CTRL", "--lnclass",
                "XCBR", "--lninst", "1", "--do", "Pos", "--da", "stVal", "--fc", "ST"});
    ASSERT_EQ(lines(run.out).size(), 2u) << run.err;
    EXPECT_THAT(lines(run.out)[1], HasSubstr("QVFTU1CTRL/XCBR1$ST$Pos$stVal"));
    run = tool({"attrs", "--ied", "QVFTU1", "--ld", "MEAS", "--ln", "MMXU1", "--do", "PhV$phsA",
                "--fc", "MX"});
    EXPECT_EQ(listed(run), count("DA where ldName='MEAS' and lnName='MMXU1' and "
                                 "doName='PhV$phsA' and fcName='MX'"));
    EXPECT_THAT(run.out, HasSubstr(kPhsA));
    EXPECT_EQ(tool({"members", "--ds", "dsNone"}).code, 1);
    EXPECT_EQ(tool({"attrs", "--fc", ""}).code, 1);
}

TEST_F(Tool, DumpJsonHoldsEveryMemberWithItsLiveValue) {
    provision();
    ASSERT_EQ(tool({"set", kTotW, "231.5", "1"}).code, 0);
    ASSERT_EQ(tool({"set", kPhsA, "13.25", "0"}).code, 0);
    std::string expected = "{\n  \"ied\": \"QVFTU1\",\n  \"dataSet\": \"dsAin\",\n  \"members\": [";
    const qvtest::Rows members = query(
        realDbPath(), "select fcdaName from DataSetSub where iedName='QVFTU1' and dsName='dsAin'");
    ASSERT_FALSE(members.empty());
    for (size_t i = 0; i < members.size(); ++i) {
        const std::string& ref = members[i][0];
        const std::string value = ref == kTotW ? "231.5" : ref == kPhsA ? "13.25" : "0";
        expected += std::string(i == 0 ? "" : ",") + "\n    {\"reference\": \"" + ref +
                    "\", \"value\": " + value + ", \"quality\": " + (ref == kTotW ? "1" : "0") +
                    "}";
    }
    EXPECT_EQ(tool({"dump", "QVFTU1", "dsAin", "--json"}).out, expected + "\n  ]\n}\n");
    // Members without a value row (whole data objects, unclassified sets) show none.
    EXPECT_THAT(tool({"dump", "QVFTU1", "dsAlarm", "--json"}).out,
                HasSubstr("\"reference\": \"QVFTU1LD0/LPHD1$ST$PhyHealth\", "
                          "\"value\": null, \"quality\": null}"));
    EXPECT_EQ(tool({"dump", "QVFTU1", "dsNone"}).code, 1);
}

TEST_F(Tool, ProcessesRoutesAndSettingsOfTheSampleConfiguration) {
    provision();
    EXPECT_THAT(lines(tool({"processes"}).out),
                ElementsAre(StartsWith("NO"), StartsWith("1   qvacq"),
                            StartsWith("2   qv104 -p 2404"), StartsWith("3   qvctrl"),
                            StartsWith("4   qvtool watch")));
    EXPECT_THAT(lines(tool({"routes", "qvacq"}).out),
                ElementsAre("TO             NO  MASK  KINDS", "qv104 -p 2404  2   0x12  soe,general",
                            "qvtool watch   4   0x2   soe"));
    EXPECT_EQ(tool({"routes", "qvtool watch"}).code, 1);  // known, but sends nothing
    EXPECT_EQ(tool({"routes", "nobody"}).code, 1);
    // The sample knows "qvtool watch", not this build's tool.
    EXPECT_THAT(tool({"watch"}).err,
                HasSubstr("cannot subscribe as process \"" + toolName() + " watch\""));

    EXPECT_EQ(tool({"setting", "get", "qv104 -p 2404", "port"}).out, "2404\n");
    EXPECT_EQ(tool({"setting", "set", "qv104 -p 2404", "port", "2405"}).out,
              "port=2405 (listening TCP port)\n");
    EXPECT_EQ(tool({"setting", "set", "qv104 -p 2404", "t1", "20", "ack timeout"}).code, 0);
    EXPECT_EQ(query(confDbPath(), "select key,value,descripe from ProcessMisc where processNo=2"),
              (qvtest::Rows{{"port", "2405", "listening TCP port"}, {"t1", "20", "ack timeout"}}));
    // The library writes existing settings only.
    EXPECT_EQ(tool({"setting", "set", "qvacq", "nokey", "1"}).code, 1);
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessMisc"), 5);
}

TEST_F(Tool, ExitCodesTellUsageErrorsFromFailures) {
    // No store yet: a failure, and no empty store file left behind.
    ToolRun run = tool({"get", kTotW});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("does not exist"));
    EXPECT_NE(access(realDbPath().c_str(), F_OK), 0);
    EXPECT_EQ(tool({"processes"}).code, 1);

    for (const std::vector<std::string>& usage : std::vector<std::vector<std::string>>{
             {}, {"nosuch"}, {"get"}, {"get", "a", "b"}, {"set", kTotW, "12x"},
             {"set", kTotW, "1", "q"}, {"members", "--bogus", "x"}, {"members", "--ds"},
             {"dump", "QVFTU1"}, {"setting", "list", "a", "b"}, {"send", "nokind"},
             {"send", "soe", "value"}, {"send", "soe", "nofield=1"}, {"send", "soe", "value=x"},
             {"send", "topo", "strDa=" + std::string(256, 'x')}, {"watch", "extra"}}) {
        run = tool(usage);
        EXPECT_EQ(run.code, 2) << testing::PrintToString(usage);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, StartsWith("qvtool: ")) << testing::PrintToString(usage);
    }
    EXPECT_EQ(tool({"--help"}).code, 0);
}

TEST_F(Tool, SendReachesWatchAlongTheRoutesOfTheToolsProcessName) {
    provision();
    const std::string name = toolName();
    execSql(confDbPath(), "insert into ProcessConfig values(10,'" + name + "','sender');"
                          "insert into ProcessConfig values(11,'" + name + " watch','monitor');"
                          "insert into ProcessMsgAssociation values(10,11,4095);");
    removeQueue(11);
    const std::string watched = storeFile("watch.out");
    const pid_t watcher = startTool({"watch"}, watched, "/dev/null");
    ToolRun run = tool({"send", "soe", "strDa=QVFTU1LD0/GGIO1$ST$Ind1$stVal", "value=1", "msec=-5"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "sent soe as process \"" + name + "\" along 1 route\n");
    EXPECT_EQ(tool({"send", "general", "buf=say \"hi\"\t", "type=7"}).code, 0);
    const std::string version(63, 'v');
    EXPECT_EQ(
        tool({"send", "register", "devcieid=ltu-7", "key=k1", "result=0x10", "version=" + version})
            .code,
        0);
    // 0xFFF leaves out kind 13: nothing goes, and the tool says so.
    run = tool({"send", "updatefile", "iedName=QVFTU1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("no route from process \"" + name + "\""));

    std::vector<std::string> seen;
    for (int waited = 0; waited < 10000 && (seen = lines(readFile(watched))).size() < 3;
         waited += 50)
        usleep(50000);
    kill(watcher, SIGKILL);
    waitpid(watcher, nullptr, 0);
    EXPECT_THAT(seen, ElementsAre("soe type=0 strDa=\"QVFTU1LD0/GGIO1$ST$Ind1$stVal\" value=1 "
                                  "minutes=0 msec=-5",
                                  "general type=7 buf=\"say \\\"hi\\\"\\x09\" dataLen=9",
                                  "register devcieid=\"ltu-7\" key=\"k1\" result=16 desc=\"\" "
                                  "version=\"" + version + "\""));

    // Unconfigured, the tool's process sends nothing.
    execSql(confDbPath(), "delete from ProcessConfig where no=10");
    run = tool({"send", "soe", "value=1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("is not in ProcessConfig"));
    removeQueue(11);
}
