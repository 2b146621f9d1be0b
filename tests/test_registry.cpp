// Terminal access list and terminal information: exact rows written and read,
// batches that stop at a refused row, lookups by hostile names, a busy store.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstring>
#include <string>
#include <vector>

#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::query;
using qvtest::queryInt;
using qvtest::realDbPath;
using qvtest::Rows;
using qvtest::stdoutWhileHeld;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using qvtest::storeLockValue;

// Records are zeroed whole, so that equal fields mean equal bytes.
template <typename Record>
Record zeroed() {
    Record r;
    std::memset(&r, 0, sizeof r);
    return r;
}

template <typename Record>
bool sameBytes(const Record& a, const Record& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

LTUAccess accessEntry(const char* deviceid, int model, const std::string& key = "k") {
    auto a = zeroed<LTUAccess>();
    qvsql::copyText(a.date_time, "2024-05-01 10:00:00");
    qvsql::copyText(a.deviceid, deviceid);
    a.accessmodel = model;
    qvsql::copyText(a.desc, "feeder 7");
    qvsql::copyText(a.key, key.c_str());
    qvsql::copyText(a.version, "V1.2.3");
    return a;
}

LTUInfor terminal(int id, const char* name, int state = 0) {
    auto t = zeroed<LTUInfor>();
    t.id = id;
    qvsql::copyText(t.QVsoftware_version, "QS1.0.7");  // 7 characters: a full field
    qvsql::copyText(t.QVhardware_version, "QH2");
    qvsql::copyText(t.SGsoftware_version, "SS3");
    qvsql::copyText(t.SGhardware_version, "SH4.5.6");
    qvsql::copyText(t.name, name);
    qvsql::copyText(t.addr, "10.0.0.7:2404");
    t.failedcount = 3;
    t.state = state;
    qvsql::copyText(t.desc, "pole 12");
    return t;
}

// Refuses an insert into `table` whose `column` holds `value`.
void refuseInsert(const std::string& table, const std::string& column, const std::string& value) {
    execSql(realDbPath(), "create trigger refuse before insert on " + table + " when new." +
                              column + "='" + value +
                              "' begin select raise(abort, 'refused'); end");
}

class Registry : public qvtest::RealStoreTest {};

}  // namespace

TEST_F(Registry, AnEmptyAccessListCountsZeroAndLeavesTheArray) {
    int count = 7;
    EXPECT_EQ(zq_getAllLTUAccessNum(&count), 0);
    EXPECT_EQ(count, 0);
    LTUAccess list[1] = {accessEntry("untouched", 1)};
    count = 7;
    EXPECT_EQ(zq_getAllLTUAccess(list, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_STREQ(list[0].deviceid, "untouched");
    EXPECT_EQ(zq_deleteLTUAccessByDeviceid("nobody"), 0);
}

TEST_F(Registry, AccessEntriesRoundTripAndGoByDevice) {
    const LTUAccess entries[] = {accessEntry("D1", -42, std::string(255, 'k')),
                                 accessEntry("D2", 7), accessEntry("D1", 0)};
    for (const LTUAccess& entry : entries) ASSERT_EQ(zq_addLTUAccess(&entry), 0);
    EXPECT_EQ(query(realDbPath(), "select date_time,deviceid,accessmodel,desc,version,"
                                  "length(key),typeof(accessmodel) from ltu_access_list"),
              (Rows{{"2024-05-01 10:00:00", "D1", "-42", "feeder 7", "V1.2.3", "255", "integer"},
                    {"2024-05-01 10:00:00", "D2", "7", "feeder 7", "V1.2.3", "1", "integer"},
                    {"2024-05-01 10:00:00", "D1", "0", "feeder 7", "V1.2.3", "1", "integer"}}));
    int count = 0;
    ASSERT_EQ(zq_getAllLTUAccessNum(&count), 0);
    ASSERT_EQ(count, 3);
    std::vector<LTUAccess> list(3, zeroed<LTUAccess>());
    ASSERT_EQ(zq_getAllLTUAccess(list.data(), &count), 0);
    ASSERT_EQ(count, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(sameBytes(list[i], entries[i])) << i;

    EXPECT_EQ(zq_deleteLTUAccessByDeviceid("D1"), 0);  // both entries of D1
    EXPECT_EQ(query(realDbPath(), "select deviceid from ltu_access_list"), (Rows{{"D2"}}));
}

TEST_F(Registry, TerminalsRoundTripByListNameAndId) {
    const LTUInfor stored[] = {terminal(5, "LTU-A", 1), terminal(-3, "LTU-B", 2)};
    for (const LTUInfor& t : stored) ASSERT_EQ(zq_addLTUInfor(&t), 0);
    EXPECT_EQ(query(realDbPath(), "select * from LTUInfor where id=-3"),
              (Rows{{"-3", "QS1.0.7", "QH2", "SS3", "SH4.5.6", "LTU-B", "10.0.0.7:2404", "3", "2",
                     "pole 12"}}));
    int count = 0;
    ASSERT_EQ(zq_getAllLTUInforsNum(&count), 0);
    EXPECT_EQ(count, 2);
    std::vector<LTUInfor> list(2, zeroed<LTUInfor>());
    ASSERT_EQ(zq_getAllLTUInfors(list.data(), &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_TRUE(sameBytes(list[0], stored[0]));
    EXPECT_TRUE(sameBytes(list[1], stored[1]));

    auto found = zeroed<LTUInfor>();
    ASSERT_EQ(zq_getLTUInforByName("LTU-B", &found), 0);
    EXPECT_TRUE(sameBytes(found, stored[1]));
    found = zeroed<LTUInfor>();
    ASSERT_EQ(zq_getLTUInforById(-3, &found), 0);  // a negative identifier
    EXPECT_TRUE(sameBytes(found, stored[1]));
    int state = 0;
    ASSERT_EQ(zq_getLTUInforStateByName("LTU-A", &state), 0);
    EXPECT_EQ(state, 1);
}

TEST_F(Registry, AnEmptyTerminalTableFindsNothing) {
    int count = 7;
    EXPECT_EQ(zq_getAllLTUInforsNum(&count), 0);
    EXPECT_EQ(count, 0);
    count = 7;
    LTUInfor list[1] = {terminal(1, "untouched")};
    EXPECT_EQ(zq_getAllLTUInfors(list, &count), 0);
    EXPECT_EQ(count, 0);
    int state = 42;
    CaptureStderr();
    EXPECT_EQ(zq_getLTUInforByName("LTU-A", &list[0]), -1);
    EXPECT_EQ(zq_getLTUInforById(1, &list[0]), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    EXPECT_EQ(zq_getLTUInforStateByName("LTU-A", &state), -1);  // reported like a failure
    EXPECT_THAT(GetCapturedStderr(), testing::StartsWith("sqlite3_step err "));
    EXPECT_EQ(state, 42);
    EXPECT_STREQ(list[0].name, "untouched");
}

TEST_F(Registry, SettingByNameKeepsIdAndNameAndReachesEveryNamesake) {
    const LTUInfor rows[] = {terminal(1, "LTU-A"), terminal(2, "LTU-A"), terminal(3, "LTU-C")};
    ASSERT_EQ(zq_addLTUInfors(rows, 3), 0);
    LTUInfor change = terminal(99, "renamed", 8);
    qvsql::copyText(change.QVsoftware_version, "new");
    qvsql::copyText(change.desc, "moved");
    change.failedcount = 0;
    ASSERT_EQ(zq_setLTUInforByName("LTU-A", &change), 0);
    ASSERT_EQ(zq_setLTUInforStateByName("LTU-C", 6), 0);
    EXPECT_EQ(zq_setLTUInforByName("nobody", &change), 0);
    EXPECT_EQ(zq_setLTUInforStateByName("nobody", 1), 0);
    EXPECT_EQ(zq_deleteLTUInforByName("nobody"), 0);
    EXPECT_EQ(query(realDbPath(),
                    "select id,name,QVsoftware_version,failedcount,state,desc from LTUInfor"),
              (Rows{{"1", "LTU-A", "new", "0", "8", "moved"},
                    {"2", "LTU-A", "new", "0", "8", "moved"},
                    {"3", "LTU-C", "QS1.0.7", "3", "6", "pole 12"}}));
    auto found = zeroed<LTUInfor>();
    ASSERT_EQ(zq_getLTUInforByName("LTU-A", &found), 0);
    EXPECT_EQ(found.id, 1);  // the first of the two

    ASSERT_EQ(zq_deleteLTUInforByName("LTU-A"), 0);
    EXPECT_EQ(query(realDbPath(), "select id from LTUInfor"), (Rows{{"3"}}));
    ASSERT_EQ(zq_deleteAllLTUInfors(), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from LTUInfor"), 0);
}

TEST_F(Registry, ABatchStopsAtTheRefusedTerminal) {
    refuseInsert("LTUInfor", "name", "bad");
    const LTUInfor batch[] = {terminal(1, "t1"), terminal(2, "t2"), terminal(3, "bad"),
                              terminal(4, "t4")};
    EXPECT_EQ(zq_addLTUInfors(batch, 0), 0);
    EXPECT_EQ(zq_addLTUInfors(nullptr, -1), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from LTUInfor"), 0);
    CaptureStderr();
    EXPECT_EQ(zq_addLTUInfors(batch, 4), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err refused\n");
    EXPECT_EQ(query(realDbPath(), "select name from LTUInfor"), (Rows{{"t1"}, {"t2"}}));
    EXPECT_EQ(storeLockValue(), 1);
}

// Names are bound, never pasted into the statement: quotes and column names
// are plain names.
TEST_F(Registry, HostileNamesAreOnlyNames) {
    const std::string longName(1000, 'n');
    const LTUInfor rows[] = {terminal(1, "LTU-A", 1), terminal(2, "state", 5),
                             terminal(3, "\" or \"\"=\"", 7)};
    ASSERT_EQ(zq_addLTUInfors(rows, 3), 0);
    execSql(realDbPath(), "insert into LTUInfor values(4,'','','','','" + longName + "','',0,9,'" +
                              std::string(1000, 'd') + "')");
    int state = -1;
    ASSERT_EQ(zq_getLTUInforStateByName("state", &state), 0);
    EXPECT_EQ(state, 5);
    ASSERT_EQ(zq_getLTUInforStateByName("\" or \"\"=\"", &state), 0);
    EXPECT_EQ(state, 7);
    ASSERT_EQ(zq_getLTUInforStateByName(longName.c_str(), &state), 0);
    EXPECT_EQ(state, 9);
    CaptureStderr();
    for (const char* name : {"name", "id", "' or 1=1 --", "LTU-A\" or name=\"state"}) {
        state = -1;
        EXPECT_EQ(zq_getLTUInforStateByName(name, &state), -1) << name;
        EXPECT_EQ(state, -1) << name;
        EXPECT_EQ(zq_setLTUInforStateByName(name, 0), 0);
        EXPECT_EQ(zq_deleteLTUInforByName(name), 0);
    }
    GetCapturedStderr();
    EXPECT_EQ(query(realDbPath(), "select id,state from LTUInfor"),
              (Rows{{"1", "1"}, {"2", "5"}, {"3", "7"}, {"4", "9"}}));

    // Over-long stored texts are cut to their fields, terminator included.
    auto found = zeroed<LTUInfor>();
    ASSERT_EQ(zq_getLTUInforById(4, &found), 0);
    EXPECT_EQ(std::string(found.name), longName.substr(0, 32));
    EXPECT_EQ(std::strlen(found.desc), 255u);
    EXPECT_EQ(found.state, 9);
}

TEST_F(Registry, LookupsByStateAndIdAnnounceABusyStore) {
    const LTUInfor t = terminal(12, "LTU-A", 4);
    ASSERT_EQ(zq_addLTUInfor(&t), 0);
    int state = 0;
    int result = -1;
    EXPECT_EQ(stdoutWhileHeld(
                  realDbPath(), [&] { return zq_getLTUInforStateByName("LTU-A", &state); },
                  result),
              "sqlite3_step SQLITE_BUSY\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(state, 4);
    auto found = zeroed<LTUInfor>();
    EXPECT_EQ(stdoutWhileHeld(
                  realDbPath(), [&] { return zq_getLTUInforById(12, &found); }, result),
              "sqlite3_step SQLITE_BUSY\n");
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(sameBytes(found, t));
}

TEST_F(Registry, FailuresReportAndFreeTheLock) {
    refuseInsert("ltu_access_list", "deviceid", "bad");
    const LTUAccess bad = accessEntry("bad", 1);
    CaptureStderr();
    EXPECT_EQ(zq_addLTUAccess(&bad), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err refused\n");
    EXPECT_EQ(storeLockValue(), 1);

    execSql(realDbPath(), "drop table ltu_access_list; drop table LTUInfor");
    LTUInfor t = terminal(1, "LTU-A");
    int count = 7;
    CaptureStderr();
    EXPECT_EQ(zq_deleteLTUAccessByDeviceid("D1"), -1);
    EXPECT_EQ(zq_addLTUInfors(&t, 1), -1);
    EXPECT_EQ(zq_getAllLTUAccessNum(&count), -1);
    EXPECT_EQ(count, 0);
    count = 7;
    EXPECT_EQ(zq_getAllLTUInfors(nullptr, &count), -1);  // refused before the store
    EXPECT_EQ(zq_getLTUInforById(1, nullptr), -1);
    EXPECT_EQ(zq_getLTUInforById(1, &t), -1);
    // The connection learns of the dropped tables at its next step.
    EXPECT_EQ(GetCapturedStderr(),
              "sqlite3_step err no such table: ltu_access_list\n"
              "sqlite3_prepare_v2 err:no such table: LTUInfor\n"
              "sqlite3_prepare_v2 err no such table: ltu_access_list\n"
              "zq_getAllLTUInfors: a required argument is null\n"
              "zq_getLTUInforById: a required argument is null\n"
              "sqlite3_prepare_v2 err no such table: LTUInfor\n");
    EXPECT_EQ(count, 7);
    EXPECT_EQ(storeLockValue(), 1);
}

TEST(RegistryClosed, OperationsOnAClosedStoreFail) {
    zq_closeRealDB();
    int count = 7;
    const LTUInfor t = terminal(1, "LTU-A");
    CaptureStderr();
    EXPECT_EQ(zq_getAllLTUAccessNum(&count), -1);
    EXPECT_EQ(zq_addLTUInfor(&t), -1);
    EXPECT_EQ(zq_setLTUInforStateByName("LTU-A", 1), -1);
    EXPECT_EQ(zq_deleteAllLTUInfors(), -1);
    const std::string messages = GetCapturedStderr();
    EXPECT_THAT(messages, HasSubstr("zq_getAllLTUAccessNum: the real-time store is not open"));
    EXPECT_THAT(messages, HasSubstr("zq_deleteAllLTUInfors: the real-time store is not open"));
    EXPECT_EQ(count, 7);
}
