// The model in the real-time store: data sets, data set members and data
// attributes queried with every class of filter combination and the exact SQL
// texts, values written and read as lists and as whole data sets, also on the
// sample feeder terminal model as the model loader writes it.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

const char* const kTotW1 = "IED1LD0/MMXU1$MX$TotW$mag$f";
const char* const kHz1 = "IED1LD0/MMXU1$MX$Hz$mag$f";
const char* const kInd1 = "IED1LD0/GGIO1$ST$Ind1$stVal";
const char* const kInd2 = "IED1LD0/GGIO1$ST$Ind2$stVal";
const char* const kHealth = "IED1LD0/LPHD1$ST$PhyHealth";
const char* const kTotW2 = "IED2LD0/MMXU1$MX$TotW$mag$f";
const char* const kTotW2Meas = "IED2MEAS/MMXU2$MX$TotW$mag$f";
const char* const kUnits1 = "IED1LD0/MMXU1$CF$TotW$units$SIUnit";
const char* const kTotWMeas1 = "IED1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kLln0 = "IED1LD0/LLN0";
const char* const kNoRow = "IED1LD0/MMXU1$MX$Nope$mag$f";

std::string key(const char* reference) { return std::to_string(rowKey(reference)); }

std::string describe(const DataSet& s) {
    return std::string(s.iedName) + "|" + s.name + "|" + s.ldInst + "|" + s.desc;
}

std::string describe(const DataSetSub& s) {
    return std::string(s.fcdaName) + "|" + s.iedName + "|" + s.dsName + "|" + s.ldInst + "|" +
           s.lnClass + "|" + s.lnInst + "|" + s.doName + "|" + s.daName + "|" + s.fc;
}

std::string describe(const DA& d) {
    return std::string(d.daName) + "|" + d.iedName + "|" + d.ldName + "|" + d.lnName + "|" +
           d.doName + "|" + d.fcName + "|" + d.value + "|" + d.valueType + "|" + d.doDesc;
}

// Three data sets; members of two IED1 sets and one IED2 set, one of them a
// whole-DO member with an empty daName; attributes of both IEDs (only the
// first one keyed for the lookup by name); value rows for IED1's members.
class ModelStore : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        execSql(realDbPath(),
                "insert into DataSet values('IED1','dsA','LD0','analog values'),"
                "('IED1','dsB','LD0',''),('IED2','dsA','MEAS','other IED');"
                "insert into DataSetSub values"
                "('IED1LD0/MMXU1$MX$TotW$mag$f','IED1','dsA','LD0','MMXU','1','TotW','mag.f','MX'),"
                "('IED1LD0/MMXU1$MX$Hz$mag$f','IED1','dsA','LD0','MMXU','1','Hz','mag.f','MX'),"
                "('IED1LD0/GGIO1$ST$Ind1$stVal','IED1','dsA','LD0','GGIO','1','Ind1','stVal','ST'),"
                "('IED1LD0/GGIO1$ST$Ind2$stVal','IED1','dsB','LD0','GGIO','1','Ind2','stVal','ST'),"
                "('IED1LD0/LPHD1$ST$PhyHealth','IED1','dsB','LD0','LPHD','1','PhyHealth','','ST'),"
                "('IED2LD0/MMXU1$MX$TotW$mag$f','IED2','dsA','LD0','MMXU','1','TotW','mag.f','MX'),"
                "('IED2MEAS/MMXU2$MX$TotW$mag$f','IED2','dsA','MEAS','MMXU','2','TotW','mag.f','MX');"
                "insert into DA values"
                "('IED1LD0/MMXU1$MX$TotW$mag$f','IED1','LD0','MMXU1','TotW','MX','0.5','FLOAT32',"
                "'total active power'," + key(kTotW1) + "),"
                "('IED1LD0/MMXU1$MX$Hz$mag$f','IED1','LD0','MMXU1','Hz','MX','','FLOAT32','',0),"
                "('IED1LD0/MMXU1$CF$TotW$units$SIUnit','IED1','LD0','MMXU1','TotW','CF','62','Enum','',0),"
                "('IED1LD0/GGIO1$ST$Ind1$stVal','IED1','LD0','GGIO1','Ind1','ST','','BOOLEAN','',0),"
                "('IED1MEAS/MMXU1$MX$TotW$mag$f','IED1','MEAS','MMXU1','TotW','MX','','FLOAT32','',0),"
                "('IED2LD0/MMXU1$MX$TotW$mag$f','IED2','LD0','MMXU1','TotW','MX','','FLOAT32','',0),"
                "('IED1LD0/LLN0','IED1','LD0','LLN0','','','','','',0)");
        for (const char* reference : {kTotW1, kHz1, kInd1, kInd2, kHealth})
            execSql(realDbPath(), "insert into DAValue values(" + key(reference) + ",1,0,0,0)");
    }
};

template <size_t N>
struct FilterCase {
    std::array<const char*, N> filters;
    std::vector<const char*> expected;
};

// The fcdaNames of the members that match, through count then fetch; both
// must agree.
std::vector<std::string> membersMatching(const std::array<const char*, 8>& f) {
    int count = -1, delivered = -1;
    EXPECT_EQ(zq_getDataSetSubsByParamsNum(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], &count),
              0);
    std::vector<DataSetSub> subs(count + 1);
    EXPECT_EQ(zq_getDataSetSubsByParams(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7],
                                        subs.data(), &delivered),
              0);
    EXPECT_EQ(delivered, count);
    std::vector<std::string> names;
    for (int i = 0; i < delivered; ++i) names.push_back(subs[i].fcdaName);
    return names;
}

std::vector<std::string> attributesMatching(const std::array<const char*, 5>& f) {
    int count = -1, delivered = -1;
    EXPECT_EQ(zq_getDAsByParamsNum(f[0], f[1], f[2], f[3], f[4], &count), 0);
    std::vector<DA> das(count + 1);
    EXPECT_EQ(zq_getDAsByParams(f[0], f[1], f[2], f[3], f[4], das.data(), &delivered), 0);
    EXPECT_EQ(delivered, count);
    std::vector<std::string> names;
    for (int i = 0; i < delivered; ++i) names.push_back(das[i].daName);
    return names;
}

const char* const n = nullptr;  // no filter

std::vector<DaNameRow> nameRows(const std::vector<const char*>& references) {
    std::vector<DaNameRow> rows(references.size());
    for (size_t i = 0; i < references.size(); ++i) std::strcpy(rows[i], references[i]);
    return rows;
}

// value|quality of each reference's row, as the store holds it.
std::string stored(const std::vector<const char*>& references) {
    std::string text;
    for (const char* reference : references) {
        const auto row = query(
            realDbPath(), "select value,quality from DAValue where hashID=" + key(reference)).at(0);
        text += (text.empty() ? "" : " ") + row[0] + "|" + row[1];
    }
    return text;
}

}  // namespace

// ---- Queries -----------------------------------------------------------------------

TEST_F(ModelStore, LookupsByNameFindOnlyTheExactRow) {
    DataSet set{};
    DataSetSub sub{};
    DA da{};
    ASSERT_EQ(zq_getDataSetByName("IED2", "dsA", &set), 0);
    EXPECT_EQ(describe(set), "IED2|dsA|MEAS|other IED");
    ASSERT_EQ(zq_getDataSetSubByName(kHealth, &sub), 0);
    EXPECT_EQ(describe(sub), "IED1LD0/LPHD1$ST$PhyHealth|IED1|dsB|LD0|LPHD|1|PhyHealth||ST");
    ASSERT_EQ(zq_getDAByName(kTotW1, &da), 0);
    EXPECT_EQ(describe(da),
              "IED1LD0/MMXU1$MX$TotW$mag$f|IED1|LD0|MMXU1|TotW|MX|0.5|FLOAT32|total active power");
    // Not found: -1 without a message, and the caller's records stay as they were.
    CaptureStderr();
    EXPECT_EQ(zq_getDataSetByName("IED2", "dsB", &set) + zq_getDataSetByName("ied1", "dsB", &set) +
                  zq_getDataSetSubByName("IED1LD0/LPHD1$ST$Nope", &sub) +
                  zq_getDAByName("ied1LD0/MMXU1$MX$TotW$mag$f", &da),
              -4);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(std::string(set.iedName) + sub.fcdaName + da.daName,
              std::string("IED2") + kHealth + kTotW1);
}

TEST_F(ModelStore, LongAndNullTextsAreCutToTheirFields) {
    const std::string longText(300, 'x');
    execSql(realDbPath(), "drop table DataSetSub; create table DataSetSub(fcdaName,iedName,dsName,"
                          "ldInst,lnClass,lnInst,doName,daName,fc); insert into DataSetSub values('" +
                              longText + "','" + longText + "','dsL',NULL,'ABCDEFG','123456789',"
                              "'Do','Da','MXY')");
    auto sub = filledRecord<DataSetSub>('z');
    int count = 0;
    ASSERT_EQ(zq_getDataSetSubsByParams(n, "dsL", n, n, n, n, n, n, &sub, &count), 0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(describe(sub), longText.substr(0, 255) + "|" + longText.substr(0, 32) +
                                 "|dsL||ABCD|1234567|Do|Da|MX");
}

TEST_F(ModelStore, MemberAndAttributeFilters) {
    const FilterCase<8> members[] = {
        {{n, n, n, n, n, n, n, n}, {kTotW1, kHz1, kInd1, kInd2, kHealth, kTotW2, kTotW2Meas}},
        {{"IED2", n, n, n, n, n, n, n}, {kTotW2, kTotW2Meas}},
        {{n, "dsB", n, n, n, n, n, n}, {kInd2, kHealth}},
        {{n, n, n, n, n, n, n, "ST"}, {kInd1, kInd2, kHealth}},
        {{"IED1", n, n, n, n, n, n, "MX"}, {kTotW1, kHz1}},
        {{n, "dsA", n, n, n, n, n, "MX"}, {kTotW1, kHz1, kTotW2, kTotW2Meas}},
        {{"IED2", "dsA", "MEAS", "MMXU", "2", "TotW", "mag.f", "MX"}, {kTotW2Meas}},
        {{"IED2", "dsA", "MEAS", "MMXU", "2", "TotW", "mag.f", "ST"}, {}},
        {{n, n, n, n, n, n, "", n}, {kHealth}},  // an empty text matches only empty columns
        {{"", n, n, n, n, n, n, n}, {}},
        {{"IED1", "dsNope", n, n, n, n, n, n}, {}},
    };
    const FilterCase<5> attributes[] = {
        {{n, n, n, n, n}, {kTotW1, kHz1, kUnits1, kInd1, kTotWMeas1, kTotW2, kLln0}},
        {{"IED2", n, n, n, n}, {kTotW2}},
        {{n, "MEAS", n, n, n}, {kTotWMeas1}},
        {{n, n, n, n, "CF"}, {kUnits1}},
        {{n, "LD0", n, n, "MX"}, {kTotW1, kHz1, kTotW2}},
        {{"IED1", "LD0", "MMXU1", "TotW", "MX"}, {kTotW1}},
        {{n, n, n, "", n}, {kLln0}},
        {{"IED9", n, n, n, n}, {}},
    };
    CaptureStderr();
    for (const auto& c : members)
        EXPECT_THAT(membersMatching(c.filters), UnorderedElementsAreArray(c.expected));
    for (const auto& c : attributes)
        EXPECT_THAT(attributesMatching(c.filters), UnorderedElementsAreArray(c.expected));
    EXPECT_EQ(GetCapturedStderr(), "");
}

// ---- Values of lists and data sets -------------------------------------------------

TEST_F(ModelStore, ValueListsSaveAndReadBack) {
    // The middle reference has no value row: it is skipped, the caller's value stays.
    const auto names = nameRows({kTotW1, kNoRow, kInd1});
    const double values[] = {1.5, 2, -2.25};
    const int qualities[] = {0x40, 5, 7};
    CaptureStderr();
    ASSERT_EQ(zq_saveDAValues1(names.data(), values, qualities, 3), 0);
    EXPECT_EQ(stored({kTotW1, kInd1}), "1.5|64 -2.25|7");
    const double next[] = {10, 20, 30};
    ASSERT_EQ(zq_saveDAValues(names.data(), next, 3), 0);  // keeps the qualities
    double got[3] = {-1, -1, -1};
    int gotQuality[3] = {-1, -1, -1};
    ASSERT_EQ(zq_getDAValues1(names.data(), 3, got, gotQuality), 0);
    EXPECT_THAT(got, ElementsAre(10, -1, 30));
    EXPECT_THAT(gotQuality, ElementsAre(0x40, -1, 7));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 5);
    EXPECT_EQ(GetCapturedStderr(), "");
    // A count of 0 or less does nothing.
    EXPECT_EQ(zq_saveDAValues1(nullptr, nullptr, nullptr, 0) + zq_saveDAValues(names.data(), values, 0) +
                  zq_getDAValues(names.data(), -3, got),
              0);
    EXPECT_EQ(stored({kTotW1}), "10.0|64");
    EXPECT_EQ(got[0], 10);
}

TEST_F(ModelStore, ASaveWithAFailingElementWritesNothing) {
    // The second element fails: the whole list is rolled back and the save
    // fails with one line carrying SQLite's reason.
    execSql(realDbPath(),
            "create trigger refuse before update on DAValue when new.value=666"
            " begin select raise(abort, 'refused'); end");
    const auto names = nameRows({kTotW1, kHz1, kInd1});
    const double values[] = {1, 666, 3};
    const int qualities[] = {1, 2, 3};
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues(names.data(), values, 3), -1);
    EXPECT_EQ(zq_saveDAValues1(names.data(), values, qualities, 3), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err refused\nsqlite3_step err refused\n");
    EXPECT_EQ(stored({kTotW1, kHz1, kInd1}), "0.0|0 0.0|0 0.0|0");
    EXPECT_EQ(storeLockValue(), 1);
    const double good[] = {4, 5, 6};  // nothing stays open: the next list is saved
    EXPECT_EQ(zq_saveDAValues(names.data(), good, 3), 0);
    EXPECT_EQ(stored({kHz1}), "5.0|0");
}

TEST_F(ModelStore, DataSetValueCountsThatDoNotMatchTheMembers) {
    double got[1] = {-1};
    int count = 99;
    CaptureStderr();
    EXPECT_EQ(zq_getDAValuesByDataSet("IED1", "dsNope", got, &count), 0);
    EXPECT_EQ(zq_saveDAValuesByDataSet("IED2", "dsB", got, 0), 0);  // dsB is IED1's
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(count, 0);
    EXPECT_EQ(got[0], -1);
    // Fewer values write the first members; more write every member and fail.
    const double values[] = {7, 8, 9, 10, 11};
    const int qualities[] = {1, 1, 1, 1, 1};
    ASSERT_EQ(zq_saveDAValuesByDataSet("IED1", "dsA", values, 2), 0);
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues1ByDataSet("IED1", "dsB", values, qualities, 5), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_saveDAValues1ByDataSet: 5 values given, data set dsB has 2 members\n");
    EXPECT_EQ(stored({kTotW1, kHz1, kInd1, kInd2, kHealth}), "7.0|0 8.0|0 0.0|0 7.0|1 8.0|1");
    // A hostile name is cut in the message, not repeated whole.
    const std::string hostile(100000, 'h');
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValuesByDataSet("IED1", hostile.c_str(), values, 1), -1);
    const std::string message = GetCapturedStderr();
    EXPECT_THAT(message, testing::HasSubstr(" data set " + hostile.substr(0, 64) + " has "));
    EXPECT_LT(message.size(), 200u);
}

// ---- Failures ----------------------------------------------------------------------

TEST_F(ModelStore, MissingTablesFailWithTheMessageAndFreeTheLock) {
    execSql(realDbPath(), "drop table DataSet; drop table DataSetSub; drop table DA;"
                          "drop table DAValue");
    int setCount = 7, subCount = 7, valueCount = 7;
    DataSetSub sub;
    DA da;
    DaNameRow name = "IED1LD0/MMXU1$MX$TotW$mag$f";
    double value = -1;
    // The first statement after the drop still prepares against the schema
    // the connection knew; its step finds the change.
    CaptureStderr();
    EXPECT_EQ(zq_getAllDataSetsNum(&setCount), -1);
    EXPECT_EQ(zq_getDataSetSubsByParams(n, n, n, n, n, n, n, n, &sub, &subCount), -1);
    EXPECT_EQ(zq_getDAByName(kTotW1, &da), -1);
    EXPECT_EQ(zq_getDAValues(&name, 1, &value), -1);
    EXPECT_EQ(zq_getDAValuesByDataSet("IED1", "dsA", &value, &valueCount), -1);
    EXPECT_EQ(zq_saveDoubDAValue(kTotW1, 1.0), -1);
    EXPECT_EQ(zq_getDoubDAValue(kTotW1, &value), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_step err no such table: DataSet\n"
              "sqlite3_prepare_v2 err no such table: DataSetSub\n"
              "sqlite3_prepare_v2 err no such table: DA\n"
              "sqlite3_step err no such table: DAValue\n"
              "sqlite3_prepare_v2 err no such table: DataSetSub\nerr initDaValueDataSetInfo\n"
              "sqlite3_step err no such table: DAValue\nsqlite3_step err no such table: DAValue\n");
    EXPECT_EQ(setCount + subCount, 0);
    EXPECT_EQ(valueCount, 7);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(storeLockValue(), 1);
}

// ---- The SQL texts ------------------------------------------------------------------

namespace {

// Passes on the SQL text of a failed prepare, closing quote included.
void logSqlText(void* fd, int, const char* message) {
    if (const char* sql = std::strstr(message, " in \""))
        (void)!dprintf(*static_cast<int*>(fd), "%s\n", sql + 5);
}

// The SQL texts of the queries that `calls` runs, read from SQLite's error
// log in a child process, in which the model tables do not exist: each
// failed prepare logs "... in \"<SQL>\"" (cut after about 200 characters).
std::vector<std::string> sqlTextsOf(void (*calls)()) {
    zq_closeRealDB();
    execSql(realDbPath(), "drop table DataSet; drop table DataSetSub; drop table DA");
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        // The log can only be installed on an uninitialised library.
        (void)!freopen("/dev/null", "w", stderr);  // the library's own messages
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_LOG, logSqlText, &fds[1]);
        if (zq_openRealDB() == 0) calls();
        _exit(0);
    }
    close(fds[1]);
    std::vector<std::string> texts;
    FILE* log = fdopen(fds[0], "r");
    char line[4096];
    while (std::fgets(line, sizeof line, log)) texts.emplace_back(line, std::strlen(line) - 2);
    std::fclose(log);
    waitpid(child, nullptr, 0);
    return texts;
}

}  // namespace

TEST(ModelStoreSql, TextsAreAssembledBlankForBlank) {
    freshRealStore();
    const auto texts = sqlTextsOf([] {
        int count = 0;
        DataSet set;
        DataSetSub sub;
        DA da;
        zq_getAllDataSetsNum(&count);
        zq_getAllDataSets(&set, &count);
        zq_getDataSetByName("IED1", "dsA", &set);
        zq_getDataSetSubByName(kTotW1, &sub);
        zq_getDataSetSubsByParamsNum(n, n, n, n, n, n, n, n, &count);
        zq_getDataSetSubsByParamsNum(n, "dsA", n, n, n, n, n, n, &count);
        zq_getDataSetSubsByParamsNum("I", "d", "L", "M", "1", "D", "a", "MX", &count);
        zq_getDataSetSubsByParams(n, "dsA", n, n, n, n, n, "MX", &sub, &count);
        zq_getDAByName(kTotW1, &da);
        zq_getDAsByParamsNum(n, n, n, n, n, &count);
        zq_getDAsByParamsNum(n, "LD0", n, n, "MX", &count);
        zq_getDAsByParams("I", "L", "M", "D", "MX", &da, &count);
    });
    EXPECT_THAT(
        texts,
        ElementsAre(
            "select count(*) from DataSet", "select iedName, dsName,ldInst,dsDesc from DataSet",
            "select iedName, dsName,ldInst,dsDesc  from DataSet  where iedName=? and dsName=? ",
            "select fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc from DataSetSub "
            "where fcdaName=?",
            "select count(*) from DataSetSub ",
            "select count(*) from DataSetSub  where dsName=? ",
            "select count(*) from DataSetSub where iedName=?  and dsName=?  and ldInst=?  and "
            "lnClass=?  and lnInst=?  and doName=?  and daName=?  and fc=? ",
            "select  fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc  from "
            "DataSetSub  where dsName=?  and fc=? ",
            "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA  "
            "where hashID=?",
            "select count(*) from DA ", "select count(*) from DA  where ldName=?  and fcName=? ",
            "select daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc from DA  "
            "where iedName=?  and ldName=?  and lnName=?  and doName=?  and fcName=? "));
}

// ---- The sample feeder terminal model --------------------------------------------

namespace {

const char* const kIed = "QVFTU1";

class SampleModel : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        std::string path = sourcePath("samples/feeder_terminal.cid");
        ASSERT_EQ(zq_addIEDRealDB(path.data()), 0);
    }
};

std::vector<std::string> memberNames(const char* dsName) {
    return membersMatching({kIed, dsName, n, n, n, n, n, n});
}

size_t indexOf(const std::vector<std::string>& names, const char* name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
}

}  // namespace

TEST_F(SampleModel, DataSetValuesRoundTripShareMembersAndSkipUnclassifiedOnes) {
    const std::vector<std::string> ain = memberNames("dsAin");
    const int size = static_cast<int>(ain.size());
    EXPECT_EQ(size, 9);
    std::vector<double> values(size), got(size);
    std::vector<int> qualities(size), gotQuality(size);
    for (int i = 0; i < size; ++i) values[i] = 230.5 + i, qualities[i] = i * 4;
    ASSERT_EQ(zq_saveDAValues1ByDataSet(kIed, "dsAin", values.data(), qualities.data(), size), 0);
    int count = -1;
    ASSERT_EQ(zq_getDAValues1ByDataSet(kIed, "dsAin", got.data(), gotQuality.data(), &count), 0);
    EXPECT_EQ(count, size);
    EXPECT_EQ(got, values);
    EXPECT_EQ(gotQuality, qualities);
    for (int i = 0; i < size; ++i) {  // element i went to member i of the member list
        double value = 0;
        ASSERT_EQ(zq_getDoubDAValue(ain[i].c_str(), &value), 0);
        EXPECT_EQ(value, values[i]) << ain[i];
    }

    // Ind1 is a member of dsGgio and dsDin: both sets share its value row.
    const char* const ind1 = "QVFTU1LD0/GGIO1$ST$Ind1$stVal";
    const std::vector<std::string> ggio = memberNames("dsGgio"), din = memberNames("dsDin");
    std::vector<double> ggioValues(ggio.size(), 0), dinValues(din.size(), -1);
    ggioValues.at(indexOf(ggio, ind1)) = 1;
    ASSERT_EQ(zq_saveDAValuesByDataSet(kIed, "dsGgio", ggioValues.data(), ggio.size()), 0);
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsDin", dinValues.data(), &count), 0);
    ASSERT_EQ(count, static_cast<int>(din.size()));
    EXPECT_EQ(dinValues.at(indexOf(din, ind1)), 1);

    // dsAlarm's members have no value rows: they are counted, their values left as they were.
    const size_t alarmMembers = memberNames("dsAlarm").size();
    std::vector<double> alarm(alarmMembers, -7);
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsAlarm", alarm.data(), &count), 0);
    EXPECT_EQ(count, static_cast<int>(alarmMembers));
    EXPECT_EQ(alarm, std::vector<double>(alarmMembers, -7));
}
