// qvtool, run as a subprocess on the private stores: what it prints, what it
// writes and the exit codes that scripts rely on.
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "qvrealapi.h"
#include "qvtest.h"
#include "qvtool_run.h"
#include "qvversion.h"

using namespace qvtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using Json = nlohmann::ordered_json;

namespace {


// The rows of a JSON array in a fixed order: the store returns rows in the
// order of the index that a query happens to use.
Json sorted(Json rows) {
    std::sort(rows.begin(), rows.end(), [](const Json& a, const Json& b) { return a.dump() < b.dump(); });
    return rows;
}

// "select json_object('key',column,...) <rest>" for fields "key key=column ...".
std::string jsonSelect(const std::string& fields, const std::string& rest) {
    std::istringstream in(fields);
    std::string pairs;
    for (std::string field; in >> field;) {
        const size_t eq = field.find('=');
        pairs += (pairs.empty() ? "'" : ",'") + field.substr(0, eq) + "'," +
                 (eq == std::string::npos ? field : field.substr(eq + 1));
    }
    return "select json_object(" + pairs + ") " + rest;
}

void removeQueue(int processNo) { msgctl(msgget(processNo + QV_QUEUE_KEY_OFFSET, 0), IPC_RMID, nullptr); }

const char* const kTotW = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kPhsA = "QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f";

class Tool : public testing::Test {
protected:
    void SetUp() override {
        removeStore(realDbPath());
        removeStore(confDbPath());
    }
    // Both stores, the sample configuration and the sample model.
    void provision() {
        ASSERT_EQ(tool({"init", "--conf-sample", sourcePath("samples/conf_sample.sql")}).code, 0);
        ASSERT_EQ(tool({"load", sourcePath("samples/feeder_terminal.cid")}).code, 0);
    }
    long long processes() { return queryInt(confDbPath(), "select count(*) from ProcessConfig"); }
};

}  // namespace

TEST_F(Tool, InitCreatesBothStoresAndRunsAConfSampleOnceAndWhole) {
    const std::string sample = sourcePath("samples/conf_sample.sql");
    ToolRun run = tool({"init", "--conf-sample", sample});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "real-time store " + realDbPath() + ": created\nconfiguration store " +
                           confDbPath() + ": created\nconfiguration store " + confDbPath() + ": " +
                           sample + " run\n");
    EXPECT_EQ(processes(), 4);
    EXPECT_EQ(query(confDbPath(), "PRAGMA journal_mode"), Rows{{"wal"}});
    // Again the sample is refused instead of doubled; one failing half way leaves nothing.
    const std::string broken = dataPath("broken_conf_sample.sql");
    const struct { Words args; const char* why; long long processesAfter; } refused[] = {
        {{"init", "--conf-sample", sample}, "already holds processes", 4},
        {{"init", "--fresh", "--conf-sample", broken}, "no such table: Nowhere", 0}};
    for (const auto& r : refused) {
        run = tool(r.args);
        EXPECT_EQ(run.code, 1);
        EXPECT_THAT(run.err, HasSubstr(r.why));
        EXPECT_EQ(processes(), r.processesAfter);
    }
}

// Every listing's JSON is the table's rows under the record's field names.
TEST_F(Tool, ListingsInJsonAreTheStoredRowsUnderTheRecordsFieldNames) {
    provision();
    // Texts that JSON must escape, and one that is not UTF-8.
    execSqlFile(realDbPath(), dataPath("tool_listings.sql"));
    const std::string member = "fcdaName iedName dsName ldInst lnClass lnInst doName daName fc";
    const std::string attr = "daName iedName ldName lnName doName fcName value valueType doDesc";
    const struct { Words args; std::string db, sql; } cases[] = {
        {{"datasets"}, realDbPath(),
         jsonSelect("iedName name=dsName ldInst desc=dsDesc", "from DataSet")},
        // Either path notation, and the same option names as attrs.
        {{"members", "--ds", "dsAin", "--do", "PhV$phsA"}, realDbPath(),
         jsonSelect(member, "from DataSetSub where dsName='dsAin' and doName='PhV.phsA'")},
        {{"members", "--ied", "QVFTU1", "--ld", "CTRL", "--ln", "XCBR1", "--da", "stVal",
          "--fc", "ST"},
         realDbPath(),
         jsonSelect(member, "from DataSetSub where ldInst='CTRL' and lnClass='XCBR' and "
                            "lnInst='1' and daName='stVal'")},
        {{"members", "--lnclass", "MMXU", "--da", "cVal$mag$f"}, realDbPath(),
         jsonSelect(member, "from DataSetSub where lnClass='MMXU' and daName='cVal.mag.f'")},
        {{"attrs", "--ied", "QVFTU1", "--ld", "MEAS", "--ln", "MMXU1", "--do", "PhV.phsA",
          "--fc", "MX"},
         realDbPath(),
         jsonSelect(attr, "from DA where lnName='MMXU1' and doName='PhV$phsA' and fcName='MX'")},
        {{"processes"}, confDbPath(),
         jsonSelect("no processName processDescribe", "from ProcessConfig")},
        {{"terminals"}, realDbPath(),
         jsonSelect("id QVsoftware_version QVhardware_version SGsoftware_version SGhardware_version "
                    "name addr failedcount state desc", "from LTUInfor")},
        {{"access"}, realDbPath(),
         jsonSelect("date_time deviceid accessmodel desc key version", "from ltu_access_list")},
        {{"topology"}, realDbPath(),
         jsonSelect("id type m_rln name l_link r_link power_flag iedName substation",
                    "from TopoInfor")},
    };
    for (const auto& c : cases) {
        Words args = c.args;
        args.push_back("--json");
        const ToolRun run = tool(args);
        Json expected = Json::array();
        for (const auto& row : query(c.db, c.sql)) expected.push_back(parsed(row[0]));
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(sorted(parsed(run.out)), sorted(expected)) << testing::PrintToString(args);
        // The table: a header and one line per row.
        EXPECT_EQ(lines(tool(c.args).out).size(), expected.size() + 1)
            << testing::PrintToString(c.args);
    }
    // Bytes that are not UTF-8 are replaced, not refused.
    execSql(realDbPath(), "update LTUInfor set desc=cast(x'ff41' as text)");
    EXPECT_EQ(parsed(tool({"terminals", "--json"}).out)[0]["desc"], "\xEF\xBF\xBD" "A");
}

// Listings and settings of the sample, empty listings (exit 0), filters and
// lookups that find nothing (exit 1, with the near names).
TEST_F(Tool, AnswersOfTheSampleAndOfLookupsThatFindNothing) {
    provision();
    const std::string q = "QVFTU1MEAS/MMXU1$MX$TotW$q";
    const struct { Words args; int code; std::string out, err; } cases[] = {
        {{"members", "--ds", "dsain"}, 1, "", "no data set \"dsain\"; did you mean dsAin?"},
        {{"attrs", "--fc", "", "--json"}, 1, "", "no FC \"\""},
        {{"attrs", "--ln", "MMXU", "--csv"}, 1, "", "no LN \"MMXU\"; did you mean MMXU1?"},
        {{"attrs", "--ln", "MMXU1", "--fc", "CO"}, 1, "", "no attribute matches these filters together"},
        {{"members", "--ied", "QVFTU1", "--lnclass", "MMXU", "--fc", "ST"}, 1, "", "no member matches"},
        {{"terminals", "--json"}, 0, "[]\n", ""},
        {{"routes", "qvtool watch", "--json"}, 0, "[]\n", ""},  // known, but sends nothing
        {{"tree", "--ied", "QVFTU"}, 1, "", "no IED \"QVFTU\"; did you mean QVFTU1?"},
        {{"find", "*nosuch*"}, 1, "", "no reference matches *nosuch*"},
        {{"find", "TotW", "--ln", "MMXU2"}, 1, "", "no LN \"MMXU2\"; did you mean MMXU1?"},
        {{"routes", "nobody"}, 1, "", "no process named \"nobody\""},
        {{"dump", "QVFTU1", "dsNone", "--json"}, 1, "", "no data set dsNone of IED QVFTU1"},
        {{"setting", "get", "qvacq", "nokey", "--json"}, 1, "", "has no setting nokey"},
        {{"get", "QVFTU1MEAS/MMXU1$MX$NoSuch$mag$f"}, 1, "", "no such data attribute"},
        // An attribute of the model outside the classified data sets.
        {{"get", q}, 1, "",
         "only members of the classified data sets (dsAin, dsDin, dsGgio, dsControl, dsEnergy) "
         "have live values"},
        {{"set", q, "1"}, 1, "", "only members of the classified data sets"},
        {{"get", "QVFTU1LD0/LPHD1$ST$PhyHealth"}, 1, "", "it names a whole data object"},
        {{"routes", "qvacq"}, 0,
         "TO             NO  MASK  KINDS\nqv104 -p 2404  2   0x12  soe,general\n"
         "qvtool watch   4   0x2   soe\n", ""},
        // The sample knows "qvtool watch", not this build's tool.
        {{"watch"}, 1, "", "cannot subscribe as process \"" + toolName() + " watch\""},
        {{"setting", "get", "qv104 -p 2404", "port"}, 0, "2404\n", ""},
        {{"setting", "set", "qv104 -p 2404", "port", "2405"}, 0, "port=2405 (listening TCP port)\n", ""},
        // The library writes existing settings only.
        {{"setting", "set", "qvacq", "nokey", "1"}, 1, "", ""},
    };
    for (const auto& c : cases) {
        const ToolRun run = tool(c.args);
        EXPECT_EQ(run.code, c.code) << testing::PrintToString(c.args) << run.err;
        EXPECT_EQ(run.out, c.out) << testing::PrintToString(c.args);
        EXPECT_THAT(run.err, HasSubstr(c.err)) << testing::PrintToString(c.args);
    }
    EXPECT_EQ(parsed(tool({"routes", "qvacq", "--json"}).out)[0],
              Json({{"sendProcessNo", 1}, {"recvProcessNo", 2}, {"msgType", 18},
                    {"recvProcessName", "qv104 -p 2404"}, {"mask", "0x12"}, {"kinds", "soe,general"}}));
    EXPECT_EQ(parsed(tool({"setting", "set", "qv104 -p 2404", "t1", "20", "ack timeout", "--json"}).out),
              Json({{"key", "t1"}, {"value", "20"}, {"describe", "ack timeout"}}));
    EXPECT_EQ(query(confDbPath(), "select key,value,descripe from ProcessMisc where processNo=2"),
              (Rows{{"port", "2405", "listening TCP port"}, {"t1", "20", "ack timeout"}}));
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessMisc"), 5);
}

TEST_F(Tool, SetGetDumpAndTreeCarryValueAndQuality) {
    provision();
    const std::string shown = "quality=16385 (invalid,other bits 0x4000)\n";
    EXPECT_EQ(tool({"set", kTotW, "231.5", "0x4001"}).out, "value=231.5 " + shown);
    EXPECT_EQ(tool({"get", kTotW}).out, "value=231.5 " + shown);
    // Without a quality the stored one stays.
    EXPECT_EQ(tool({"set", kTotW, "-0.1"}).out, "value=-0.1 " + shown);
    EXPECT_EQ(parsed(tool({"get", kTotW, "--json"}).out),
              Json({{"daName", kTotW}, {"value", -0.1}, {"quality", 16385},
                    {"qualityBits", {"invalid", "other bits 0x4000"}}, {"timestamp", 0.0}}));
    ASSERT_EQ(tool({"set", kPhsA, "13.25", "3"}).code, 0);
    Json expected = Json::array();
    for (const auto& member :
         query(realDbPath(), "select fcdaName from DataSetSub where iedName='QVFTU1' and dsName='dsAin'")) {
        const std::string& ref = member[0];
        expected.push_back({{"fcdaName", ref},
                            {"value", ref == kTotW ? -0.1 : ref == kPhsA ? 13.25 : 0.0},
                            {"quality", ref == kTotW ? 16385 : ref == kPhsA ? 3 : 0},
                            {"qualityBits", ref == kTotW ? Json{"invalid", "other bits 0x4000"}
                                            : ref == kPhsA ? Json{"questionable"} : Json{"good"}},
                            {"timestamp", 0.0}});
    }
    ASSERT_GT(expected.size(), 2u);
    EXPECT_EQ(parsed(tool({"dump", "QVFTU1", "dsAin", "--json"}).out), expected);
    // Members without a value row (whole data objects, unclassified sets) show none.
    EXPECT_THAT(parsed(tool({"dump", "QVFTU1", "dsAlarm", "--json"}).out),
                testing::Contains(Json({{"fcdaName", "QVFTU1LD0/LPHD1$ST$PhyHealth"},
                                        {"value", nullptr}, {"quality", nullptr},
                                        {"qualityBits", nullptr}, {"timestamp", nullptr}})));

    // The tree: one line per attribute, plus the IED, LD, LN and DO lines.
    const ToolRun run = tool({"tree", "--ied", "QVFTU1", "--ld", "MEAS"});
    ASSERT_EQ(run.code, 0) << run.err;
    const std::vector<std::string> treeLines = lines(run.out);
    const auto phsA = std::find(treeLines.begin(), treeLines.end(), "      PhV.phsA");
    ASSERT_NE(phsA, treeLines.end()) << run.out;
    EXPECT_EQ(treeLines[0] + "/" + treeLines[1], "QVFTU1/  MEAS");
    EXPECT_EQ(phsA[1], "        q [MX]");  // no value row
    EXPECT_THAT(treeLines, testing::Contains("        cVal.mag.f [MX] = 13.25 quality=3 (questionable)"));
    EXPECT_EQ(static_cast<long long>(treeLines.size()),
              queryInt(realDbPath(), "select 2+count(*)+count(distinct lnName)+count(distinct "
                                     "lnName||'.'||doName) from DA where ldName='MEAS'"));
    // In JSON: the attributes' records, each with its live value or null.
    const Json tree = parsed(tool({"tree", "--ld", "MEAS", "--json"}).out);
    ASSERT_EQ(static_cast<long long>(tree.size()),
              queryInt(realDbPath(), "select count(*) from DA where ldName='MEAS'"));
    long long live = 0;
    for (const Json& da : tree) {
        live += da["live"].is_null() ? 0 : 1;
        EXPECT_TRUE(da["daName"] != kPhsA || da["live"]["value"] == 13.25) << da;
    }
    EXPECT_EQ(live, queryInt(realDbPath(),
                             "select count(*) from DA join DAValue using (hashID) where ldName='MEAS'"));
}

TEST_F(Tool, ProcessAndRouteCommandsAreHarmlessToRepeat) {
    provision();
    const std::string route = "route \"qvtool\" -> \"qvtool watch\"", to = route + ": ";
    const struct { Words args; int code; std::string out; Rows routesAfter; } steps[] = {
        {{"process", "add", "qvtool", "5", "engineer's tool"}, 0,
         "process \"qvtool\" added as number 5\n", {}},
        {{"process", "add", "qvtool", "5"}, 0, "process \"qvtool\" is number 5 already\n", {}},
        {{"process", "add", "qvtool", "6"}, 1, "", {}},   // its number is 5
        {{"process", "add", "qvother", "5"}, 1, "", {}},  // 5 is taken
        {{"route", "add", "qvtool", "qvtool watch", "soe", "sboctrl"}, 0,
         to + "soe,sboctrl (0x22)\n", {{"5", "4", "34"}}},
        {{"route", "add", "qvtool", "qvtool watch", "soe", "general"}, 0,
         to + "soe,general,sboctrl (0x32)\n", {{"5", "4", "50"}}},
        {{"route", "add", "qvtool", "qvtool watch", "nokind"}, 2, "", {{"5", "4", "50"}}},
        {{"route", "add", "qvtool", "nobody", "soe"}, 1, "", {{"5", "4", "50"}}},
        {{"route", "remove", "qvtool", "qvtool watch", "soe"}, 0,
         "removed soe (0x2) from " + route + "; it carries general,sboctrl (0x30)\n",
         {{"5", "4", "48"}}},
        {{"route", "remove", "qvtool", "qvtool watch", "soe", "topo"}, 0,
         route + " carries general,sboctrl (0x30); nothing removed\n", {{"5", "4", "48"}}},
        {{"route", "add", "qvacq", "qvtool", "all"}, 0,
         "route \"qvacq\" -> \"qvtool\": file,soe,protect,sbodosave,general,sboctrl,sboctrlret,"
         "digitalout,digitaloutret,fault,topo,register,updatefile (0x1FFF)\n",
         {{"5", "4", "48"}, {"1", "5", "8191"}}},
        {{"route", "remove", "qvtool", "qvtool watch"}, 0,
         route + " removed; it carried general,sboctrl (0x30)\n", {{"1", "5", "8191"}}},
        {{"route", "remove", "qvtool", "qvtool watch"}, 0, "no " + route + "; nothing removed\n",
         {{"1", "5", "8191"}}},
        {{"process", "remove", "qvtool"}, 0,
         "process \"qvtool\" (number 5) and its routes removed\n", {}},
        {{"process", "remove", "qvtool"}, 0, "no process \"qvtool\"; nothing to remove\n", {}},
    };
    for (const auto& step : steps) {
        const ToolRun run = tool(step.args);
        EXPECT_EQ(run.code, step.code) << testing::PrintToString(step.args) << run.err;
        EXPECT_EQ(run.out, step.out) << testing::PrintToString(step.args);
        EXPECT_EQ(query(confDbPath(), "select sendProcessNo, recvProcessNo, msgType from "
                                      "ProcessMsgAssociation where sendProcessNo=5 or recvProcessNo=5"),
                  step.routesAfter) << testing::PrintToString(step.args);
    }
    EXPECT_EQ(processes(), 4);
    EXPECT_EQ(queryInt(confDbPath(), "select count(*) from ProcessMsgAssociation"), 5);
}

TEST_F(Tool, ExitCodesTellUsageErrorsFromFailures) {
    // No store yet: a failure, and no empty store file left behind.
    ToolRun run = tool({"get", kTotW});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("does not exist"));
    EXPECT_NE(access(realDbPath().c_str(), F_OK), 0);
    EXPECT_EQ(tool({"processes"}).code, 1);

    for (const Words& usage : std::vector<Words>{
             {}, {"nosuch"}, {"help", "nosuch"}, {"get"}, {"get", "a", "-r", "x"},
             {"get", "a", "-i", "-1"}, {"get", "a", "--json", "--csv"}, {"find"},
             {"get", "a", "--timeout", "0"}, {"get", "a", "--timeout", "x"}, {"set", kTotW, "12x"},
             {"set", kTotW, "1", "q"}, {"members", "--bogus", "x"}, {"members", "--ds"},
             {"members", "--ln", "XCBR1", "--lninst", "1"}, {"dump", "QVFTU1"},
             {"setting", "list", "a", "b"}, {"process", "add", "a", "b"}, {"route", "add", "a", "b"},
             {"send", "nokind"}, {"send", "soe", "value"}, {"send", "soe", "nofield=1"},
             {"send", "soe", "value=x"}, {"send", "topo", "strDa=" + std::string(256, 'x')},
             {"watch", "extra"}, {"watch", "--kind", "nokind"}, {"watch", "--count", "0"}}) {
        run = tool(usage);
        EXPECT_EQ(run.code, 2) << testing::PrintToString(usage);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, StartsWith("qvtool: ")) << testing::PrintToString(usage);
    }
    EXPECT_EQ(tool({"--version"}).out, std::string("qvtool (quorvane) ") + QV_VERSION + "\n");
    run = tool({"help", "members"});
    EXPECT_EQ(run.code, 0);
    EXPECT_THAT(run.out, StartsWith("usage: qvtool members "));
    EXPECT_EQ(run.out, tool({"members", "--help"}).out);
    EXPECT_THAT(tool({"help"}).out, HasSubstr("\n  tree "));
}

TEST_F(Tool, OutputThatCannotBeWrittenIsAFailure) {
    provision();
    const std::function<void()> toFullDisk = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    // A reader that has gone away, with SIGPIPE ignored as a shell script may.
    const std::function<void()> toClosedPipe = [] {
        int ends[2];
        if (pipe(ends) != 0) _exit(126);
        close(ends[0]);
        signal(SIGPIPE, SIG_IGN);
        dup2(ends[1], STDOUT_FILENO);
    };
    for (const Words& args : std::vector<Words>{{"datasets"}, {"attrs", "--json"}, {"get", kTotW},
                                                {"--help"}, {"help", "tree"}, {"--version"}, {"tree"}}) {
        for (const auto& redirect : {toFullDisk, toClosedPipe}) {
            const ToolRun run = tool(args, redirect);
            EXPECT_EQ(run.code, 1) << testing::PrintToString(args);
            EXPECT_THAT(run.err, HasSubstr("qvtool: cannot write the output: ")) << testing::PrintToString(args);
        }
    }
}

// This process holds the store lock, as a long write does; the library
// waits for it without end.
TEST_F(Tool, ABusyStoreIsAnnouncedAfterASecondAndGivenUpAfterTheTimeout) {
    provision();
    initRealSem();
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    locksem(semid);
    const std::string waiting = "qvtool: waiting for the real-time store ...\n";
    ToolRun run = tool({"get", kTotW, "--timeout", "1.5"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, waiting + "qvtool: gave up waiting for the real-time store after 1.5 s\n");
    run = tool({"get", kTotW, "--timeout", "0.2"});
    EXPECT_EQ(run.err, "qvtool: gave up waiting for the real-time store after 0.2 s\n");

    // Without a timeout the tool waits, says so, and goes on once the store is free.
    Spawn waiter(QV_TOOL, {"get", kTotW});
    EXPECT_EQ(waiter.readLine(2), waiting);
    unlocksem(semid);
    run = waiter.finish();
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "value=0 quality=0 (good)\n");
}

// A configuration store in its rollback journal, held by a writer past the
// library's wait: the lookups say the store could not be read, not that a
// process or a setting is missing.
TEST_F(Tool, AStoreThatStaysBusyIsNeverTakenForAMissingRow) {
    provision();
    execSql(confDbPath(), "PRAGMA journal_mode=DELETE");
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(confDbPath().c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
    for (const Words& lookup : std::vector<Words>{{"setting", "get", "qvacq", "period"},
                                                  {"process", "remove", "qvacq"}}) {
        const ToolRun run = tool(lookup);
        EXPECT_EQ(run.code, 1) << lookup[0];
        EXPECT_THAT(run.err, HasSubstr("cannot read the configuration store " + confDbPath() +
                                       ": sqlite3_prepare_v2 err database is locked"));
        EXPECT_THAT(run.err, testing::Not(HasSubstr("no ")));
        EXPECT_EQ(run.out, "");
    }
    sqlite3_exec(writer, "commit", nullptr, nullptr, nullptr);
    sqlite3_close(writer);
}

TEST_F(Tool, SendReachesWatchAlongTheRoutesOfTheToolsProcessName) {
    provision();
    const std::string name = toolName();
    ASSERT_EQ(tool({"process", "add", name, "10", "sender"}).code, 0);
    ASSERT_EQ(tool({"process", "add", name + " watch", "11", "monitor"}).code, 0);
    ASSERT_EQ(tool({"route", "add", name, name + " watch", "all"}).code, 0);
    ASSERT_EQ(tool({"route", "remove", name, name + " watch", "updatefile"}).code, 0);
    removeQueue(11);
    // The options make the tool run itself again under the name "TOOL watch".
    Spawn watcher(QV_TOOL, {"watch", "--kind", "soe,general,register", "--count", "3"});
    ToolRun run = tool({"send", "soe", "strDa=QVFTU1LD0/GGIO1$ST$Ind1$stVal", "value=1", "msec=-5"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "sent soe as process \"" + name + "\" along 1 route\n");
    const std::string version(63, 'v');
    for (const Words& sent : std::vector<Words>{
             {"send", "topo", "value=3"},  // not a watched kind
             {"send", "general", "buf=say \"hi\"\t", "type=7"},
             {"send", "register", "devcieid=ltu-7", "key=k1", "result=0x10", "version=" + version}})
        EXPECT_EQ(tool(sent).code, 0) << sent[1];
    // Kind 13 is off the route: nothing goes, and the tool says so.
    run = tool({"send", "updatefile", "iedName=QVFTU1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("no route from process \"" + name + "\""));

    // The watch ends by itself after three messages.
    const ToolRun watch = watcher.finish();
    EXPECT_EQ(watch.code, 0);
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    EXPECT_THAT(lines(watch.out),
        ElementsAre(
            MatchesRegex(stamp + "soe type=0 strDa=\"QVFTU1LD0/GGIO1\\$ST\\$Ind1\\$stVal\" "
                                 "value=1 minutes=0 msec=-5"),
            MatchesRegex(stamp + "general type=7 buf=\"say \\\\\"hi\\\\\"\\\\t\" dataLen=9"),
            MatchesRegex(stamp + "register devcieid=\"ltu-7\" key=\"k1\" result=16 desc=\"\" "
                                 "version=\"" + version + "\"")));

    // Unconfigured, the tool's process sends nothing.
    ASSERT_EQ(tool({"process", "remove", name}).code, 0);
    run = tool({"send", "soe", "value=1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("is not in ProcessConfig"));
    removeQueue(11);
}

TEST_F(Tool, LoadKeepsPrefixesAndClassesValuesByRuleAndChecksWithoutWriting) {
    provision();
    const std::string sets = dataPath("vendor_sets.scd");
    const long long rows = queryInt(realDbPath(), "select count(*) from DA");
    const struct {
        Words args;
        std::string lastLines;
    } runs[] = {
        {{"load", sets, "--check"}, "names merged: 2 logical nodes into 1 names\n"
                                    "value rows: 1 (ain 1, din 0, double point 0, control 0, energy 0)\n"},
        {{"load", sets, "--check", "--ln-prefix", "--values", "*=byfc"},
         "names merged: 0 logical nodes into 0 names\nvalue rows: 6 (ain 2, din 2, double point 1, control 1, energy 0)\n"},
    };
    for (const auto& run : runs) {
        const ToolRun result = tool(run.args);
        EXPECT_EQ(result.code, 0);
        EXPECT_THAT(result.out, testing::EndsWith(run.lastLines));
        EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA"), rows);  // the store untouched
    }
    EXPECT_EQ(tool({"load", sets, "--values", "*=bogus"}).code, 1);
    ASSERT_EQ(tool({"load", sets, "--ln-prefix", "--values", "*=byfc"}).code, 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(distinct daName) from DA where iedName='V1'"), 15);
}
