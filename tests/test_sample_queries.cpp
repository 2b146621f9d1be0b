// Model queries and data-set values on the sample feeder terminal model, as
// the model loader writes it into the store.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::query;
using qvtest::queryInt;
using qvtest::realDbPath;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

namespace {

const char* const kIed = "QVFTU1";
const char* const kTotW = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kPhVA = "QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f";
const char* const kInd1 = "QVFTU1LD0/GGIO1$ST$Ind1$stVal";

class SampleModel : public ::testing::Test {
protected:
    void SetUp() override {
        zq_closeRealDB();
        qvtest::freshRealStore();
        std::string path = qvtest::sourcePath("samples/feeder_terminal.cid");
        ASSERT_EQ(zq_addIEDRealDB(path.data()), 0);
        ASSERT_EQ(zq_openRealDB(), 0);
    }
    void TearDown() override { zq_closeRealDB(); }
};

std::vector<std::string> memberNames(const char* dsName, const char* ldInst, const char* fc) {
    int count = -1;
    EXPECT_EQ(zq_getDataSetSubsByParamsNum(kIed, dsName, ldInst, nullptr, nullptr, nullptr,
                                           nullptr, fc, &count),
              0);
    std::vector<DataSetSub> subs(count + 1);
    EXPECT_EQ(zq_getDataSetSubsByParams(kIed, dsName, ldInst, nullptr, nullptr, nullptr, nullptr,
                                        fc, subs.data(), &count),
              0);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(subs[i].fcdaName);
    return names;
}

// The same members, read from the store directly.
std::vector<std::string> storedMemberNames(const std::string& where) {
    std::vector<std::string> names;
    for (const auto& row : query(realDbPath(), "select fcdaName from DataSetSub where " + where))
        names.push_back(row[0]);
    return names;
}

}  // namespace

TEST_F(SampleModel, MemberQueriesSeeTheLoadedDataSets) {
    int count = -1;
    ASSERT_EQ(zq_getAllDataSetsNum(&count), 0);
    EXPECT_EQ(count, queryInt(realDbPath(), "select count(*) from DataSet"));
    DataSet set{};
    ASSERT_EQ(zq_getDataSetByName(kIed, "dsAin", &set), 0);
    EXPECT_STREQ(set.ldInst, "LD0");

    const std::vector<std::string> ain = memberNames("dsAin", nullptr, nullptr);
    EXPECT_THAT(ain, UnorderedElementsAre(
                         kTotW, "QVFTU1MEAS/MMXU1$MX$TotVAr$mag$f", "QVFTU1MEAS/MMXU1$MX$Hz$mag$f",
                         kPhVA, "QVFTU1MEAS/MMXU1$MX$PhV$phsB$cVal$mag$f",
                         "QVFTU1MEAS/MMXU1$MX$PhV$phsC$cVal$mag$f",
                         "QVFTU1MEAS/MMXU1$MX$A$phsA$cVal$mag$f",
                         "QVFTU1MEAS/MMXU1$MX$A$phsB$cVal$mag$f",
                         "QVFTU1MEAS/MMXU1$MX$A$phsC$cVal$mag$f"));
    EXPECT_THAT(memberNames(nullptr, "MEAS", "MX"), UnorderedElementsAreArray(ain));
    EXPECT_EQ(memberNames(nullptr, "LD0", "ST"),
              storedMemberNames("iedName='QVFTU1' and ldInst='LD0' and fc='ST'"));

    DataSetSub health{};
    ASSERT_EQ(zq_getDataSetSubByName("QVFTU1LD0/LPHD1$ST$PhyHealth", &health), 0);
    EXPECT_STREQ(health.dsName, "dsAlarm");
    EXPECT_STREQ(health.daName, "");
}

TEST_F(SampleModel, AttributeQueriesSeeTheExpandedTypes) {
    DA da{};
    ASSERT_EQ(zq_getDAByName(kTotW, &da), 0);
    EXPECT_STREQ(da.iedName, kIed);
    EXPECT_STREQ(da.ldName, "MEAS");
    EXPECT_STREQ(da.lnName, "MMXU1");
    EXPECT_STREQ(da.doName, "TotW");
    EXPECT_STREQ(da.fcName, "MX");
    EXPECT_STREQ(da.valueType, "FLOAT32");

    int count = -1;
    ASSERT_EQ(zq_getDAsByParamsNum(kIed, "MEAS", "MMXU1", "TotW", "MX", &count), 0);
    std::vector<DA> das(count + 1);
    ASSERT_EQ(zq_getDAsByParams(kIed, "MEAS", "MMXU1", "TotW", "MX", das.data(), &count), 0);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(das[i].daName);
    EXPECT_THAT(names, UnorderedElementsAre(kTotW, "QVFTU1MEAS/MMXU1$MX$TotW$q",
                                            "QVFTU1MEAS/MMXU1$MX$TotW$t"));
    ASSERT_EQ(zq_getDAsByParamsNum(nullptr, nullptr, nullptr, nullptr, nullptr, &count), 0);
    EXPECT_EQ(count, queryInt(realDbPath(), "select count(*) from DA"));
}

TEST_F(SampleModel, DataSetValuesRoundTrip) {
    const std::vector<std::string> ain = memberNames("dsAin", nullptr, nullptr);
    std::vector<double> values;
    std::vector<int> qualities;
    for (size_t i = 0; i < ain.size(); ++i) {
        values.push_back(230.5 + static_cast<double>(i));
        qualities.push_back(static_cast<int>(i) * 4);
    }
    const int n = static_cast<int>(ain.size());
    ASSERT_EQ(zq_saveDAValues1ByDataSet(kIed, "dsAin", values.data(), qualities.data(), n), 0);
    std::vector<double> got(ain.size());
    std::vector<int> gotQuality(ain.size());
    int count = -1;
    ASSERT_EQ(zq_getDAValues1ByDataSet(kIed, "dsAin", got.data(), gotQuality.data(), &count), 0);
    EXPECT_EQ(count, n);
    EXPECT_EQ(got, values);
    EXPECT_EQ(gotQuality, qualities);
    // The single-value read sees what the data set wrote for that member.
    std::map<std::string, double> byName;
    for (size_t i = 0; i < ain.size(); ++i) byName[ain[i]] = values[i];
    double phVA = 0;
    ASSERT_EQ(zq_getDoubDAValue(kPhVA, &phVA), 0);
    EXPECT_EQ(phVA, byName[kPhVA]);
}

TEST_F(SampleModel, DataSetsSharingAMemberShareItsValue) {
    const std::vector<std::string> ggio = memberNames("dsGgio", nullptr, nullptr);
    const std::vector<std::string> din = memberNames("dsDin", nullptr, nullptr);
    const size_t ind1 = std::find(din.begin(), din.end(), kInd1) - din.begin();
    ASSERT_LT(ind1, din.size());
    std::vector<double> values(ggio.size());
    for (size_t i = 0; i < ggio.size(); ++i) values[i] = ggio[i] == kInd1 ? 1 : 0;
    ASSERT_EQ(zq_saveDAValuesByDataSet(kIed, "dsGgio", values.data(),
                                       static_cast<int>(values.size())),
              0);
    std::vector<double> got(din.size(), -1);
    int count = -1;
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsDin", got.data(), &count), 0);
    ASSERT_EQ(count, static_cast<int>(din.size()));
    EXPECT_EQ(got[ind1], 1);
}

TEST_F(SampleModel, AnUnclassifiedDataSetHasMembersButNoValues) {
    const std::vector<std::string> alarm = memberNames("dsAlarm", nullptr, nullptr);
    ASSERT_FALSE(alarm.empty());
    std::vector<double> got(alarm.size(), -7);
    int count = -1;
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsAlarm", got.data(), &count), 0);
    EXPECT_EQ(count, static_cast<int>(alarm.size()));
    EXPECT_EQ(got, std::vector<double>(alarm.size(), -7));  // no value rows to read
}
