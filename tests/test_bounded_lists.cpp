// Bounded lists: rows that another process adds between the count and the
// fetch never overrun the caller's array. One table row per list; every row
// runs the same check. Data-set values follow the order of the member list.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "process.h"
#include "qvconf.h"
#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;

namespace {

// One output array of `capacity` zeroed elements, followed by two guard
// elements of a pattern that no list may touch.
class GuardedArray {
public:
    GuardedArray(std::size_t elementSize, int capacity)
        : elementSize_(elementSize), used_(elementSize * capacity),
          bytes_(used_ + 2 * elementSize, kGuardByte) {
        std::fill_n(bytes_.begin(), used_, 0);
    }
    template <typename T>
    T* as() { return reinterpret_cast<T*>(bytes_.data()); }
    bool guardIntact() const {
        return std::all_of(bytes_.begin() + used_, bytes_.end(),
                           [](unsigned char b) { return b == kGuardByte; });
    }
    // The first n elements, byte for byte.
    std::string head(int n) const {
        return std::string(bytes_.begin(), bytes_.begin() + n * elementSize_);
    }

private:
    static constexpr unsigned char kGuardByte = 0xA5;
    std::size_t elementSize_, used_;
    std::vector<unsigned char> bytes_;
};

struct BoundedListCase {
    const char* name;
    std::string store;  // where another process adds two rows that the list matches
    std::size_t elementSize;
    std::function<int(int*)> count;
    std::function<int(GuardedArray&, int*)> list;  // without a limit
    std::function<int(GuardedArray&, int, int*)> listN;
};

// A record list: its count, the list and its bounded form (the list's name
// with the suffix N), all called with the same leading arguments.
#define RECORD_LIST(Record, count, list, ...)                                                  \
    sizeof(Record), [](int* c) { return count(__VA_ARGS__ __VA_OPT__(, ) c); },                \
        [](GuardedArray& a, int* c) { return list(__VA_ARGS__ __VA_OPT__(, ) a.as<Record>(), c); }, \
        [](GuardedArray& a, int capacity, int* c) {                                            \
            return list##N(__VA_ARGS__ __VA_OPT__(, ) a.as<Record>(), capacity, c);            \
        }

const char* const n = nullptr;  // no filter

const std::string real = realDbPath();
const std::string conf = confDbPath();

// The rows that another process adds for a list (its name) after the count.
std::string addedRows(const std::string& list) {
    const std::string text = fileText(dataPath("bounded_lists_added.sql"));
    const std::string title = "\n-- " + list + "\n";
    const size_t at = text.find(title), start = at + title.size();
    EXPECT_NE(at, std::string::npos) << list;
    return text.substr(start, text.find("\n-- ", start) - start);
}

const BoundedListCase kLists[] = {
    {"data sets", real, RECORD_LIST(DataSet, zq_getAllDataSetsNum, zq_getAllDataSets)},
    {"data set members", real,
     RECORD_LIST(DataSetSub, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParams, "IED1",
                 "dsV", n, n, n, n, n, n)},
    {"data attributes", real,
     RECORD_LIST(DA, zq_getDAsByParamsNum, zq_getDAsByParams, "IED1", "LD0", n, n, "MX")},
    {"access list", real, RECORD_LIST(LTUAccess, zq_getAllLTUAccessNum, zq_getAllLTUAccess)},
    {"terminals", real, RECORD_LIST(LTUInfor, zq_getAllLTUInforsNum, zq_getAllLTUInfors)},
    {"topology", real, RECORD_LIST(TopoInfor, zq_getAllTopoInforsNum, zq_getAllTopoInfors)},
    {"left neighbours", real,
     RECORD_LIST(TopoInfor, zq_getLeftTopoInforsNumByLNName, zq_getLeftTopoInforsByLNName, "LN_A")},
    {"right neighbours", real,
     RECORD_LIST(TopoInfor, zq_getRightTopoInforsNumByLNName, zq_getRightTopoInforsByLNName,
                 "LN_A")},
    {"processes", conf,
     RECORD_LIST(ProcessConfig, zq_getAllProcessConfigsNum, zq_getAllProcessConfigs)},
    {"message routes", conf,
     RECORD_LIST(ProcessMsgAssociation, zq_getProcessMsgAssociationsNum,
                 zq_getProcessMsgAssociations, "qvctrl")},
    {"device points", conf,
     RECORD_LIST(DeviceModelAssociation, zq_getAllDeviceModelAssociationsNum,
                 zq_getAllDeviceModelAssociations)},
    {"device points of a type", conf,
     RECORD_LIST(DeviceModelAssociation, zq_getDeviceModelAssociationsByTypeNum,
                 zq_getDeviceModelAssociationsByType, 2)},
    {"device points of a type and index", conf,
     RECORD_LIST(DeviceModelAssociation, zq_getDeviceModelAssociationsByTypeIndexNum,
                 zq_getDeviceModelAssociationsByTypeIndex, 2, 1)},
    {"process points", conf,
     RECORD_LIST(ProcessDataAssociation, zq_getAllProcessDataAssociationsNum,
                 zq_getAllProcessDataAssociations, "qvacq")},
    {"process points of a type", conf,
     RECORD_LIST(ProcessDataAssociation, zq_getProcessDataAssociationsByTypeNum,
                 zq_getProcessDataAssociationsByType, "qvacq", 2)},
    {"data set values", real, sizeof(double),
     [](int* c) { return zq_getDataSetSubsByParamsNum("IED1", "dsV", n, n, n, n, n, n, c); },
     [](GuardedArray& a, int* c) { return zq_getDAValuesByDataSet("IED1", "dsV", a.as<double>(), c); },
     [](GuardedArray& a, int capacity, int* c) {
         return zq_getDAValuesByDataSetN("IED1", "dsV", a.as<double>(), capacity, c);
     }},
};

// Another process, on a connection of its own, adds the rows for a list.
void addRowsFromAnotherProcess(const std::string& dbPath, const std::string& list) {
    ASSERT_EQ(runInChild([&] { return execSql(dbPath, addedRows(list)) ? 0 : 1; }), 0) << list;
}

// Two or more rows for every list, in both stores, opened by the library.
class BoundedLists : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        execSqlFile(realDbPath(), dataPath("bounded_lists.sql"));
        openSampleConfStore();
    }
    void TearDown() override {
        zq_closeConfDB();
        RealStoreTest::TearDown();
    }
};

}  // namespace

TEST_F(BoundedLists, RowsAddedAfterTheCountStayOutOfTheArray) {
    for (const BoundedListCase& c : kLists) {
        SCOPED_TRACE(c.name);
        int counted = -1, now = -1, delivered = -1;
        ASSERT_EQ(c.count(&counted), 0);
        ASSERT_GE(counted, 2);
        addRowsFromAnotherProcess(c.store, c.name);
        ASSERT_EQ(c.count(&now), 0);
        ASSERT_EQ(now, counted + 2);
        GuardedArray whole(c.elementSize, now);  // the list without a limit
        EXPECT_EQ(c.list(whole, &delivered), 0);
        EXPECT_EQ(delivered, now);
        EXPECT_TRUE(whole.guardIntact());
        // Bounded: the beginning of the whole list, as far as the capacity goes; 1 when cut.
        for (const int capacity : {-1, 0, 1, counted, now}) {
            SCOPED_TRACE(capacity);
            const int room = std::max(capacity, 0);
            GuardedArray bounded(c.elementSize, room);
            EXPECT_EQ(c.listN(bounded, capacity, &delivered), capacity < now ? 1 : 0);
            EXPECT_EQ(delivered, room);
            EXPECT_TRUE(bounded.guardIntact());
            EXPECT_EQ(bounded.head(room), whole.head(room));
        }
    }
}

// Arrays sized from the member count, before another process adds members:
// values and qualities of the first members, in the order of the member list.
TEST_F(BoundedLists, DataSetValuesWithQualitiesFollowTheMemberList) {
    std::vector<double> values(3), all(5);  // on the heap, exactly sized, for the sanitizer
    std::vector<int> qualities(3);
    addRowsFromAnotherProcess(realDbPath(), "data set values");
    int written = -1, listed = -1;
    EXPECT_EQ(zq_getDAValues1ByDataSetN("IED1", "dsV", values.data(), qualities.data(), 3, &written), 1);
    EXPECT_EQ(written, 3);
    EXPECT_EQ(zq_getDAValuesByDataSetN("IED1", "dsV", nullptr, 0, &written), 1);  // no array at all
    EXPECT_EQ(written, 0);
    ASSERT_EQ(zq_getDAValuesByDataSet("IED1", "dsV", all.data(), &written), 0);
    DataSetSub subs[5];
    ASSERT_EQ(zq_getDataSetSubsByParams("IED1", "dsV", n, n, n, n, n, n, subs, &listed), 0);
    ASSERT_EQ(listed, 5);
    for (int i = 0; i < listed; ++i) {
        SCOPED_TRACE(subs[i].fcdaName);
        double stored = -1;
        ASSERT_EQ(zq_getDoubDAValue(subs[i].fcdaName, &stored), 0);
        EXPECT_EQ(all[i], stored);
        if (i < 3) {
            EXPECT_TRUE(values[i] == stored && qualities[i] == 10 * stored);
        }
    }
}
