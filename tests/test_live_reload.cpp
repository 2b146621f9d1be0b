// Model reloads on a working store: 20 reloads of a 5,000-member model under
// 8 processes of saves and reads all succeed, and the readers see the old
// model or the new one, never a part, without waiting past the load's bound.
// And a library saver that meets a writer outside the library lets the
// library's readers go on while it waits.
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "outside_writer.h"
#include "process.h"
#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::realDbPath;
using Clock = std::chrono::steady_clock;

namespace {

const char* const kIed = "RELOAD";
constexpr int kBigModel = 5000;
constexpr int kSmallModel = 4000;  // the first 4000 members of the big one
constexpr int kReloads = 20;
constexpr int kSavers = 4;
constexpr int kReaders = 4;

// A model of one IED whose data set dsAin has `members` members and no types.
std::string writeModel(int members) {
    const std::string path = qvtest::storeFile("reload_" + std::to_string(members) + ".scd");
    std::ofstream file(path);
    file << "<?xml version=\"1.0\"?>\n<SCL><Header id=\"r\"/><IED name=\"" << kIed
         << "\"><AccessPoint name=\"S1\"><Server><LDevice inst=\"LD0\">"
            "<LN0 lnClass=\"LLN0\" lnType=\"T\"><DataSet name=\"dsAin\">\n";
    for (int i = 1; i <= members; ++i)
        file << "<FCDA ldInst=\"LD0\" lnClass=\"MMXU\" lnInst=\"" << i
             << "\" doName=\"A\" daName=\"mag\" fc=\"MX\"/>\n";
    file << "</DataSet></LN0></LDevice></Server></AccessPoint></IED><DataTypeTemplates/></SCL>\n";
    return path;
}

std::string member(int i) { return std::string(kIed) + "LD0/MMXU" + std::to_string(i) + "$MX$A$mag"; }

int membersShown() {
    int count = -1;
    zq_getDataSetSubsByParamsNum(kIed, "dsAin", nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, &count);
    return count;
}

long long modelRows() {
    return qvtest::queryInt(realDbPath(), "select count(*) from DataSetSub where iedName='" +
                                              std::string(kIed) + "'");
}

bool fail(const std::string& text) {
    std::fprintf(stderr, "child %d: %s\n", getpid(), text.c_str());
    return false;
}

std::atomic<int>* stopFlag = nullptr;  // shared with the children

bool saver(int s) {
    for (int seq = 1; stopFlag->load() == 0; ++seq)
        for (int i = 1 + s; i <= kSmallModel; i += 97 * kSavers)
            if (zq_saveDoubDAValue1(member(i).c_str(), seq, seq) != 0)
                return fail("save of " + member(i) + " failed");
    return true;
}

// Every call ends within the load's bound and shows a whole model.
bool reader(int r) {
    long longestMs = 0;
    for (int i = 1 + r; stopFlag->load() == 0; i = i % kSmallModel + 1) {
        const auto start = Clock::now();
        double value;
        const int members = membersShown();
        const int read = zq_getDoubDAValue(member(i).c_str(), &value);
        longestMs = std::max<long>(
            longestMs,
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
        if (members != kBigModel && members != kSmallModel)
            return fail("the model showed " + std::to_string(members) + " members");
        if (read != 0) return fail("read of " + member(i) + " failed");
    }
    return longestMs < QV_LOAD_BUSY_WAIT_MS || fail("a read waited " + std::to_string(longestMs) + " ms");
}

class LiveReload : public qvtest::RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        stopFlag = static_cast<std::atomic<int>*>(mmap(
            nullptr, sizeof *stopFlag, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        stopFlag->store(0);
        zq_closeRealDB();  // the children open their own
    }
    void TearDown() override {
        munmap(stopFlag, sizeof *stopFlag);
        RealStoreTest::TearDown();
    }
    std::unique_ptr<qvtest::Child> start(std::function<bool()> role) {
        return std::make_unique<qvtest::Child>([role] {
            const bool ok = (zq_openRealDB() == 0 || fail("open failed")) && role();
            return ok ? 0 : 1;
        });
    }
};

}  // namespace

TEST_F(LiveReload, TwentyReloadsOfA5000MemberModelUnder8ProcessesAllLandWhole) {
    const std::string models[2] = {writeModel(kSmallModel), writeModel(kBigModel)};
    ASSERT_EQ(zq_addIEDRealDB(models[1].c_str()), 0);
    std::vector<std::unique_ptr<qvtest::Child>> children;
    for (int s = 0; s < kSavers; ++s) children.push_back(start([s] { return saver(s); }));
    for (int r = 0; r < kReaders; ++r) children.push_back(start([r] { return reader(r); }));
    usleep(200 * 1000);  // the traffic under way
    for (int load = 0; load < kReloads; ++load) {
        const int members = load % 2 == 0 ? kSmallModel : kBigModel;
        ASSERT_EQ(zq_addIEDRealDB(models[load % 2].c_str()), 0) << "reload " << load;
        EXPECT_EQ(modelRows(), members);
    }
    stopFlag->store(1);
    for (size_t i = 0; i < children.size(); ++i)
        EXPECT_EQ(children[i]->wait(60000), 0) << (i < kSavers ? "saver " : "reader ") << i;
}


TEST_F(LiveReload, ReadersGoOnWhileASaverWaitsForAWriterOutsideTheLibrary) {
    ASSERT_EQ(zq_addIEDRealDB(writeModel(10).c_str()), 0);
    qvtest::OutsideWriter writer;
    ASSERT_TRUE(writer.holding());
    auto saverChild = start([] { return zq_saveDoubDAValue(member(1).c_str(), 42) == 0; });
    usleep(300 * 1000);  // the saver is waiting for the outside writer
    auto readerChild = start([] {
        double value;
        for (int i = 0; i < 20; ++i)
            if (zq_getDoubDAValue(member(2).c_str(), &value) != 0) return false;
        return true;
    });
    // The writer holds on until the reader has ended or plainly stalled.
    EXPECT_EQ(readerChild->wait(2500), 0) << "the reader waited for the saver";
    EXPECT_TRUE(saverChild->running()) << "the saver did not wait for the writer";
    EXPECT_TRUE(writer.release());
    EXPECT_EQ(saverChild->wait(10000), 0);
    EXPECT_EQ(qvtest::queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                                 std::to_string(qvtest::rowKey(member(1)))),
              42);
}

// A writer that holds the store past the bound: the load gives up, says
// why, and the store keeps the old model.
TEST_F(LiveReload, ALoadGivesUpAfterTheBoundAndLeavesTheStoreAlone) {
    ASSERT_EQ(zq_addIEDRealDB(writeModel(10).c_str()), 0);
    const std::string bigger = writeModel(20);
    qvtest::OutsideWriter writer;
    ASSERT_TRUE(writer.holding());
    const auto start = Clock::now();
    EXPECT_EQ(zq_addIEDRealDB(bigger.c_str()), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_BUSY);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(QV_LOAD_BUSY_WAIT_MS));
    EXPECT_TRUE(writer.release());
    EXPECT_EQ(modelRows(), 10);
    EXPECT_EQ(zq_addIEDRealDB(bigger.c_str()), 0);
    EXPECT_EQ(modelRows(), 20);
}
