// Feeder topology: nodes written and read whole, the power node, and the
// left and right neighbour sets whose counts and lists must agree.
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
using testing::ElementsAre;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

int storeLockValue() { return semctl(semget(QV_SEM_KEY, 1, 0666), 0, GETVAL); }

TopoInfor node(int id, const char* m_rln, const char* name, const char* left, const char* right,
               int power = 0) {
    TopoInfor n;
    std::memset(&n, 0, sizeof n);
    n.id = id;
    qvsql::copyText(n.type, "switch");
    qvsql::copyText(n.m_rln, m_rln);
    qvsql::copyText(n.name, name);
    qvsql::copyText(n.l_link, left);
    qvsql::copyText(n.r_link, right);
    n.power_flag = power;
    qvsql::copyText(n.iedName, std::string(31, 'I').c_str());  // a full field
    qvsql::copyText(n.substation, "North");
    return n;
}

using Lister = int (*)(const char*, TopoInfor*, int*);
using Counter = int (*)(const char*, int*);

// The m_rln of every node a list delivers; the count must say as many.
std::vector<std::string> neighbours(Lister list, Counter count, const char* name) {
    std::vector<TopoInfor> nodes(16);
    int listed = -1;
    int counted = -1;
    EXPECT_EQ(list(name, nodes.data(), &listed), 0) << name;
    EXPECT_EQ(count(name, &counted), 0) << name;
    EXPECT_EQ(listed, counted) << name;
    std::vector<std::string> names;
    for (int i = 0; i < listed; ++i) names.emplace_back(nodes[i].m_rln);
    return names;
}

std::vector<std::string> left(const char* name) {
    return neighbours(zq_getLeftTopoInforsByLNName, zq_getLeftTopoInforsNumByLNName, name);
}

std::vector<std::string> right(const char* name) {
    return neighbours(zq_getRightTopoInforsByLNName, zq_getRightTopoInforsNumByLNName, name);
}

class Topology : public qvtest::RealStoreTest {
protected:
    // B's name differs from its m_rln and D's name is A's m_rln; D's right
    // link is A's left link; B has power flag 2, D and F flag 1.
    const std::vector<TopoInfor> feeder{node(1, "LN_A", "LN_A", "bus1", "bus2"),
                                        node(2, "LN_B", "branchB", "bus1", "bus3", 2),
                                        node(3, "LN_C", "LN_C", "bus1", "bus4"),
                                        node(4, "LN_D", "LN_A", "bus9", "bus1", 1),
                                        node(5, "LN_E", "LN_E", "bus5", "bus2"),
                                        node(6, "LN_F", "LN_F", "bus6", "bus7", 1)};
    void addFeeder() {
        ASSERT_EQ(zq_addTopoInfors(feeder.data(), static_cast<int>(feeder.size())), 0);
    }
};

}  // namespace

TEST_F(Topology, NodesRoundTripWhole) {
    addFeeder();
    EXPECT_EQ(query(realDbPath(), "select * from TopoInfor where id=2"),
              (Rows{{"2", "switch", "LN_B", "branchB", "bus1", "bus3", "2",
                     std::string(31, 'I'), "North"}}));
    int count = 0;
    ASSERT_EQ(zq_getAllTopoInforsNum(&count), 0);
    EXPECT_EQ(count, 6);
    std::vector<TopoInfor> all(6);
    std::memset(all.data(), 0, all.size() * sizeof(TopoInfor));
    ASSERT_EQ(zq_getAllTopoInfors(all.data(), &count), 0);
    ASSERT_EQ(count, 6);
    EXPECT_EQ(std::memcmp(all.data(), feeder.data(), 6 * sizeof(TopoInfor)), 0);

    TopoInfor found = node(0, "", "", "", "");
    ASSERT_EQ(zq_getTopoInforByLNName("LN_E", &found), 0);
    EXPECT_EQ(std::memcmp(&found, &feeder[4], sizeof found), 0);
    ASSERT_EQ(zq_getTopoInforPower(&found), 0);
    EXPECT_STREQ(found.m_rln, "LN_D");  // the first of two; flag 2 is no power node
}

TEST_F(Topology, NeighboursShareOneSidesLinkAndCountsAgreeWithLists) {
    addFeeder();
    EXPECT_THAT(left("LN_A"), ElementsAre("LN_B", "LN_C"));  // not D, whose right link is bus1
    EXPECT_THAT(left("LN_B"), ElementsAre("LN_A", "LN_C"));
    EXPECT_THAT(left("LN_D"), IsEmpty());
    EXPECT_THAT(right("LN_A"), ElementsAre("LN_E"));
    EXPECT_THAT(right("LN_D"), IsEmpty());
    EXPECT_THAT(right("LN_B"), IsEmpty());
    // Two nodes with one m_rln: the other one is a neighbour.
    const TopoInfor twin = node(7, "LN_C", "LN_C", "bus1", "bus8");
    ASSERT_EQ(zq_addTopoInfor(&twin), 0);
    EXPECT_THAT(left("LN_C"), ElementsAre("LN_A", "LN_B", "LN_C"));

    ASSERT_EQ(zq_deleteTopoInforByLNName("LN_C"), 0);  // both
    EXPECT_EQ(zq_deleteTopoInforByLNName("LN_X"), 0);
    EXPECT_EQ(query(realDbPath(), "select m_rln from TopoInfor"),
              (Rows{{"LN_A"}, {"LN_B"}, {"LN_D"}, {"LN_E"}, {"LN_F"}}));
    EXPECT_THAT(left("LN_A"), ElementsAre("LN_B"));
    ASSERT_EQ(zq_deleteAllTopoInfors(), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from TopoInfor"), 0);
}

TEST_F(Topology, AnEmptyTableFindsNothingAndLeavesTheCount) {
    int count = 42;
    TopoInfor found = node(9, "untouched", "", "", "");
    std::vector<TopoInfor> nodes(1);
    CaptureStderr();
    EXPECT_EQ(zq_getTopoInforByLNName("LN_A", &found), -1);
    EXPECT_EQ(zq_getTopoInforPower(&found), -1);
    EXPECT_EQ(zq_getLeftTopoInforsNumByLNName("LN_A", &count), -1);
    EXPECT_EQ(zq_getLeftTopoInforsByLNName("LN_A", nodes.data(), &count), -1);
    EXPECT_EQ(zq_getRightTopoInforsNumByLNName("LN_A", &count), -1);
    EXPECT_EQ(zq_getRightTopoInforsByLNName("LN_A", nodes.data(), &count), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(count, 42);
    EXPECT_STREQ(found.m_rln, "untouched");
    EXPECT_EQ(zq_getAllTopoInforsNum(&count), 0);
    EXPECT_EQ(count, 0);
    count = 42;
    EXPECT_EQ(zq_getAllTopoInfors(nodes.data(), &count), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(Topology, ABatchStopsAtTheRefusedNode) {
    execSql(realDbPath(), "create trigger refuse before insert on TopoInfor when new.m_rln='bad'"
                          " begin select raise(abort, 'refused'); end");
    const TopoInfor batch[] = {node(1, "LN_A", "a", "x", "y"), node(2, "bad", "b", "x", "y"),
                               node(3, "LN_C", "c", "x", "y")};
    EXPECT_EQ(zq_addTopoInfors(batch, 0), 0);
    EXPECT_EQ(zq_addTopoInfors(nullptr, -5), 0);
    CaptureStderr();
    EXPECT_EQ(zq_addTopoInfors(batch, 3), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err refused\n");
    EXPECT_EQ(query(realDbPath(), "select m_rln from TopoInfor"), (Rows{{"LN_A"}}));
    EXPECT_EQ(storeLockValue(), 1);
}

TEST_F(Topology, HostileNamesAreOnlyNames) {
    addFeeder();
    const std::string longText(1000, 'L');
    execSql(realDbPath(), "insert into TopoInfor values(8,'" + longText + "','" + longText +
                              "','n','" + longText + "','r',0,'" + longText + "','s')");
    for (const char* name : {"' or 1=1 --", "\" or \"\"=\"", "m_rln", "name"}) {
        TopoInfor found;
        int count = 42;
        EXPECT_EQ(zq_getTopoInforByLNName(name, &found), -1) << name;
        EXPECT_EQ(zq_getLeftTopoInforsNumByLNName(name, &count), -1) << name;
        EXPECT_EQ(zq_deleteTopoInforByLNName(name), 0) << name;
    }
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from TopoInfor"), 7);

    // A stored link longer than its field matches nothing once cut: no
    // neighbours, and never a negative count.
    TopoInfor found;
    ASSERT_EQ(zq_getTopoInforByLNName(longText.c_str(), &found), 0);
    EXPECT_EQ(std::string(found.m_rln), longText.substr(0, 63));
    EXPECT_EQ(std::string(found.type), longText.substr(0, 15));
    EXPECT_EQ(std::string(found.iedName), longText.substr(0, 31));
    EXPECT_THAT(left(longText.c_str()), IsEmpty());
}

TEST_F(Topology, FailuresReportAndFreeTheLock) {
    addFeeder();
    // A view whose third row cannot be computed.
    execSql(realDbPath(), "alter table TopoInfor rename to Nodes;"
                          "create view TopoInfor as select * from Nodes where case when id>2 and"
                          " l_link='bus1' then abs(-9223372036854775808) else 1 end");
    std::vector<TopoInfor> nodes(4);
    int count = 42;
    CaptureStderr();
    EXPECT_EQ(zq_getLeftTopoInforsByLNName("LN_A", nodes.data(), &count), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err integer overflow\n");
    EXPECT_EQ(count, 0);
    EXPECT_STREQ(nodes[0].m_rln, "LN_B");  // filled before the failure
    EXPECT_EQ(storeLockValue(), 1);

    execSql(realDbPath(), "drop view TopoInfor");
    CaptureStderr();
    EXPECT_EQ(zq_getAllTopoInforsNum(&count), -1);  // learns of the drop at its step
    EXPECT_EQ(zq_deleteAllTopoInfors(), -1);
    EXPECT_EQ(zq_getRightTopoInforsNumByLNName("LN_A", &count), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_step err no such table: TopoInfor\n"
                                   "sqlite3_prepare_v2 err:no such table: TopoInfor\n"
                                   "sqlite3_prepare_v2 err no such table: TopoInfor\n");
    EXPECT_EQ(storeLockValue(), 1);
}

TEST(TopologyClosed, OperationsOnAClosedStoreFail) {
    zq_closeRealDB();
    int count = 42;
    std::vector<TopoInfor> nodes(1);
    CaptureStderr();
    EXPECT_EQ(zq_getLeftTopoInforsByLNName("LN_A", nodes.data(), &count), -1);
    EXPECT_EQ(zq_addTopoInfors(nodes.data(), 1), -1);
    EXPECT_EQ(zq_getTopoInforPower(nodes.data()), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "zq_getLeftTopoInforsByLNName: the real-time store is not open (call "
              "zq_openRealDB first)\n"
              "zq_addTopoInfors: the real-time store is not open (call zq_openRealDB first)\n"
              "zq_getTopoInforPower: the real-time store is not open (call zq_openRealDB "
              "first)\n");
    EXPECT_EQ(count, 42);
    EXPECT_EQ(storeLockValue(), 1);
}
