// Model queries of the real-time store: data sets, data set members and data
// attributes, with every class of filter combination and the exact SQL texts.
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::realDbPath;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using qvtest::storeLockValue;

std::string key(const char* reference) { return std::to_string(qvtest::rowKey(reference)); }

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

// Member rows: two data sets of IED1, one of IED2, and one whole-DO member
// with an empty daName.
const char* const kMemberRows =
    "insert into DataSetSub values"
    "('IED1LD0/MMXU1$MX$TotW$mag$f','IED1','dsA','LD0','MMXU','1','TotW','mag.f','MX'),"
    "('IED1LD0/MMXU1$MX$Hz$mag$f','IED1','dsA','LD0','MMXU','1','Hz','mag.f','MX'),"
    "('IED1LD0/GGIO1$ST$Ind1$stVal','IED1','dsA','LD0','GGIO','1','Ind1','stVal','ST'),"
    "('IED1LD0/GGIO1$ST$Ind2$stVal','IED1','dsB','LD0','GGIO','1','Ind2','stVal','ST'),"
    "('IED1LD0/LPHD1$ST$PhyHealth','IED1','dsB','LD0','LPHD','1','PhyHealth','','ST'),"
    "('IED2LD0/MMXU1$MX$TotW$mag$f','IED2','dsA','LD0','MMXU','1','TotW','mag.f','MX'),"
    "('IED2MEAS/MMXU2$MX$TotW$mag$f','IED2','dsA','MEAS','MMXU','2','TotW','mag.f','MX')";

const char* const kDataAttributes[][9] = {
    {"IED1LD0/MMXU1$MX$TotW$mag$f", "IED1", "LD0", "MMXU1", "TotW", "MX", "", "FLOAT32",
     "total active power"},
    {"IED1LD0/MMXU1$MX$Hz$mag$f", "IED1", "LD0", "MMXU1", "Hz", "MX", "", "FLOAT32", ""},
    {"IED1LD0/MMXU1$CF$TotW$units$SIUnit", "IED1", "LD0", "MMXU1", "TotW", "CF", "62", "Enum",
     ""},
    {"IED1LD0/GGIO1$ST$Ind1$stVal", "IED1", "LD0", "GGIO1", "Ind1", "ST", "", "BOOLEAN", ""},
    {"IED1MEAS/MMXU1$MX$TotW$mag$f", "IED1", "MEAS", "MMXU1", "TotW", "MX", "", "FLOAT32", ""},
    {"IED2LD0/MMXU1$MX$TotW$mag$f", "IED2", "LD0", "MMXU1", "TotW", "MX", "", "FLOAT32", ""},
    {"IED1LD0/LLN0", "IED1", "LD0", "LLN0", "", "", "", "", ""},
};

class ModelQueries : public qvtest::RealStoreTest {
protected:
    void SetUp() override {
        qvtest::RealStoreTest::SetUp();
        execSql(realDbPath(),
                "insert into DataSet values('IED1','dsA','LD0','analog values'),"
                "('IED1','dsB','LD0',''),('IED2','dsA','MEAS','other IED')");
        execSql(realDbPath(), kMemberRows);
        for (const auto& da : kDataAttributes) {
            std::string values;
            for (const char* column : da) values += "'" + std::string(column) + "',";
            execSql(realDbPath(), "insert into DA values(" + values + key(da[0]) + ")");
        }
    }
};

using MemberFilters = std::array<const char*, 8>;

// The fcdaNames of the members that match, through count then fetch; both
// must agree.
std::vector<std::string> membersMatching(const MemberFilters& f) {
    int count = -1;
    EXPECT_EQ(zq_getDataSetSubsByParamsNum(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], &count),
              0);
    std::vector<DataSetSub> subs(count + 1);
    int delivered = -1;
    EXPECT_EQ(zq_getDataSetSubsByParams(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7],
                                        subs.data(), &delivered),
              0);
    EXPECT_EQ(delivered, count);
    std::vector<std::string> names;
    for (int i = 0; i < delivered; ++i) names.push_back(subs[i].fcdaName);
    return names;
}

using AttributeFilters = std::array<const char*, 5>;

std::vector<std::string> attributesMatching(const AttributeFilters& f) {
    int count = -1;
    EXPECT_EQ(zq_getDAsByParamsNum(f[0], f[1], f[2], f[3], f[4], &count), 0);
    std::vector<DA> das(count + 1);
    int delivered = -1;
    EXPECT_EQ(zq_getDAsByParams(f[0], f[1], f[2], f[3], f[4], das.data(), &delivered), 0);
    EXPECT_EQ(delivered, count);
    std::vector<std::string> names;
    for (int i = 0; i < delivered; ++i) names.push_back(das[i].daName);
    return names;
}

const char* const kTotW1 = "IED1LD0/MMXU1$MX$TotW$mag$f";
const char* const kHz1 = "IED1LD0/MMXU1$MX$Hz$mag$f";
const char* const kInd1 = "IED1LD0/GGIO1$ST$Ind1$stVal";
const char* const kInd2 = "IED1LD0/GGIO1$ST$Ind2$stVal";
const char* const kHealth = "IED1LD0/LPHD1$ST$PhyHealth";
const char* const kTotW2 = "IED2LD0/MMXU1$MX$TotW$mag$f";
const char* const kTotW2Meas = "IED2MEAS/MMXU2$MX$TotW$mag$f";

}  // namespace

// ---- Data sets ------------------------------------------------------------------

TEST_F(ModelQueries, AllDataSetsAreCountedAndListed) {
    int count = -1;
    ASSERT_EQ(zq_getAllDataSetsNum(&count), 0);
    EXPECT_EQ(count, 3);
    DataSet sets[3];
    ASSERT_EQ(zq_getAllDataSets(sets, &count), 0);
    ASSERT_EQ(count, 3);
    EXPECT_THAT((std::vector<std::string>{describe(sets[0]), describe(sets[1]), describe(sets[2])}),
                UnorderedElementsAre("IED1|dsA|LD0|analog values", "IED1|dsB|LD0|",
                                     "IED2|dsA|MEAS|other IED"));
}

TEST_F(ModelQueries, AnEmptyDataSetTableGivesNoRows) {
    execSql(realDbPath(), "delete from DataSet");
    int count = -1;
    ASSERT_EQ(zq_getAllDataSetsNum(&count), 0);
    EXPECT_EQ(count, 0);
    DataSet unused;
    count = -1;
    ASSERT_EQ(zq_getAllDataSets(&unused, &count), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(ModelQueries, DataSetByNameNeedsBothNames) {
    DataSet set{};
    ASSERT_EQ(zq_getDataSetByName("IED2", "dsA", &set), 0);
    EXPECT_EQ(describe(set), "IED2|dsA|MEAS|other IED");
    std::strcpy(set.name, "kept");
    CaptureStderr();
    EXPECT_EQ(zq_getDataSetByName("IED2", "dsB", &set), -1);  // dsB is IED1's
    EXPECT_EQ(zq_getDataSetByName("ied1", "dsB", &set), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_STREQ(set.name, "kept");
}

TEST_F(ModelQueries, MemberByName) {
    DataSetSub sub{};
    ASSERT_EQ(zq_getDataSetSubByName(kHealth, &sub), 0);
    EXPECT_EQ(describe(sub), "IED1LD0/LPHD1$ST$PhyHealth|IED1|dsB|LD0|LPHD|1|PhyHealth||ST");
    CaptureStderr();
    EXPECT_EQ(zq_getDataSetSubByName("IED1LD0/LPHD1$ST$Nope", &sub), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_STREQ(sub.fcdaName, kHealth);
}

TEST_F(ModelQueries, LongAndNullTextsAreCutToTheirFields) {
    const std::string longText(300, 'x');
    execSql(realDbPath(),
            "drop table DataSet; create table DataSet(iedName,dsName,ldInst,dsDesc);"
            "insert into DataSet values('" + longText + "','dsL',NULL,'" + longText + "');"
            "insert into DataSetSub values('" + longText + "','IED1','dsL','LD0','ABCDEFG',"
            "'123456789','Do','Da','MXY')");
    DataSet set;
    std::memset(&set, 'z', sizeof set);
    ASSERT_EQ(zq_getDataSetByName(longText.c_str(), "dsL", &set), 0);
    EXPECT_EQ(std::string(set.iedName), longText.substr(0, 32));
    EXPECT_EQ(std::string(set.ldInst), "");
    EXPECT_EQ(std::string(set.desc), longText.substr(0, 255));
    DataSetSub sub;
    int count = 0;
    ASSERT_EQ(zq_getDataSetSubsByParams(nullptr, "dsL", nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, &sub, &count),
              0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(describe(sub), longText.substr(0, 255) + "|IED1|dsL|LD0|ABCD|1234567|Do|Da|MX");
}

// ---- Data set members: filters --------------------------------------------------

TEST_F(ModelQueries, MemberFiltersNoneOrOne) {
    const char* n = nullptr;
    EXPECT_THAT(membersMatching({n, n, n, n, n, n, n, n}),
                UnorderedElementsAre(kTotW1, kHz1, kInd1, kInd2, kHealth, kTotW2, kTotW2Meas));
    EXPECT_THAT(membersMatching({"IED2", n, n, n, n, n, n, n}),
                UnorderedElementsAre(kTotW2, kTotW2Meas));
    EXPECT_THAT(membersMatching({n, "dsB", n, n, n, n, n, n}), UnorderedElementsAre(kInd2, kHealth));
    EXPECT_THAT(membersMatching({n, n, "MEAS", n, n, n, n, n}), ElementsAre(kTotW2Meas));
    EXPECT_THAT(membersMatching({n, n, n, "GGIO", n, n, n, n}), UnorderedElementsAre(kInd1, kInd2));
    EXPECT_THAT(membersMatching({n, n, n, n, "2", n, n, n}), ElementsAre(kTotW2Meas));
    EXPECT_THAT(membersMatching({n, n, n, n, n, "TotW", n, n}),
                UnorderedElementsAre(kTotW1, kTotW2, kTotW2Meas));
    EXPECT_THAT(membersMatching({n, n, n, n, n, n, "stVal", n}), UnorderedElementsAre(kInd1, kInd2));
    EXPECT_THAT(membersMatching({n, n, n, n, n, n, n, "ST"}),
                UnorderedElementsAre(kInd1, kInd2, kHealth));
}

TEST_F(ModelQueries, MemberFiltersCombined) {
    const char* n = nullptr;
    EXPECT_THAT(membersMatching({"IED1", n, n, n, n, n, n, "MX"}), UnorderedElementsAre(kTotW1, kHz1));
    EXPECT_THAT(membersMatching({n, "dsA", n, n, n, n, n, "MX"}),
                UnorderedElementsAre(kTotW1, kHz1, kTotW2, kTotW2Meas));
    EXPECT_THAT(membersMatching({"IED2", "dsA", "MEAS", "MMXU", "2", "TotW", "mag.f", "MX"}),
                ElementsAre(kTotW2Meas));
    EXPECT_THAT(membersMatching({"IED2", "dsA", "MEAS", "MMXU", "2", "TotW", "mag.f", "ST"}),
                IsEmpty());
}

TEST_F(ModelQueries, MemberFilterEmptyTextAndUnknownNames) {
    const char* n = nullptr;
    // An empty text is a condition: only the member with an empty daName.
    EXPECT_THAT(membersMatching({n, n, n, n, n, n, "", n}), ElementsAre(kHealth));
    EXPECT_THAT(membersMatching({"", n, n, n, n, n, n, n}), IsEmpty());
    CaptureStderr();
    EXPECT_THAT(membersMatching({"IED1", "dsNope", n, n, n, n, n, n}), IsEmpty());
    EXPECT_EQ(GetCapturedStderr(), "");
}

// ---- Data attributes ------------------------------------------------------------

TEST_F(ModelQueries, AttributeByNameIsLookedUpByExactReference) {
    DA da{};
    ASSERT_EQ(zq_getDAByName(kTotW1, &da), 0);
    EXPECT_EQ(describe(da),
              "IED1LD0/MMXU1$MX$TotW$mag$f|IED1|LD0|MMXU1|TotW|MX||FLOAT32|total active power");
    ASSERT_EQ(zq_getDAByName("IED1LD0/MMXU1$CF$TotW$units$SIUnit", &da), 0);
    EXPECT_STREQ(da.value, "62");
    CaptureStderr();
    EXPECT_EQ(zq_getDAByName("ied1LD0/MMXU1$MX$TotW$mag$f", &da), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_STREQ(da.daName, "IED1LD0/MMXU1$CF$TotW$units$SIUnit");
}

TEST_F(ModelQueries, AttributeFilters) {
    const char* n = nullptr;
    EXPECT_EQ(attributesMatching({n, n, n, n, n}).size(), std::size(kDataAttributes));
    EXPECT_THAT(attributesMatching({"IED2", n, n, n, n}), ElementsAre(kTotW2));
    EXPECT_THAT(attributesMatching({n, "MEAS", n, n, n}),
                ElementsAre("IED1MEAS/MMXU1$MX$TotW$mag$f"));
    EXPECT_THAT(attributesMatching({n, n, "GGIO1", n, n}), ElementsAre(kInd1));
    EXPECT_THAT(attributesMatching({n, n, n, "Hz", n}), ElementsAre(kHz1));
    EXPECT_THAT(attributesMatching({n, n, n, n, "CF"}),
                ElementsAre("IED1LD0/MMXU1$CF$TotW$units$SIUnit"));
    EXPECT_THAT(attributesMatching({n, "LD0", n, n, "MX"}), UnorderedElementsAre(kTotW1, kHz1, kTotW2));
    EXPECT_THAT(attributesMatching({"IED1", "LD0", "MMXU1", "TotW", "MX"}), ElementsAre(kTotW1));
    EXPECT_THAT(attributesMatching({n, n, n, "", n}), ElementsAre("IED1LD0/LLN0"));
    EXPECT_THAT(attributesMatching({"IED9", n, n, n, n}), IsEmpty());
}

// ---- Failures --------------------------------------------------------------------

TEST_F(ModelQueries, MissingTablesFailAndFreeTheLock) {
    execSql(realDbPath(), "drop table DataSet; drop table DataSetSub; drop table DA");
    int count = 7;
    DataSetSub sub;
    DA da;
    // The first statement after the drop still prepares against the schema
    // the connection knew; its step finds the change.
    CaptureStderr();
    EXPECT_EQ(zq_getAllDataSetsNum(&count), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err no such table: DataSet\n");
    CaptureStderr();
    EXPECT_EQ(zq_getAllDataSetsNum(&count), -1);
    EXPECT_EQ(count, 0);
    count = 7;
    EXPECT_EQ(zq_getDataSetSubsByParams(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, &sub, &count),
              -1);
    EXPECT_EQ(count, 0);
    count = 7;
    EXPECT_EQ(zq_getDAsByParamsNum("IED1", nullptr, nullptr, nullptr, nullptr, &count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(zq_getDAByName(kTotW1, &da), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_prepare_v2 err no such table: DataSet\n"
              "sqlite3_prepare_v2 err no such table: DataSetSub\n"
              "sqlite3_prepare_v2 err no such table: DA\n"
              "sqlite3_prepare_v2 err no such table: DA\n");
    EXPECT_EQ(storeLockValue(), 1);
}

TEST_F(ModelQueries, AFailingStepKeepsTheCountAtZero) {
    // A view whose rows cannot be computed: every step after the first row fails.
    execSql(realDbPath(),
            "alter table DataSetSub rename to Members;"
            "create view DataSetSub as select * from Members"
            " where case when fcdaName like 'IED2%' then abs(-9223372036854775808) else 1 end");
    std::vector<DataSetSub> subs(8);
    int count = 7;
    CaptureStderr();
    EXPECT_EQ(zq_getDataSetSubsByParams(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, subs.data(), &count),
              -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err integer overflow\n");
    EXPECT_EQ(count, 0);
    EXPECT_STREQ(subs[0].fcdaName, kTotW1);  // rows before the failure stay filled
    EXPECT_EQ(storeLockValue(), 1);
}

TEST(ModelQueriesClosed, OperationsOnAClosedStoreFail) {
    zq_closeRealDB();
    int count = 7;
    DA da;
    CaptureStderr();
    EXPECT_EQ(zq_getAllDataSetsNum(&count), -1);
    EXPECT_EQ(zq_getDAByName(kTotW1, &da), -1);
    EXPECT_EQ(zq_getDAByName(nullptr, &da), -1);
    EXPECT_THAT(GetCapturedStderr(),
                testing::HasSubstr("zq_getDAByName: the real-time store is not open"));
    EXPECT_EQ(count, 7);
}

// ---- The SQL texts ------------------------------------------------------------------

namespace {

void appendLogLine(void* log, int, const char* message) {
    static_cast<std::string*>(log)->append(message).append("\n");
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
        std::string log;
        (void)!freopen("/dev/null", "w", stderr);  // the library's own messages
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_LOG, appendLogLine, &log);
        sqlite3_initialize();
        if (zq_openRealDB() == 0) calls();
        zq_closeRealDB();
        (void)!write(fds[1], log.data(), log.size());
        _exit(0);
    }
    close(fds[1]);
    std::string log;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) log.append(buffer, n);
    close(fds[0]);
    waitpid(child, nullptr, 0);
    std::vector<std::string> texts;
    for (size_t at = 0; (at = log.find(" in \"", at)) != std::string::npos;) {
        const size_t end = log.find("\"\n", at);
        texts.push_back(log.substr(at + 5, end - at - 5));
        at = end;
    }
    return texts;
}

void runEveryQuery() {
    int count = 0;
    DataSet set;
    DataSetSub sub;
    DA da;
    zq_getAllDataSetsNum(&count);
    zq_getAllDataSets(&set, &count);
    zq_getDataSetByName("IED1", "dsA", &set);
    zq_getDataSetSubByName(kTotW1, &sub);
    const char* n = nullptr;
    zq_getDataSetSubsByParamsNum(n, n, n, n, n, n, n, n, &count);
    zq_getDataSetSubsByParamsNum("IED1", n, n, n, n, n, n, "MX", &count);
    zq_getDataSetSubsByParamsNum(n, "dsA", n, n, n, n, n, n, &count);
    zq_getDataSetSubsByParamsNum("I", "d", "L", "M", "1", "D", "a", "MX", &count);
    zq_getDataSetSubsByParams(n, "dsA", n, n, n, n, n, "MX", &sub, &count);
    zq_getDAByName(kTotW1, &da);
    zq_getDAsByParamsNum(n, n, n, n, n, &count);
    zq_getDAsByParamsNum(n, "LD0", n, n, "MX", &count);
    zq_getDAsByParams("I", "L", "M", "D", "MX", &da, &count);
}

}  // namespace

TEST(ModelQuerySql, TextsAreAssembledBlankForBlank) {
    qvtest::freshRealStore();
    EXPECT_THAT(
        sqlTextsOf(runEveryQuery),
        ElementsAre(
            "select count(*) from DataSet", "select iedName, dsName,ldInst,dsDesc from DataSet",
            "select iedName, dsName,ldInst,dsDesc  from DataSet  where iedName=? and dsName=? ",
            "select fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc from DataSetSub "
            "where fcdaName=?",
            "select count(*) from DataSetSub ",
            "select count(*) from DataSetSub where iedName=?  and fc=? ",
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
