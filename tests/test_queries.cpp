// The model in the real-time store: data sets, data set members and data
// attributes queried with each filter alone and in combinations, values
// written and read as lists and as whole data sets.
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

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

std::string describe(const DataSet& s) { return joined("|", s.iedName, s.name, s.ldInst, s.desc); }

std::string describe(const DataSetSub& s) {
    return joined("|", s.fcdaName, s.iedName, s.dsName, s.ldInst, s.lnClass, s.lnInst, s.doName, s.daName, s.fc);
}

std::string describe(const DA& d) {
    return joined("|", d.daName, d.iedName, d.ldName, d.lnName, d.doName, d.fcName, d.value, d.valueType, d.doDesc);
}

// The rows of tests/data/model_store.sql.
class ModelStore : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        execSqlFile(realDbPath(), dataPath("model_store.sql"));
    }
};

template <size_t N>
struct FilterCase {
    std::array<const char*, N> filters;
    std::vector<const char*> expected;
};

// "filters: a - b ...", "-" for no filter.
template <size_t N>
std::ostream& operator<<(std::ostream& out, const FilterCase<N>& c) {
    out << "filters:";
    for (const char* filter : c.filters) out << " " << (filter ? filter : "-");
    return out;
}

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
    execSqlFile(realDbPath(), dataPath("long_member_texts.sql"));
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
        // Each filter alone: one bound to another column, or dropped, fails its row.
        {{"IED2", n, n, n, n, n, n, n}, {kTotW2, kTotW2Meas}},
        {{n, "dsB", n, n, n, n, n, n}, {kInd2, kHealth}},
        {{n, n, "MEAS", n, n, n, n, n}, {kTotW2Meas}},
        {{n, n, n, "GGIO", n, n, n, n}, {kInd1, kInd2}},
        {{n, n, n, n, "2", n, n, n}, {kTotW2Meas}},
        {{n, n, n, n, n, "TotW", n, n}, {kTotW1, kTotW2, kTotW2Meas}},
        {{n, n, n, n, n, n, "stVal", n}, {kInd1, kInd2}},
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
        {{n, n, "GGIO1", n, n}, {kInd1}},
        {{n, n, n, "Hz", n}, {kHz1}},
        {{n, n, n, n, "CF"}, {kUnits1}},
        {{n, "LD0", n, n, "MX"}, {kTotW1, kHz1, kTotW2}},
        {{"IED1", "LD0", "MMXU1", "TotW", "MX"}, {kTotW1}},
        {{n, n, n, "", n}, {kLln0}},
        {{"IED9", n, n, n, n}, {}},
    };
    CaptureStderr();
    for (const auto& c : members)
        EXPECT_THAT(membersMatching(c.filters), UnorderedElementsAreArray(c.expected)) << c;
    for (const auto& c : attributes)
        EXPECT_THAT(attributesMatching(c.filters), UnorderedElementsAreArray(c.expected)) << c;
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
    execSqlFile(realDbPath(), dataPath("refusing_triggers.sql"));
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
    // Fewer values write the first members; more write nothing and fail.
    const double values[] = {7, 8, 9, 10, 11};
    const int qualities[] = {1, 1, 1, 1, 1};
    ASSERT_EQ(zq_saveDAValuesByDataSet("IED1", "dsA", values, 2), 0);
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues1ByDataSet("IED1", "dsB", values, qualities, 5), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_saveDAValues1ByDataSet: 5 values given, data set dsB has 2 members; "
              "nothing saved\n");
    EXPECT_EQ(stored({kTotW1, kHz1, kInd1, kInd2, kHealth}), "7.0|0 8.0|0 0.0|0 0.0|0 0.0|0");
    ASSERT_EQ(zq_saveDAValues1ByDataSet("IED1", "dsB", values, qualities, 2), 0);
    EXPECT_EQ(stored({kInd2, kHealth}), "7.0|1 8.0|1");
    // Read in member order: a member without a value row is counted and its
    // elements are left as they were.
    execSql(realDbPath(), "delete from DAValue where hashID=" + key(kInd2));
    double plain[2] = {-7, -7}, withQuality[2] = {-7, -7};
    int gotQualities[2] = {-7, -7}, counts[2] = {-1, -1};
    ASSERT_EQ(zq_getDAValuesByDataSet("IED1", "dsB", plain, &counts[0]), 0);
    ASSERT_EQ(zq_getDAValues1ByDataSet("IED1", "dsB", withQuality, gotQualities, &counts[1]), 0);
    EXPECT_THAT(counts, ElementsAre(2, 2));
    EXPECT_THAT(plain, ElementsAre(-7, 8));
    EXPECT_THAT(withQuality, ElementsAre(-7, 8));
    EXPECT_THAT(gotQualities, ElementsAre(-7, 1));
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
