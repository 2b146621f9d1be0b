// Terminal access list, terminal information and feeder topology: exact rows
// written and read, neighbour counts that agree with lists, batches that stop
// at a refused row, hostile names, a busy store and failures that free the lock.
#include <cstring>
#include <string>
#include <vector>

#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Records are zeroed whole, so that equal fields mean equal bytes.
template <typename Record>
bool sameBytes(const Record& a, const Record& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The count a successful lister or counter sets, starting from 7.
template <typename Op, typename... Out>
int counted(Op op, Out*... out) {
    int count = 7;
    EXPECT_EQ(op(out..., &count), 0);
    return count;
}

// A whole-table list gives back exactly the records written, byte for byte.
template <typename Record>
void expectListed(int (*list)(Record*, int*), const Record* written, int n) {
    std::vector<Record> got(n, filledRecord<Record>(0));
    ASSERT_EQ(counted(list, got.data()), n);
    EXPECT_EQ(std::memcmp(got.data(), written, n * sizeof(Record)), 0);
}

LTUAccess accessEntry(const char* deviceid, int model, const std::string& key = "k") {
    LTUAccess a{"2024-05-01 10:00:00", "", model, "feeder 7", "", "V1.2.3"};  // no padding
    qvsql::copyText(a.deviceid, deviceid);
    qvsql::copyText(a.key, key.c_str());
    return a;
}

LTUInfor terminal(int id, const char* name, int state = 0) {
    auto t = filledRecord<LTUInfor>(0);
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

TopoInfor node(int id, const char* m_rln, const char* name, const char* left, const char* right,
               int power = 0) {
    TopoInfor n{id, "switch", "", "", "", "", power, "", "North"};  // no padding
    qvsql::copyText(n.m_rln, m_rln);
    qvsql::copyText(n.name, name);
    qvsql::copyText(n.l_link, left);
    qvsql::copyText(n.r_link, right);
    qvsql::copyText(n.iedName, std::string(31, 'I').c_str());  // a full field
    return n;
}

// The m_rln of every left (or right) neighbour listed; the count must say as many.
std::vector<std::string> neighbours(const char* name, bool leftSide = true) {
    std::vector<TopoInfor> nodes(16);
    const int listed = counted(leftSide ? zq_getLeftTopoInforsByLNName : zq_getRightTopoInforsByLNName,
                               name, nodes.data());
    EXPECT_EQ(counted(leftSide ? zq_getLeftTopoInforsNumByLNName : zq_getRightTopoInforsNumByLNName, name),
              listed) << name;
    std::vector<std::string> names;
    for (int i = 0; i < listed; ++i) names.emplace_back(nodes[i].m_rln);
    return names;
}

class Registry : public RealStoreTest {};

class Topology : public RealStoreTest {
protected:
    // B's name differs from its m_rln and D's name is A's m_rln; D's right
    // link is A's left link; B has power flag 2, D and F flag 1.
    const std::vector<TopoInfor> feeder{node(1, "LN_A", "LN_A", "bus1", "bus2"),
                                        node(2, "LN_B", "branchB", "bus1", "bus3", 2),
                                        node(3, "LN_C", "LN_C", "bus1", "bus4"),
                                        node(4, "LN_D", "LN_A", "bus9", "bus1", 1),
                                        node(5, "LN_E", "LN_E", "bus5", "bus2"),
                                        node(6, "LN_F", "LN_F", "bus6", "bus7", 1)};
    void SetUp() override {
        RealStoreTest::SetUp();
        ASSERT_EQ(zq_addTopoInfors(feeder.data(), static_cast<int>(feeder.size())), 0);
    }
};

}  // namespace

TEST_F(Registry, EmptyTablesFindNothingAndLeaveTheOutputs) {
    LTUAccess access[1] = {accessEntry("untouched", 1)};
    LTUInfor terminals[1] = {terminal(1, "untouched")};
    TopoInfor nodes[1] = {node(9, "untouched", "", "", "")};
    EXPECT_EQ(counted(zq_getAllLTUAccess, access) + counted(zq_getAllLTUInfors, terminals) +
                  counted(zq_getAllTopoInfors, nodes),
              0);
    int count = 42;
    CaptureStderr();
    EXPECT_EQ(zq_getLTUInforByName("LTU-A", terminals) + zq_getLTUInforById(1, terminals) +
                  zq_getTopoInforByLNName("LN_A", nodes) + zq_getTopoInforPower(nodes) +
                  zq_getLeftTopoInforsNumByLNName("LN_A", &count) +
                  zq_getRightTopoInforsByLNName("LN_A", nodes, &count),
              -6);
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    EXPECT_EQ(zq_getLTUInforStateByName("LTU-A", &count), -1);  // reported like a failure
    EXPECT_THAT(GetCapturedStderr(), testing::StartsWith("sqlite3_step err "));
    EXPECT_EQ(count, 42);
    EXPECT_EQ(std::string(access[0].deviceid) + terminals[0].name + nodes[0].m_rln,
              "untouched" "untouched" "untouched");
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
    expectListed(zq_getAllLTUAccess, entries, 3);
    EXPECT_EQ(zq_deleteLTUAccessByDeviceid("D1"), 0);  // both entries of D1
    EXPECT_EQ(query(realDbPath(), "select deviceid from ltu_access_list"), (Rows{{"D2"}}));
}

TEST_F(Registry, TerminalsRoundTripAndChangeByName) {
    const LTUInfor stored[] = {terminal(5, "LTU-A", 1), terminal(-3, "LTU-B", 2), terminal(7, "LTU-A")};
    ASSERT_EQ(zq_addLTUInfor(&stored[0]), 0);
    ASSERT_EQ(zq_addLTUInfors(stored + 1, 2), 0);
    EXPECT_EQ(query(realDbPath(), "select * from LTUInfor where id=-3"),
              (Rows{{"-3", "QS1.0.7", "QH2", "SS3", "SH4.5.6", "LTU-B", "10.0.0.7:2404", "3", "2",
                     "pole 12"}}));
    expectListed(zq_getAllLTUInfors, stored, 3);
    auto byName = filledRecord<LTUInfor>(0), byId = filledRecord<LTUInfor>(0);
    ASSERT_EQ(zq_getLTUInforByName("LTU-A", &byName), 0);  // the first of the two
    ASSERT_EQ(zq_getLTUInforById(-3, &byId), 0);          // a negative identifier
    EXPECT_TRUE(sameBytes(byName, stored[0]) && sameBytes(byId, stored[1]));

    // Setting by name keeps id and name and reaches every namesake.
    LTUInfor change = terminal(99, "renamed", 8);
    qvsql::copyText(change.QVsoftware_version, "new");
    ASSERT_EQ(zq_setLTUInforByName("LTU-A", &change), 0);
    ASSERT_EQ(zq_setLTUInforStateByName("LTU-B", 6), 0);
    EXPECT_EQ(query(realDbPath(), "select id,name,QVsoftware_version,state from LTUInfor"),
              (Rows{{"5", "LTU-A", "new", "8"}, {"-3", "LTU-B", "QS1.0.7", "6"},
                    {"7", "LTU-A", "new", "8"}}));
    ASSERT_EQ(zq_deleteLTUInforByName("LTU-A"), 0);
    EXPECT_EQ(query(realDbPath(), "select id from LTUInfor"), (Rows{{"-3"}}));
    ASSERT_EQ(zq_deleteAllLTUInfors(), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from LTUInfor"), 0);
}

// The writers bind each text of a record up to its field's end, terminated or not.
TEST_F(Registry, UnterminatedFieldsAreStoredUpToTheirEnds) {
    const auto access = filledRecord<LTUAccess>('x');
    const auto t = filledRecord<LTUInfor>('x');
    const auto n = filledRecord<TopoInfor>('x');
    ASSERT_EQ(zq_addLTUAccess(&access), 0);
    ASSERT_EQ(zq_addLTUInfor(&t), 0);
    ASSERT_EQ(zq_setLTUInforByName(std::string(32, 'x').c_str(), &t), 0);
    ASSERT_EQ(zq_addTopoInfor(&n), 0);
    EXPECT_EQ(query(realDbPath(), "select length(date_time),length(deviceid),length(desc),"
                                  "length(key),length(version) from ltu_access_list"),
              (Rows{{"255", "255", "63", "255", "63"}}));
    EXPECT_EQ(query(realDbPath(), "select length(QVsoftware_version),length(SGhardware_version),"
                                  "length(name),length(addr),length(desc) from LTUInfor"),
              (Rows{{"7", "7", "32", "32", "255"}}));
    EXPECT_EQ(query(realDbPath(), "select length(type),length(m_rln),length(r_link),"
                                  "length(iedName),length(substation) from TopoInfor"),
              (Rows{{"15", "63", "63", "31", "63"}}));
}

TEST_F(Registry, ABatchStopsAtTheRefusedRecord) {
    execSqlFile(realDbPath(), dataPath("refusing_triggers.sql"));
    const LTUInfor terminals[] = {terminal(1, "t1"), terminal(2, "bad"), terminal(3, "t3")};
    const TopoInfor nodes[] = {node(1, "LN_A", "a", "x", "y"), node(2, "bad", "b", "x", "y")};
    EXPECT_EQ(zq_addLTUInfors(nullptr, -1), 0);
    CaptureStderr();
    EXPECT_EQ(zq_addLTUInfors(terminals, 3), -1);
    EXPECT_EQ(zq_addTopoInfors(nodes, 2), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err refused\nsqlite3_step err refused\n");
    EXPECT_EQ(query(realDbPath(), "select name from LTUInfor"), (Rows{{"t1"}}));
    EXPECT_EQ(query(realDbPath(), "select m_rln from TopoInfor"), (Rows{{"LN_A"}}));
    EXPECT_EQ(storeLockValue(), 1);
}

TEST_F(Registry, LookupsByStateAndIdAnnounceABusyStore) {
    qvtest::openRealStoreInRollbackMode();  // in the write-ahead log readers never wait
    const LTUInfor t = terminal(12, "LTU-A", 4);
    ASSERT_EQ(zq_addLTUInfor(&t), 0);
    auto whileHeld = [](const std::function<int()>& lookup) {
        int result = -1;
        EXPECT_EQ(stdoutWhileHeld(realDbPath(), lookup, result), "sqlite3_step SQLITE_BUSY\n");
        return result;
    };
    int state = 0;
    auto found = filledRecord<LTUInfor>(0);
    EXPECT_EQ(whileHeld([&] { return zq_getLTUInforStateByName("LTU-A", &state); }), 0);
    EXPECT_EQ(whileHeld([&] { return zq_getLTUInforById(12, &found); }), 0);
    EXPECT_EQ(state, 4);
    EXPECT_TRUE(sameBytes(found, t));
}

// A closed store refuses before it touches anything: every family of the
// real-time store, reads and writes.
TEST(ClosedRealStore, OperationsFailAndLeaveTheOutputs) {
    zq_closeRealDB();
    int count = 7, quality = 7;
    TopoInfor nodes[1] = {};
    DaNameRow name = "IED1LD0/MMXU1$MX$TotW$mag$f";
    double value = -1;
    const std::pair<const char*, std::function<int()>> operations[] = {
        {"zq_saveIntDAValueValue1", [&] { return zq_saveIntDAValueValue1(name, 1, 1); }},
        {"zq_getIntDAValue1", [&] { return zq_getIntDAValue1(name, &count, &quality); }},
        {"zq_getAllLTUAccessNum", [&] { return zq_getAllLTUAccessNum(&count); }},
        {"zq_getLeftTopoInforsByLNName", [&] { return zq_getLeftTopoInforsByLNName("LN_A", nodes, &count); }},
        {"zq_addTopoInfors", [&] { return zq_addTopoInfors(nodes, 1); }},
        {"zq_getAllDataSetsNum", [&] { return zq_getAllDataSetsNum(&count); }},
        {"zq_saveDAValues", [&] { return zq_saveDAValues(&name, &value, 1); }},
        {"zq_getDAValuesByDataSet", [&] { return zq_getDAValuesByDataSet("IED1", "dsA", &value, &count); }},
    };
    std::string expected;
    CaptureStderr();
    for (const auto& [operation, call] : operations) {
        EXPECT_EQ(call(), -1) << operation;
        expected += std::string(operation) + ": the real-time store is not open (call zq_openRealDB first)\n";
    }
    EXPECT_EQ(GetCapturedStderr(), expected);
    EXPECT_TRUE(count == 7 && quality == 7 && value == -1);
    EXPECT_EQ(storeLockValue(), 1);
}

TEST_F(Topology, NodesRoundTripWholeAndNeighboursShareOneSidesLink) {
    EXPECT_EQ(query(realDbPath(), "select * from TopoInfor where id=2"),
              (Rows{{"2", "switch", "LN_B", "branchB", "bus1", "bus3", "2", std::string(31, 'I'),
                     "North"}}));
    expectListed(zq_getAllTopoInfors, feeder.data(), 6);
    TopoInfor found{};
    ASSERT_EQ(zq_getTopoInforByLNName("LN_E", &found), 0);
    EXPECT_TRUE(sameBytes(found, feeder[4]));
    ASSERT_EQ(zq_getTopoInforPower(&found), 0);
    EXPECT_STREQ(found.m_rln, "LN_D");  // the first of two; flag 2 is no power node

    // Neighbours share one side's link; the counts agree with the lists.
    EXPECT_THAT(neighbours("LN_A"), ElementsAre("LN_B", "LN_C"));  // not D, whose right link is bus1
    EXPECT_THAT(neighbours("LN_B"), ElementsAre("LN_A", "LN_C"));
    EXPECT_THAT(neighbours("LN_D"), IsEmpty());
    EXPECT_THAT(neighbours("LN_A", false), ElementsAre("LN_E"));
    EXPECT_THAT(neighbours("LN_B", false), IsEmpty());
    // Two nodes with one m_rln: the other one is a neighbour.
    const TopoInfor twin = node(7, "LN_C", "LN_C", "bus1", "bus8");
    ASSERT_EQ(zq_addTopoInfor(&twin), 0);
    EXPECT_THAT(neighbours("LN_C"), ElementsAre("LN_A", "LN_B", "LN_C"));
    ASSERT_EQ(zq_deleteTopoInforByLNName("LN_C"), 0);  // both
    EXPECT_THAT(neighbours("LN_A"), ElementsAre("LN_B"));
    ASSERT_EQ(zq_deleteAllTopoInfors(), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from TopoInfor"), 0);
}

// Names are bound, never pasted into the statement: quotes, SQL fragments and
// column names are plain names.
TEST_F(Topology, HostileNamesAreOnlyNames) {
    const std::string longText(1000, 'L');
    const LTUInfor t = terminal(1, "LTU-A", 5);
    ASSERT_EQ(zq_addLTUInfor(&t), 0);
    execSqlFile(realDbPath(), dataPath("long_registry_names.sql"));  // texts of 1000 L's
    int state = -1;
    ASSERT_EQ(zq_getLTUInforStateByName(longText.c_str(), &state), 0);
    EXPECT_EQ(state, 9);
    CaptureStderr();
    for (const char* name : {"name", "id", "m_rln", "' or 1=1 --", "\" or \"\"=\"", "LTU-A\" or name=\"state"}) {
        TopoInfor found;
        state = -1;
        EXPECT_EQ(zq_getLTUInforStateByName(name, &state), -1) << name;
        EXPECT_EQ(zq_getTopoInforByLNName(name, &found), -1) << name;
        EXPECT_EQ(zq_getLeftTopoInforsNumByLNName(name, &state), -1) << name;
        EXPECT_EQ(state, -1) << name;
        EXPECT_EQ(zq_setLTUInforStateByName(name, 0), 0) << name;
        EXPECT_EQ(zq_deleteLTUInforByName(name) + zq_deleteTopoInforByLNName(name), 0) << name;
    }
    GetCapturedStderr();
    EXPECT_EQ(query(realDbPath(), "select id,state from LTUInfor"), (Rows{{"1", "5"}, {"2", "9"}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from TopoInfor"), 7);

    // The over-long node is found, but its link is read cut to its field and
    // so matches nothing: no neighbours, and never a negative count.
    EXPECT_THAT(neighbours(longText.c_str()), IsEmpty());
}

TEST_F(Topology, FailuresReportAndFreeTheLock) {
    // A view whose third row cannot be computed.
    execSqlFile(realDbPath(), dataPath("failing_topology_view.sql"));
    std::vector<TopoInfor> nodes(4);
    int count = 42;
    CaptureStderr();
    EXPECT_EQ(zq_getLeftTopoInforsByLNName("LN_A", nodes.data(), &count), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err integer overflow\n");
    EXPECT_EQ(count, 0);
    EXPECT_STREQ(nodes[0].m_rln, "LN_B");  // filled before the failure
    EXPECT_EQ(storeLockValue(), 1);

    execSql(realDbPath(), "drop table ltu_access_list; drop table LTUInfor");
    const LTUInfor t = terminal(1, "LTU-A");
    count = 7;
    CaptureStderr();
    EXPECT_EQ(zq_deleteLTUAccessByDeviceid("D1"), -1);
    EXPECT_EQ(zq_addLTUInfors(&t, 1), -1);
    EXPECT_EQ(zq_getAllLTUAccessNum(&count), -1);
    // The connection learns of the dropped tables at its next step.
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err no such table: ltu_access_list\n"
                                   "sqlite3_prepare_v2 err:no such table: LTUInfor\n"
                                   "sqlite3_prepare_v2 err no such table: ltu_access_list\n");
    EXPECT_EQ(count, 0);
    EXPECT_EQ(storeLockValue(), 1);
}
