// qvtool's inspection commands as a black box: CSV and raw output, find,
// several values at once with repeats, decoded quality, status and init
// under running processes.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "feed/feed_file.h"
#include "internal/qvfeed_hooks.h"
#include "qvmessage.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "qvtool_run.h"

using namespace qvtest;
using testing::HasSubstr;
using Json = nlohmann::ordered_json;

namespace {

using CsvRows = std::vector<std::vector<std::string>>;

// RFC 4180: fields split at commas, records at CRLF; a quoted field keeps
// commas, CR and LF, and "" stands for one quote. False for text that breaks
// the rules (a bare quote, a bare LF, an unterminated field).
bool readCsv(const std::string& text, CsvRows* rows) {
    rows->assign(1, {});
    std::string field;
    bool quoted = false, wasQuoted = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (c != '"') {
                field += c;
            } else if (i + 1 < text.size() && text[i + 1] == '"') {
                field += '"';
                ++i;
            } else {
                quoted = false;
            }
        } else if (c == '"') {
            if (!field.empty() || wasQuoted) return false;
            quoted = wasQuoted = true;
        } else if (c == ',' || c == '\r') {
            if (c == '\r' && (i + 1 >= text.size() || text[i + 1] != '\n')) return false;
            rows->back().push_back(field);
            field.clear();
            wasQuoted = false;
            if (c == '\r') {
                ++i;
                rows->emplace_back();
            }
        } else if (c == '\n') {
            return false;
        } else {
            field += c;
        }
    }
    if (quoted || !field.empty() || !rows->back().empty()) return false;
    rows->pop_back();
    return true;
}

// A JSON field's text as a CSV cell carries it; numbers compare as numbers.
std::string namesOf(const Json& bits) {
    std::string text;
    for (const Json& name : bits) text += (text.empty() ? "" : ",") + name.get<std::string>();
    return text;
}
bool sameCell(const std::string& cell, const Json& value) {
    if (value.is_string()) return cell == value.get<std::string>();
    if (value.is_null()) return cell.empty();
    if (value.is_array()) return cell == namesOf(value);
    return !cell.empty() && std::stod(cell) == value.get<double>();
}

// A record's field; tree nests the live value under "live".
Json fieldOf(const Json& record, const std::string& name) {
    if (record.contains("live") && (name == "value" || !record.contains(name)))
        return record["live"].is_null() ? Json() : record["live"].value(name, Json());
    return record.value(name, Json());
}



std::multiset<std::string> column(const Rows& rows) {
    std::multiset<std::string> values;
    for (const auto& row : rows) values.insert(row[0]);
    return values;
}

const char* const kTotW = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kPhsA = "QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f";

class ToolViews : public testing::Test {
protected:
    void SetUp() override {
        removeStore(realDbPath());
        removeStore(confDbPath());
        unlink((realDbPath() + "-feed").c_str());  // whatever earlier tests left in it
        ASSERT_EQ(tool({"init", "--conf-sample", sourcePath("samples/conf_sample.sql")}).code, 0);
        ASSERT_EQ(tool({"load", sourcePath("samples/feeder_terminal.cid")}).code, 0);
    }
};

}  // namespace

// The CSV of a listing is its JSON: a header of the record field names and
// one record per row, however awkward the texts.
TEST_F(ToolViews, CsvCarriesTheJsonFieldsOfEveryListing) {
    execSqlFile(realDbPath(), dataPath("awkward_texts.sql"));
    ASSERT_EQ(tool({"set", kTotW, "5", "0x83"}).code, 0);
    const std::vector<Words> listings = {
        {"datasets"},
        {"attrs", "--ied", "AWK1"},
        {"members", "--ied", "AWK1"},
        {"find", "*TotW*"},
        {"get", kTotW, kPhsA},
        {"dump", "QVFTU1", "dsAin"},
        {"tree", "--ied", "AWK1"},
        {"routes", "qvacq"},
        {"processes"},
    };
    for (const Words& listing : listings) {
        Words asJson = listing, asCsv = listing;
        asJson.push_back("--json");
        asCsv.insert(asCsv.begin() + 1, "--csv");  // options go anywhere
        const ToolRun json = tool(asJson), csv = tool(asCsv);
        ASSERT_EQ(csv.code, 0) << listing[0] << csv.err;
        const Json records = parsed(json.out);
        CsvRows rows;
        ASSERT_TRUE(readCsv(csv.out, &rows)) << listing[0] << "\n" << csv.out;
        ASSERT_EQ(rows.size(), records.size() + 1) << listing[0];
        for (size_t r = 1; r < rows.size(); ++r) {
            ASSERT_EQ(rows[r].size(), rows[0].size());
            for (size_t c = 0; c < rows[0].size(); ++c) {
                EXPECT_TRUE(sameCell(rows[r][c], fieldOf(records[r - 1], rows[0][c])))
                    << listing[0] << " " << rows[0][c] << ": " << rows[r][c];
            }
        }
    }
    // The awkward texts came through whole.
    CsvRows rows;
    ASSERT_TRUE(readCsv(tool({"datasets", "--csv"}).out, &rows));
    EXPECT_THAT(rows, testing::Contains(std::vector<std::string>{
                          "AWK1", "dsAwk", "LD0", "feeder 1, \"north\", bay\ntwo"}));
    EXPECT_THAT(rows, testing::Contains(std::vector<std::string>{"AWK1", "dsQuote", "LD0", "\"\""}));
    ASSERT_TRUE(readCsv(tool({"attrs", "--csv", "--ied", "AWK1", "--do", "TotW"}).out, &rows));
    EXPECT_EQ(rows.at(1).at(4), "total \"active\" power,\r\nthree phases");
}

// Several references in either notation, -r and -i anywhere, --raw values.
TEST_F(ToolViews, GetReadsSeveralReferencesAndRepeats) {
    ASSERT_EQ(tool({"set", kTotW, "231.5", "3"}).code, 0);
    ASSERT_EQ(tool({"set", kPhsA, "-7.25"}).code, 0);
    const std::string dotted = "QVFTU1MEAS/MMXU1.MX.PhV.phsA.cVal.mag.f";
    const struct { Words args; std::vector<std::string> out; } runs[] = {
        {{"get", "--raw", kTotW, dotted}, {"231.5", "-7.25"}},
        {{"get", "-r", "3", kTotW, "-i", "0.05", "--raw"}, {"231.5", "231.5", "231.5"}},
        {{"get", dotted, "--raw", "-r", "2"}, {"-7.25", "-7.25"}},
        {{"dump", "-r", "2", "QVFTU1", "dsAin", "--raw", "-i", "0"}, {}},
    };
    for (const auto& run : runs) {
        const ToolRun result = tool(run.args);
        EXPECT_EQ(result.code, 0) << result.err;
        if (!run.out.empty()) {
            EXPECT_EQ(lines(result.out), run.out);
        }
    }
    const long long members =
        queryInt(realDbPath(), "select count(*) from DataSetSub where dsName='dsAin'");
    EXPECT_EQ(static_cast<long long>(lines(tool({"dump", "QVFTU1", "dsAin", "--raw", "-r", "2"}).out).size()),
              2 * members);
    // Several references: a JSON array of the single record; one missing
    // reference is said and fails the run, the others still print.
    const Json both = parsed(tool({"get", kTotW, dotted, "--json"}).out);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[1], parsed(tool({"get", kPhsA, "--json"}).out));
    const ToolRun partial = tool({"get", kTotW, "QVFTU1MEAS/MMXU1.MX.NoSuch", "--raw"});
    EXPECT_EQ(partial.code, 1);
    EXPECT_THAT(partial.err, HasSubstr("no such data attribute"));
    EXPECT_EQ(lines(partial.out), (std::vector<std::string>{"231.5", ""}));
}

// The quality number's bits by name, the same in get, dump and tree.
TEST_F(ToolViews, QualityIsDecodedIntoItsNamedBits) {
    const struct { int quality; const char* text; } cases[] = {
        {0, "good"},
        {1, "invalid"},
        {2 | 1 << 12, "reserved,operator blocked"},
        {3 | 1 << 7, "questionable,old data"},
        {0x1ffc, "good,overflow,out of range,bad reference,oscillatory,failure,old data,"
                 "inconsistent,inaccurate,source substituted,test,operator blocked"},
        {1 << 10 | 1 << 11, "good,source substituted,test"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(tool({"set", kTotW, "1", std::to_string(c.quality)}).code, 0);
        EXPECT_EQ(tool({"get", kTotW}).out,
                  "value=1 quality=" + std::to_string(c.quality) + " (" + c.text + ")\n");
        const Json got = parsed(tool({"get", kTotW, "--json"}).out);
        EXPECT_EQ(got["quality"], c.quality);
        EXPECT_EQ(namesOf(got["qualityBits"]), c.text);
        Json dumped;
        for (const Json& row : parsed(tool({"dump", "QVFTU1", "dsAin", "--json"}).out))
            if (row["fcdaName"] == kTotW) dumped = row;
        EXPECT_EQ(dumped["qualityBits"], got["qualityBits"]);
        EXPECT_THAT(tool({"tree", "--ln", "MMXU1"}).out,
                    HasSubstr("mag.f [MX] = 1 quality=" + std::to_string(c.quality) + " (" +
                              c.text + ")\n"));
    }
}

// A value saved with its time shows that time in get, dump and tree: ISO
// 8601 UTC in text, the library's seconds in JSON.
TEST_F(ToolViews, ValuesShowTheirTime) {
    const double when = 1764090212.345;
    const std::string iso = "2025-11-25T17:03:32.345Z";
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValueT(kTotW, 42.5, 0x80, when), 0);
    zq_closeRealDB();
    EXPECT_EQ(tool({"get", kTotW}).out, "value=42.5 quality=128 (good,old data) time=" + iso + "\n");
    EXPECT_EQ(parsed(tool({"get", kTotW, "--json"}).out)["timestamp"], when);
    const std::vector<Words> shows = {{"dump", "QVFTU1", "dsAin"}, {"get", kTotW, kPhsA},
                                      {"tree", "--ln", "MMXU1"}};
    for (const Words& show : shows) EXPECT_THAT(tool(show).out, HasSubstr(iso)) << show[0];
    // A value never given a time has none.
    EXPECT_EQ(tool({"get", kPhsA}).out, "value=0 quality=0 (good)\n");
}

// Two monitors see a forked writer's saves as they happen: single, list and
// timed saves, a row whose key no reference has, and the reset of a load.
TEST_F(ToolViews, MonitorPrintsEveryChangeOfAForkedWriter) {
    const std::string orphan = "NOIED/NOLN$MX$X$f";
    execSql(realDbPath(), "insert into DAValue(hashID, type, value) values(" +
                              std::to_string(rowKey(orphan)) + ", 1, 0)");
    // A save before the monitors start, with the feed file looked at anew:
    // this process then writes to the store's current feed (not to one an
    // earlier test removed), and the forked writer inherits that.
    qvfeed::setNewFeedCapacity(0);
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue(orphan.c_str(), 0), 0);
    Spawn all(QV_TOOL, {"monitor", "--json", "--count", "6"});
    Spawn ain(QV_TOOL, {"monitor", "--ds", "dsAin", "--count", "4", "--ied", "QVFTU1"});
    ASSERT_EQ(all.readLine(2), "qvtool: following the change feed\n");
    ASSERT_EQ(ain.readLine(2), "qvtool: following the change feed\n");
    const char* const kPos = "QVFTU1CTRL/XCBR1$ST$Pos$stVal";
    const int written = runInChild([&] {
        DaNameRow names[2];
        std::snprintf(names[0], sizeof names[0], "%s", kPhsA);
        std::snprintf(names[1], sizeof names[1], "%s", kPos);
        const double values[2] = {230.5, 2};
        const int qualities[2] = {0, 1 << 7};
        const bool ok = zq_saveDoubDAValue1(kTotW, 1.5, 3) == 0 &&
                        zq_saveDoubDAValueT(kTotW, 2.5, 0, 1764090212.345) == 0 &&
                        zq_saveDAValues1(names, values, qualities, 2) == 0 &&
                        zq_saveDoubDAValue(orphan.c_str(), 9) == 0;
        return ok ? 0 : 1;
    });
    zq_closeRealDB();
    ASSERT_EQ(written, 0);
    ASSERT_EQ(tool({"load", sourcePath("samples/feeder_terminal.cid")}).code, 0);

    const ToolRun seen = all.finish();
    ASSERT_EQ(seen.code, 0) << seen.err;
    std::vector<Json> changes;
    for (const std::string& line : lines(seen.out)) changes.push_back(parsed(line));
    ASSERT_EQ(changes.size(), 6u) << seen.out;
    char orphanKey[16];
    std::snprintf(orphanKey, sizeof orphanKey, "0x%08llx", static_cast<unsigned long long>(rowKey(orphan)));
    const struct { const char* ref; double value; int quality; } expected[] = {
        {kTotW, 1.5, 3}, {kTotW, 2.5, 0}, {kPhsA, 230.5, 0}, {kPos, 2, 128}, {orphanKey, 9, 0}};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(changes[i]["kind"], "value");
        EXPECT_EQ(changes[i]["daName"], expected[i].ref);
        EXPECT_EQ(changes[i]["value"], expected[i].value);
        EXPECT_EQ(changes[i]["quality"], expected[i].quality);
        EXPECT_EQ(changes[i]["seq"], changes[0]["seq"].get<long long>() + static_cast<long long>(i));
    }
    EXPECT_EQ(changes[1]["timestamp"], 1764090212.345);
    EXPECT_EQ(changes[5]["kind"], "reset");

    // The data set's monitor: its members' changes and the reset, in text.
    const ToolRun members = ain.finish();
    ASSERT_EQ(members.code, 0) << members.err;
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";
    EXPECT_THAT(lines(members.out),
                testing::ElementsAre(
                    testing::MatchesRegex(stamp + "QVFTU1MEAS/MMXU1\\$MX\\$TotW\\$mag\\$f 1\\.5 quality=3 \\(questionable\\)"),
                    "2025-11-25T17:03:32.345Z QVFTU1MEAS/MMXU1$MX$TotW$mag$f 2.5 quality=0 (good)",
                    testing::MatchesRegex(stamp + "QVFTU1MEAS/MMXU1\\$MX\\$PhV\\$phsA\\$cVal\\$mag\\$f 230\\.5 quality=0 \\(good\\)"),
                    testing::MatchesRegex(stamp + "reset: values changed beyond the feed; re-read what you hold")));
}

// find: the references of both tables that the pattern and filters keep,
// exactly the rows SQL finds.
TEST_F(ToolViews, FindMatchesWildcardsAndFiltersOverAttributesAndMembers) {
    const struct { Words args; std::string sql; } cases[] = {
        {{"find", "totw"},
         "select daName from DA where daName like '%totw%' union all "
         "select fcdaName from DataSetSub where fcdaName like '%totw%'"},
        {{"find", "QVFTU1MEAS/MMXU1.MX.PhV.phs?.cVal.mag.f"},
         "select daName from DA where daName glob 'QVFTU1MEAS/MMXU1$MX$PhV$phs?$cVal$mag$f' "
         "union all select fcdaName from DataSetSub where "
         "fcdaName glob 'QVFTU1MEAS/MMXU1$MX$PhV$phs?$cVal$mag$f'"},
        {{"find", "*", "--ds", "dsAin"}, "select fcdaName from DataSetSub where dsName='dsAin'"},
        {{"find", "--lnclass", "MMXU", "*$q", "--fc", "MX"},
         "select daName from DA where lnName like 'MMXU%' and fcName='MX' and daName like '%$q'"},
        {{"find", "*", "--da", "cVal$mag$f", "--ln", "MMXU1", "--do", "PhV.phsA"},
         "select daName from DA where lnName='MMXU1' and doName='PhV$phsA' and "
         "daName = iedName||ldName||'/'||lnName||'$'||fcName||'$'||doName||'$cVal$mag$f' "
         "union all select fcdaName from DataSetSub where lnClass='MMXU' and lnInst='1' and "
         "doName='PhV.phsA' and daName='cVal.mag.f'"},
        {{"find", "*", "--da", "mag.f", "--ln", "MMXU1", "--do", "PhV.phsA"}, "select 1 where 0"},
        {{"find", "*", "--lninst", "1", "--ld", "CTRL", "--fc", "ST"},
         "select daName from DA where ldName='CTRL' and fcName='ST' and lnName glob '*[^0-9]1' "
         "union all select fcdaName from DataSetSub where ldInst='CTRL' and fc='ST' and "
         "lnInst='1'"},
    };
    for (const auto& c : cases) {
        const ToolRun run = tool(c.args);
        const Rows expected = query(realDbPath(), c.sql);
        EXPECT_EQ(run.code, expected.empty() ? 1 : 0) << testing::PrintToString(c.args) << run.err;
        Words asJson = c.args;
        asJson.push_back("--json");
        std::multiset<std::string> found;
        for (const Json& row : parsed(tool(asJson).out))
            if (row.is_object()) found.insert(row["reference"].get<std::string>());
        EXPECT_EQ(found, column(expected)) << testing::PrintToString(c.args);
    }
}

// attrs --lnclass/--da and tree --ln/--long: the rows SQL finds.
TEST_F(ToolViews, AttributeAndTreeFilters) {
    const Json attrs = parsed(tool({"attrs", "--lnclass", "MMXU", "--da", "mag.f", "--json"}).out);
    std::multiset<std::string> shown;
    for (const Json& da : attrs) shown.insert(da["daName"].get<std::string>());
    EXPECT_EQ(shown, column(query(realDbPath(),
                                  "select daName from DA where lnName like 'MMXU%' and daName = "
                                  "iedName||ldName||'/'||lnName||'$'||fcName||'$'||doName||'$mag$f'")));
    EXPECT_FALSE(shown.empty());

    const ToolRun tree = tool({"tree", "--ln", "MMXU1", "--long"});
    ASSERT_EQ(tree.code, 0) << tree.err;
    EXPECT_EQ(static_cast<long long>(lines(tree.out).size()),
              queryInt(realDbPath(), "select 3+count(*)+count(distinct doName) from DA where lnName='MMXU1'"));
    // A data object's description is the first one its attributes carry.
    for (const auto& row : query(realDbPath(), "select doName, min(doDesc) from DA "
                                               "where lnName='MMXU1' and doDesc<>'' group by 1")) {
        std::string path = row[0];
        std::replace(path.begin(), path.end(), '$', '.');
        EXPECT_THAT(tree.out, HasSubstr("      " + path + "  \"" + row[1] + "\"\n"));
    }
    EXPECT_THAT(tree.out, HasSubstr(" [MX] FLOAT32"));
}

// status: healthy, then each thing that is wrong makes it exit 1 and say so.
TEST_F(ToolViews, StatusSaysWhatIsWrong) {
    ToolRun run = tool({"status", "--json"});
    ASSERT_EQ(run.code, 0) << run.out << run.err;
    const Json healthy = parsed(run.out);
    EXPECT_EQ(healthy["stores"][0]["tables"]["DA"], queryInt(realDbPath(), "select count(*) from DA"));
    EXPECT_EQ(healthy["stores"][0]["quickCheck"], "ok");
    EXPECT_EQ(healthy["stores"][0]["journalMode"], "wal");
    EXPECT_EQ(healthy["stores"][0]["ieds"][0]["members"],
              queryInt(realDbPath(), "select count(*) from DataSetSub where iedName='QVFTU1'"));
    EXPECT_EQ(healthy["stores"][0]["valueRows"]["ain"],
              queryInt(realDbPath(), "select count(*) from DAValue where type=1"));
    EXPECT_EQ(healthy["queues"].size(),
              static_cast<size_t>(queryInt(confDbPath(), "select count(distinct recvProcessNo) from ProcessMsgAssociation")));
    EXPECT_EQ(healthy["problems"], Json::array());
    // The feed's position moves with each save.
    ASSERT_EQ(healthy["feed"]["state"], "ok");
    ASSERT_EQ(tool({"set", kTotW, "1"}).code, 0);
    EXPECT_EQ(parsed(tool({"status", "--json"}).out)["feed"]["published"],
              healthy["feed"]["published"].get<long long>() + 1);

    // A queue at its limit: records put on it until it refuses one.
    const int msgid = msgget(2 + QV_QUEUE_KEY_OFFSET, IPC_CREAT | 0666);
    ASSERT_GE(msgid, 0);
    struct { long mtype; MSGINFO info; } record{1, {}};
    int queued = 0;
    while (msgsnd(msgid, &record, sizeof record.info, IPC_NOWAIT) == 0) ++queued;
    ASSERT_EQ(errno, EAGAIN);
    run = tool({"status"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.out, HasSubstr("PROBLEM: the queue of process 2 (qv104 -p 2404) is full: " +
                                   std::to_string(queued) + " records"));
    msgctl(msgid, IPC_RMID, nullptr);
    EXPECT_EQ(tool({"status"}).code, 0);

    // The lock held past a second, by this process.
    initRealSem();
    const int semid = semget(QV_SEM_KEY, 1, 0666);
    locksem(semid);
    run = tool({"status"});
    unlocksem(semid);
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.out, HasSubstr("lock: taken by process " + std::to_string(getpid())));

    // A feed file that is no feed.
    const std::string feed = realDbPath() + "-feed";
    {
        const int fd = open(feed.c_str(), O_WRONLY);
        const char zeros[64] = {};
        ASSERT_EQ(pwrite(fd, zeros, sizeof zeros, 0), static_cast<ssize_t>(sizeof zeros));
        close(fd);
    }
    run = tool({"status"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.out, HasSubstr("PROBLEM: the change feed " + feed + " is not a feed file"));
    unlink(feed.c_str());
    // A feed file retired but still in place: its followers would get resets only.
    ASSERT_EQ(tool({"set", kTotW, "2"}).code, 0);
    {
        const int fd = open(feed.c_str(), O_RDWR);
        const std::uint32_t retired = 1;
        ASSERT_EQ(pwrite(fd, &retired, sizeof retired, offsetof(qvfeed::Header, retired)),
                  static_cast<ssize_t>(sizeof retired));
        close(fd);
    }
    run = tool({"status"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.out, HasSubstr("PROBLEM: the change feed " + feed + " is retired"));
    unlink(feed.c_str());

    // A table gone.
    execSql(realDbPath(), "alter table DataSetSub rename to Gone");
    run = tool({"status", "--json"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(namesOf(parsed(run.out)["problems"]),
                HasSubstr("the real-time store's table DataSetSub: no such table: DataSetSub"));
    EXPECT_THAT(run.err, HasSubstr("DataSetSub"));
}

// init --fresh never removes a store from under a process that has it open.
TEST_F(ToolViews, FreshInitRefusesWhileAnotherProcessHasAStoreOpen) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    Child holder([&] {
        const int fd = open(realDbPath().c_str(), O_RDONLY);
        const pid_t pid = getpid();
        if (fd < 0 || write(ready[1], &pid, sizeof pid) != sizeof pid) return 1;
        pause();
        return 0;
    });
    pid_t pid = 0;
    ASSERT_EQ(read(ready[0], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    const long long attributes = queryInt(realDbPath(), "select count(*) from DA");
    ToolRun run = tool({"init", "--fresh"});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr(std::to_string(pid) + " (qv_tests) has the store " + realDbPath()));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA"), attributes);
    run = tool({"init", "--fresh", "--force"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA"), 0);
    holder.signal(SIGKILL);
    close(ready[0]);
    close(ready[1]);
    EXPECT_EQ(tool({"init", "--fresh"}).code, 0);
}
