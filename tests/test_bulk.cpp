// Lists of values in one transaction, and whole data sets by name.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::query;
using qvtest::realDbPath;
using qvtest::Rows;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using qvtest::storeLockValue;

const char* const kA = "IED1LD0/MMXU1$MX$TotW$mag$f";
const char* const kB = "IED1LD0/MMXU1$MX$Hz$mag$f";
const char* const kC = "IED1LD0/GGIO1$ST$Ind1$stVal";
const char* const kD = "IED1LD0/GGIO1$ST$Ind2$stVal";
const char* const kE = "IED2LD0/MMXU1$MX$TotW$mag$f";
const char* const kNoRow = "IED1LD0/MMXU1$MX$Nope$mag$f";

std::string key(const char* reference) { return std::to_string(qvtest::rowKey(reference)); }

std::vector<DaNameRow> nameRows(const std::vector<const char*>& references) {
    std::vector<DaNameRow> rows(references.size());
    for (size_t i = 0; i < references.size(); ++i) std::strcpy(rows[i], references[i]);
    return rows;
}

// value|quality of a reference's row, as the store holds it.
std::string stored(const char* reference) {
    const Rows rows =
        query(realDbPath(), "select value,quality from DAValue where hashID=" + key(reference));
    return rows.empty() ? "no row" : rows[0][0] + "|" + rows[0][1];
}

// Value rows for A..E; data sets IED1/dsA = A, B, C and IED1/dsB = D, E.
class BulkValues : public qvtest::RealStoreTest {
protected:
    void SetUp() override {
        qvtest::RealStoreTest::SetUp();
        for (const char* reference : {kA, kB, kC, kD, kE})
            execSql(realDbPath(), "insert into DAValue values(" + key(reference) + ",1,0,0,0)");
        addMembers("dsA", {kA, kB, kC});
        addMembers("dsB", {kD, kE});
    }
    static void addMembers(const char* dataSet, const std::vector<const char*>& references) {
        for (const char* reference : references)
            execSql(realDbPath(), std::string("insert into DataSetSub(fcdaName,iedName,dsName) "
                                              "values('") +
                                      reference + "','IED1','" + dataSet + "')");
    }
};

}  // namespace

// ---- Lists ----------------------------------------------------------------------

TEST_F(BulkValues, SavedListReadsBack) {
    const auto names = nameRows({kA, kB, kC});
    const double values[] = {1.5, -2.25, 1};
    const int qualities[] = {0, 0x40, 7};
    ASSERT_EQ(zq_saveDAValues1(names.data(), values, qualities, 3), 0);
    EXPECT_EQ(stored(kA), "1.5|0");
    EXPECT_EQ(stored(kB), "-2.25|64");
    EXPECT_EQ(stored(kC), "1.0|7");
    // The plain list keeps the qualities.
    const double next[] = {10, 20, 30};
    ASSERT_EQ(zq_saveDAValues(names.data(), next, 3), 0);
    double got[3] = {};
    int gotQuality[3] = {};
    ASSERT_EQ(zq_getDAValues1(names.data(), 3, got, gotQuality), 0);
    EXPECT_THAT(got, ElementsAre(10, 20, 30));
    EXPECT_THAT(gotQuality, ElementsAre(0, 0x40, 7));
    EXPECT_EQ(stored(kD), "0.0|0");
}

TEST_F(BulkValues, AReferenceWithoutARowIsSkipped) {
    const auto names = nameRows({kA, kNoRow, kC});
    const double values[] = {1, 2, 3};
    CaptureStderr();
    ASSERT_EQ(zq_saveDAValues(names.data(), values, 3), 0);
    EXPECT_EQ(stored(kA), "1.0|0");
    EXPECT_EQ(stored(kC), "3.0|0");
    EXPECT_EQ(qvtest::queryInt(realDbPath(), "select count(*) from DAValue"), 5);
    double got[3] = {-1, -1, -1};
    ASSERT_EQ(zq_getDAValues(names.data(), 3, got), 0);
    EXPECT_THAT(got, ElementsAre(1, -1, 3));  // the caller's value stays
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(BulkValues, EmptyListsDoNothing) {
    const auto names = nameRows({kA});
    const double values[] = {5};
    double got[1] = {-1};
    int gotQuality[1] = {-1};
    EXPECT_EQ(zq_saveDAValues(names.data(), values, 0), 0);
    EXPECT_EQ(zq_saveDAValues1(nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(zq_getDAValues(names.data(), 0, got), 0);
    EXPECT_EQ(zq_getDAValues1(names.data(), -3, got, gotQuality), 0);
    EXPECT_EQ(stored(kA), "0.0|0");
    EXPECT_EQ(got[0], -1);
    EXPECT_EQ(gotQuality[0], -1);
}

TEST_F(BulkValues, ASaveThatCannotCommitWritesNothing) {
    // The second element rolls the whole transaction back: the commit finds
    // none, is tried a bounded number of times, and the save fails.
    execSql(realDbPath(),
            "create trigger refuse before update on DAValue when new.value=666"
            " begin select raise(rollback, 'refused'); end");
    const auto names = nameRows({kA, kB, kC});
    const double values[] = {1, 666, 3};
    const int qualities[] = {1, 2, 3};
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues(names.data(), values, 3), -1);
    std::string err = GetCapturedStderr();
    EXPECT_THAT(err, testing::StartsWith("zq_saveDAValues sqlite3_exec commit err:1,cannot commit "
                                         "- no transaction is active\n"));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 20);
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues1(names.data(), values, qualities, 3), -1);
    err = GetCapturedStderr();
    EXPECT_THAT(err, testing::StartsWith("zq_saveDAValues1 sqlite3_exec commit err:cannot commit "
                                         "- no transaction is active\n"));
    for (const char* reference : {kA, kB, kC}) EXPECT_EQ(stored(reference), "0.0|0");
    EXPECT_EQ(storeLockValue(), 1);
    // Nothing stays open: the next list is saved.
    const double good[] = {4, 5, 6};
    EXPECT_EQ(zq_saveDAValues(names.data(), good, 3), 0);
    EXPECT_EQ(stored(kB), "5.0|0");
}

TEST_F(BulkValues, AFailedReadStepEndsTheList) {
    execSql(realDbPath(), "drop table DAValue");
    const auto names = nameRows({kA, kB});
    double got[2] = {-1, -1};
    CaptureStderr();
    EXPECT_EQ(zq_getDAValues(names.data(), 2, got), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err no such table: DAValue\n");
    EXPECT_THAT(got, ElementsAre(-1, -1));
    EXPECT_EQ(storeLockValue(), 1);
}

// ---- Data sets ----------------------------------------------------------------------

TEST_F(BulkValues, ADataSetRoundTripsInMemberOrder) {
    const double values[] = {1.5, 2.5, 3.5};
    const int qualities[] = {1, 2, 3};
    ASSERT_EQ(zq_saveDAValues1ByDataSet("IED1", "dsA", values, qualities, 3), 0);
    // Element i belongs to member i of the member query.
    DataSetSub members[3];
    int count = 0;
    ASSERT_EQ(zq_getDataSetSubsByParams("IED1", "dsA", nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, members, &count),
              0);
    ASSERT_EQ(count, 3);
    const char* const expected[] = {"1.5|1", "2.5|2", "3.5|3"};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(stored(members[i].fcdaName), expected[i]);
    double got[3] = {};
    int gotQuality[3] = {};
    count = -1;
    ASSERT_EQ(zq_getDAValues1ByDataSet("IED1", "dsA", got, gotQuality, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_THAT(got, ElementsAre(1.5, 2.5, 3.5));
    EXPECT_THAT(gotQuality, ElementsAre(1, 2, 3));
    EXPECT_EQ(stored(kD), "0.0|0");
}

TEST_F(BulkValues, TwoDataSetsInARowKeepTheirOwnMembers) {
    const double first[] = {1, 2, 3};
    const double second[] = {40, 50};
    ASSERT_EQ(zq_saveDAValuesByDataSet("IED1", "dsA", first, 3), 0);
    ASSERT_EQ(zq_saveDAValuesByDataSet("IED1", "dsB", second, 2), 0);
    double got[3] = {};
    int count = -1;
    ASSERT_EQ(zq_getDAValuesByDataSet("IED1", "dsB", got, &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_THAT(got, ElementsAre(40, 50, 0));
    ASSERT_EQ(zq_getDAValuesByDataSet("IED1", "dsA", got, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_THAT(got, ElementsAre(1, 2, 3));
}

TEST_F(BulkValues, AnUnknownDataSetHasNoMembers) {
    double got[1] = {-1};
    int quality[1] = {-1};
    int count = 99;
    CaptureStderr();
    EXPECT_EQ(zq_getDAValues1ByDataSet("IED1", "dsNope", got, quality, &count), 0);
    EXPECT_EQ(zq_saveDAValuesByDataSet("IED2", "dsA", got, 0), 0);  // dsA is IED1's
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(count, 0);
    EXPECT_EQ(got[0], -1);
    EXPECT_EQ(quality[0], -1);
}

TEST_F(BulkValues, FewerValuesThanMembersWriteTheFirstMembers) {
    const double values[] = {7, 8};
    ASSERT_EQ(zq_saveDAValuesByDataSet("IED1", "dsA", values, 2), 0);
    EXPECT_EQ(stored(kA), "7.0|0");
    EXPECT_EQ(stored(kB), "8.0|0");
    EXPECT_EQ(stored(kC), "0.0|0");
}

TEST_F(BulkValues, MoreValuesThanMembersWriteTheMembersAndFail) {
    const double values[] = {7, 8, 9, 10, 11};
    const int qualities[] = {1, 1, 1, 1, 1};
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues1ByDataSet("IED1", "dsB", values, qualities, 5), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_saveDAValues1ByDataSet: 5 values given, data set dsB has 2 members\n");
    EXPECT_EQ(stored(kD), "7.0|1");
    EXPECT_EQ(stored(kE), "8.0|1");
    EXPECT_EQ(stored(kA), "0.0|0");
}

TEST_F(BulkValues, AMissingMemberTableFailsUntilItExists) {
    execSql(realDbPath(), "alter table DataSetSub rename to Kept");
    double got[3] = {-1, -1, -1};
    int count = 99;
    zq_getAllDataSetsNum(&count);  // lets the connection see the new schema
    count = 99;
    CaptureStderr();
    EXPECT_EQ(zq_getDAValuesByDataSet("IED1", "dsA", got, &count), -1);
    EXPECT_EQ(zq_saveDAValuesByDataSet("IED1", "dsA", got, 3), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_prepare_v2 err no such table: DataSetSub\nerr initDaValueDataSetInfo\n"
              "sqlite3_prepare_v2 err no such table: DataSetSub\nerr initDaValueDataSetInfo\n");
    EXPECT_EQ(count, 99);
    EXPECT_EQ(storeLockValue(), 1);
    execSql(realDbPath(), "alter table Kept rename to DataSetSub");
    execSql(realDbPath(), "update DAValue set value=2 where hashID=" + key(kB));
    ASSERT_EQ(zq_getDAValuesByDataSet("IED1", "dsA", got, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_THAT(got, ElementsAre(0, 2, 0));
}

TEST(BulkValuesClosed, OperationsOnAClosedStoreFail) {
    zq_closeRealDB();
    const auto names = nameRows({kA});
    double value[1] = {-1};
    int count = 99;
    CaptureStderr();
    EXPECT_EQ(zq_saveDAValues(names.data(), value, 1), -1);
    EXPECT_EQ(zq_getDAValues(names.data(), 1, value), -1);
    EXPECT_EQ(zq_getDAValuesByDataSet("IED1", "dsA", value, &count), -1);
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr("zq_getDAValuesByDataSet: the real-time store is not open"));
    EXPECT_EQ(count, 99);
}
