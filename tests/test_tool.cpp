// qvtool, run as a subprocess on the private stores: what it prints, what it
// writes and the exit codes that scripts rely on.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
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
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr int kToolDeadlineMs = 30000;

struct ToolRun {
    int code = -1;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// Starts the tool with its output going to the given descriptors.
pid_t startTool(const std::vector<std::string>& args, int outFd, int errFd) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(outFd, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(QV_TOOL)};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(QV_TOOL, argv.data());
        _exit(127);
    }
    return pid;
}

// Waits for a child, killing it when the deadline passes; its exit code.
int waitBounded(pid_t pid, int deadlineMs) {
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 10) {
        if (waited >= deadlineMs) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the tool did not finish in time";
            return -1;
        }
        usleep(10000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ToolRun tool(const std::vector<std::string>& args) {
    const std::string outPath = std::string(QV_TEST_STORE_DIR) + "/tool.out";
    const std::string errPath = std::string(QV_TEST_STORE_DIR) + "/tool.err";
    const int outFd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int errFd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ToolRun run;
    const pid_t pid = startTool(args, outFd, errFd);
    close(outFd);
    close(errFd);
    run.code = waitBounded(pid, kToolDeadlineMs);
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    return run;
}

std::string toolName() {
    const std::string path = QV_TOOL;
    return path.substr(path.rfind('/') + 1);
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
    long long count(const std::string& sql) { return queryInt(realDbPath(), sql); }
};

}  // namespace

TEST_F(Tool, InitCreatesBothStoresAndRunsTheConfSampleOnce) {
    const std::string sample = sourcePath("samples/conf_sample.sql");
    ToolRun run = tool({"init", "--conf-sample", sample});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr(realDbPath() + ": created"));
    EXPECT_THAT(run.out, HasSubstr(confDbPath() + ": created"));
    for (const char* table : {"DAValue", "DA", "DataSet", "DataSetSub", "LTUInfor",
                              "ltu_access_list", "TopoInfor"}) {
        EXPECT_EQ(count(std::string("select count(*) from sqlite_master where name='") + table +
                        "'"),
                  1)
            << table;
    }
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessConfig"), 4);

    // Again: the rows stay, the sample is refused instead of doubled.
    run = tool({"init", "--conf-sample", sample});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("already holds processes"));
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessConfig"), 4);

    EXPECT_EQ(tool({"init", "--fresh"}).code, 0);
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessConfig"), 0);

    // A sample that fails half way leaves nothing behind.
    const std::string broken = std::string(QV_TEST_STORE_DIR) + "/broken_sample.sql";
    std::ofstream(broken) << "insert into ProcessConfig values(1,'a','');\ninsert into Nowhere "
                             "values(1);\n";
    run = tool({"init", "--conf-sample", broken});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("no such table: Nowhere"));
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessConfig"), 0);
}

TEST_F(Tool, LoadPrintsProgressAndTheCountsOfTheStore) {
    ASSERT_EQ(tool({"init"}).code, 0);
    const std::string model = sourcePath("samples/feeder_terminal.cid");
    ToolRun run = tool({"load", model});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "loading " + model + " ...\nloaded: " +
                           std::to_string(count("select count(*) from DataSet")) + " data sets, " +
                           std::to_string(count("select count(*) from DataSetSub")) +
                           " members, " + std::to_string(count("select count(*) from DA")) +
                           " attributes\n");

    const long long attributes = count("select count(*) from DA");
    run = tool({"load", sourcePath("schema/realtime.sql")});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("not a usable SCL model"));
    EXPECT_EQ(count("select count(*) from DA"), attributes);
}

TEST_F(Tool, SetThenGetRoundTripsValueAndQuality) {
    provision();
    ToolRun run = tool({"set", kTotW, "231.5", "0x4001"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "value=231.5 quality=16385\n");
    EXPECT_EQ(tool({"get", kTotW}).out, "value=231.5 quality=16385\n");
    EXPECT_EQ(count(std::string("select quality from DAValue where hashID=") +
                    std::to_string(RSHash(kTotW, std::strlen(kTotW)))),
              16385);

    // Without a quality the stored one stays.
    EXPECT_EQ(tool({"set", kTotW, "-0.1"}).out, "value=-0.1 quality=16385\n");

    run = tool({"set", "QVFTU1MEAS/MMXU1$MX$NoSuch$mag$f", "1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err, "qvtool: no value row for QVFTU1MEAS/MMXU1$MX$NoSuch$mag$f\n");
}

TEST_F(Tool, DataSetsMembersAndAttrsApplyEveryFilterGiven) {
    provision();
    ToolRun run = tool({"datasets"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(static_cast<long long>(lines(run.out).size()) - 1,
              count("select count(*) from DataSet"));
    EXPECT_THAT(run.out, HasSubstr("\nQVFTU1  dsAin "));

    run = tool({"members", "--ds", "dsAin", "--fc", "MX"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(static_cast<long long>(lines(run.out).size()) - 1,
              count("select count(*) from DataSetSub where dsName='dsAin' and fc='MX'"));

    run = tool({"members", "--ied", "QVFTU1", "--ds", "dsDin", "--ld", "CTRL", "--lnclass",
                "XCBR", "--lninst", "1", "--do", "Pos", "--da", "stVal", "--fc", "ST"});
    ASSERT_EQ(run.code, 0) << run.err;
    ASSERT_EQ(lines(run.out).size(), 2u);
    EXPECT_THAT(lines(run.out)[1], HasSubstr("QVFTU1CTRL/XCBR1$ST$Pos$stVal"));

    run = tool({"attrs", "--ied", "QVFTU1", "--ld", "MEAS", "--ln", "MMXU1", "--do", "PhV$phsA",
                "--fc", "MX"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(static_cast<long long>(lines(run.out).size()) - 1,
              count("select count(*) from DA where ldName='MEAS' and lnName='MMXU1' and "
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
    expected += "\n  ]\n}\n";
    ToolRun run = tool({"dump", "QVFTU1", "dsAin", "--json"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, expected);

    // Members without a value row (whole data objects, unclassified sets) show none.
    run = tool({"dump", "QVFTU1", "dsAlarm", "--json"});
    EXPECT_THAT(run.out, HasSubstr("\"reference\": \"QVFTU1LD0/LPHD1$ST$PhyHealth\", "
                                   "\"value\": null, \"quality\": null}"));
    EXPECT_EQ(tool({"dump", "QVFTU1", "dsNone"}).code, 1);
}

TEST_F(Tool, ProcessesRoutesAndSettingsOfTheSampleConfiguration) {
    provision();
    ToolRun run = tool({"processes"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(lines(run.out), testing::ElementsAre(StartsWith("NO"), StartsWith("1   qvacq"),
                                                     StartsWith("2   qv104 -p 2404"),
                                                     StartsWith("3   qvctrl"),
                                                     StartsWith("4   qvtool watch")));
    run = tool({"routes", "qvacq"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(lines(run.out), testing::ElementsAre("TO             NO  MASK  KINDS",
                                                     "qv104 -p 2404  2   0x12  soe,general",
                                                     "qvtool watch   4   0x2   soe"));
    EXPECT_EQ(tool({"routes", "qvtool watch"}).code, 1);  // known, but sends nothing
    EXPECT_EQ(tool({"routes", "nobody"}).code, 1);
    // The sample knows "qvtool watch", not this build's tool.
    run = tool({"watch"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("cannot subscribe as process \"" + toolName() + " watch\""));

    EXPECT_EQ(tool({"setting", "get", "qv104 -p 2404", "port"}).out, "2404\n");
    run = tool({"setting", "set", "qv104 -p 2404", "port", "2405"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "port=2405 (listening TCP port)\n");
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
        EXPECT_TRUE(run.out.empty()) << run.out;
        EXPECT_THAT(run.err, StartsWith("qvtool: ")) << testing::PrintToString(usage);
    }

    run = tool({"--help"});
    EXPECT_EQ(run.code, 0);
    for (const char* command :
         {"init", "load", "get", "set", "datasets", "members", "attrs", "dump", "processes",
          "routes", "setting", "send", "watch", "terminals", "access", "topology"}) {
        EXPECT_THAT(run.out, HasSubstr(std::string("\n  ") + command)) << command;
        ToolRun help = tool({command, "--help"});
        EXPECT_EQ(help.code, 0) << command;
        EXPECT_THAT(help.out, StartsWith(std::string("usage: qvtool ") + command)) << command;
    }
}

TEST_F(Tool, RegistryListsTerminalsAccessListAndTopology) {
    ASSERT_EQ(tool({"init"}).code, 0);
    for (const char* command : {"terminals", "access", "topology"}) {
        ToolRun run = tool({command});
        EXPECT_EQ(run.code, 1) << command;
        EXPECT_THAT(run.err, StartsWith("qvtool: no ")) << command;
    }
    execSql(realDbPath(),
            "insert into LTUInfor values(1,'1.2','A','2.0','B','ltu1','10.0.0.7',2,1,'pole 7');"
            "insert into ltu_access_list values('2024-05-01 10:00','dev-1',2,'meter','k==','v1');"
            "insert into TopoInfor values(1,'breaker','XCBR1','CB1','','XCBR2',1,'QVFTU1','N');"
            "insert into TopoInfor values(2,'switch','XCBR2','SW2','XCBR1','',0,'QVFTU1','N');");
    EXPECT_THAT(lines(tool({"terminals"}).out),
                testing::ElementsAre(
                    "ID  NAME  ADDR      STATE  FAILED  QV SW/HW  SG SW/HW  DESCRIPTION",
                    "1   ltu1  10.0.0.7  1      2       1.2/A     2.0/B     pole 7"));
    EXPECT_THAT(lines(tool({"access"}).out),
                testing::ElementsAre("DATE              DEVICE  MODEL  VERSION  KEY  DESCRIPTION",
                                     "2024-05-01 10:00  dev-1   2      v1       k==  meter"));
    EXPECT_THAT(lines(tool({"topology"}).out),
                testing::ElementsAre(
                    "ID  TYPE     LN     NAME  LEFT   RIGHT  POWER  IED     SUBSTATION",
                    "1   breaker  XCBR1  CB1          XCBR2  yes    QVFTU1  N",
                    "2   switch   XCBR2  SW2   XCBR1         no     QVFTU1  N"));
}

namespace {

// A watcher whose output the test reads line by line, with a deadline.
class Watcher {
public:
    Watcher() {
        int fds[2];
        if (pipe(fds) != 0) return;
        const int devNull = open("/dev/null", O_WRONLY);
        pid_ = startTool({"watch"}, fds[1], devNull);
        close(fds[1]);
        close(devNull);
        fd_ = fds[0];
    }
    ~Watcher() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) close(fd_);
    }
    // The next line, or "" when none came in time.
    std::string nextLine() {
        for (int waited = 0; waited < 10000; waited += 100) {
            const size_t end = buffer_.find('\n');
            if (end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            pollfd ready{fd_, POLLIN, 0};
            if (poll(&ready, 1, 100) > 0) {
                char chunk[4096];
                const ssize_t n = read(fd_, chunk, sizeof chunk);
                if (n <= 0) break;
                buffer_.append(chunk, static_cast<size_t>(n));
            }
        }
        return "";
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string buffer_;
};

void removeQueue(int processNo) {
    const int id = msgget(processNo + QV_QUEUE_KEY_OFFSET, 0666);
    if (id >= 0) msgctl(id, IPC_RMID, nullptr);
}

}  // namespace

TEST_F(Tool, SendReachesWatchAlongTheRoutesOfTheToolsProcessName) {
    provision();
    const std::string name = toolName();
    execSql(confDbPath(), "insert into ProcessConfig values(10,'" + name + "','sender');"
                          "insert into ProcessConfig values(11,'" + name + " watch','monitor');"
                          "insert into ProcessMsgAssociation values(10,11,4095);");
    removeQueue(11);
    {
        Watcher watcher;
        ToolRun run = tool({"send", "soe", "strDa=QVFTU1LD0/GGIO1$ST$Ind1$stVal", "value=1",
                            "msec=-5"});
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(run.out, "sent soe as process \"" + name + "\" along 1 route\n");
        ASSERT_EQ(tool({"send", "general", "buf=say \"hi\"\t", "type=7"}).code, 0);
        ASSERT_EQ(tool({"send", "register", "devcieid=ltu-7", "key=k1", "result=0x10",
                        "version=" + std::string(63, 'v')})
                      .code,
                  0);
        // 0xFFF leaves out kind 13: nothing goes, and the tool says so.
        run = tool({"send", "updatefile", "iedName=QVFTU1"});
        EXPECT_EQ(run.code, 1);
        EXPECT_THAT(run.err, HasSubstr("no route from process \"" + name + "\""));

        EXPECT_EQ(watcher.nextLine(),
                  "soe type=0 strDa=\"QVFTU1LD0/GGIO1$ST$Ind1$stVal\" value=1 minutes=0 msec=-5");
        EXPECT_EQ(watcher.nextLine(), "general type=7 buf=\"say \\\"hi\\\"\\x09\" dataLen=9");
        EXPECT_EQ(watcher.nextLine(), "register devcieid=\"ltu-7\" key=\"k1\" result=16 desc=\"\" "
                                      "version=\"" + std::string(63, 'v') + "\"");
    }
    removeQueue(11);

    // Unconfigured, the tool's process sends nothing.
    execSql(confDbPath(), "delete from ProcessConfig where no=10");
    ToolRun run = tool({"send", "soe", "value=1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("is not in ProcessConfig"));
    removeQueue(11);
}
