// Model queries and data-set values on the sample feeder terminal model, as
// the model loader writes it into the store.
#include <algorithm>
#include <string>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

namespace {

const char* const kIed = "QVFTU1";
const char* const kTotW = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
const char* const kPhVA = "QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f";
const char* const kInd1 = "QVFTU1LD0/GGIO1$ST$Ind1$stVal";
const char* const n = nullptr;  // no filter

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

std::vector<std::string> memberNames(const char* dsName) {
    int count = -1;
    EXPECT_EQ(zq_getDataSetSubsByParamsNum(kIed, dsName, n, n, n, n, n, n, &count), 0);
    std::vector<DataSetSub> subs(count + 1);
    EXPECT_EQ(zq_getDataSetSubsByParams(kIed, dsName, n, n, n, n, n, n, subs.data(), &count), 0);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(subs[i].fcdaName);
    return names;
}

size_t indexOf(const std::vector<std::string>& names, const char* name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
}

}  // namespace

TEST_F(SampleModel, AttributeQueriesSeeTheExpandedTypes) {
    int count = -1;  // TotW expands to mag.f, q and t
    ASSERT_EQ(zq_getDAsByParamsNum(kIed, "MEAS", "MMXU1", "TotW", "MX", &count), 0);
    EXPECT_EQ(count, 3);
    DA da{};
    ASSERT_EQ(zq_getDAByName(kTotW, &da), 0);
    EXPECT_STREQ(da.valueType, "FLOAT32");
}

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
    double phVA = 0;  // element i went to member i
    ASSERT_EQ(zq_getDoubDAValue(kPhVA, &phVA), 0);
    EXPECT_EQ(phVA, values.at(indexOf(ain, kPhVA)));

    // Ind1 is a member of dsGgio and dsDin: both sets share its value row.
    const std::vector<std::string> ggio = memberNames("dsGgio");
    const std::vector<std::string> din = memberNames("dsDin");
    std::vector<double> ggioValues(ggio.size(), 0), dinValues(din.size(), -1);
    ggioValues.at(indexOf(ggio, kInd1)) = 1;
    ASSERT_EQ(zq_saveDAValuesByDataSet(kIed, "dsGgio", ggioValues.data(), ggio.size()), 0);
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsDin", dinValues.data(), &count), 0);
    ASSERT_EQ(count, static_cast<int>(din.size()));
    EXPECT_EQ(dinValues.at(indexOf(din, kInd1)), 1);

    // dsAlarm's members have no value rows: they are counted, their values left as they were.
    const size_t alarmMembers = memberNames("dsAlarm").size();
    std::vector<double> alarm(alarmMembers, -7);
    ASSERT_EQ(zq_getDAValuesByDataSet(kIed, "dsAlarm", alarm.data(), &count), 0);
    EXPECT_EQ(count, static_cast<int>(alarmMembers));
    EXPECT_EQ(alarm, std::vector<double>(alarmMembers, -7));
}
