// The real-time store file removed or replaced (a copy renamed over it)
// under running processes: their next operation moves to the file at the
// path and says so once, so no save acknowledged after the replacement goes
// to a file that nobody can see.
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "process.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::realDbPath;

namespace {

constexpr int kWriters = 4;
constexpr int kRows = 1000;         // MANY/R0 to MANY/R999, writer w saving those of w mod 4
constexpr long kSavesAfter = 1500;  // by each writer after the replacement: several checkpoints

std::string row(int i) { return "MANY/R" + std::to_string(i); }
std::string counter(int writer) { return "THREADS/T" + std::to_string(writer) + "$n"; }

long long storedValue(const std::string& reference) {
    return qvtest::queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                              std::to_string(qvtest::rowKey(reference)));
}

// A copy of the store renamed over it, made while the store lock keeps the
// library's writers out, so that the copy is the store as it is.
void replaceStoreByACopy() {
    const std::string copy = qvtest::storeFile("replacement.db");
    const int semid = semget(QV_SEM_KEY, 1, 0);
    locksem(semid);
    std::ofstream(copy, std::ios::binary) << std::ifstream(realDbPath(), std::ios::binary).rdbuf();
    ASSERT_EQ(rename(copy.c_str(), realDbPath().c_str()), 0);
    unlocksem(semid);
}

// What the parent and the writers share: the replacement done, the writers
// to stop, each writer's number of saves after the replacement and each
// row's last value acknowledged after it (0: none).
struct Shared {
    std::atomic<int> replaced{0};
    std::atomic<int> stop{0};
    std::atomic<long> savesAfter[kWriters];
    std::atomic<long> ackedAfter[kRows];
};

// Saves the writer's rows in turn, each with the next number of a rising
// sequence, until told to stop.
int writeRows(int w, Shared* shared) {
    if (zq_openRealDB() != 0) return 1;
    for (long seq = 1, i = w; shared->stop.load() == 0; ++seq, i = (i + kWriters) % kRows) {
        const bool after = shared->replaced.load() != 0;
        if (zq_saveDoubDAValue(row(int(i)).c_str(), double(seq)) != 0) return 1;
        if (!after) continue;
        shared->ackedAfter[i] = seq;
        ++shared->savesAfter[w];
    }
    // The last connection to close moves the log into its file.
    return zq_closeRealDB();
}

class StoreReplaced : public qvtest::RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        qvtest::execSqlFile(realDbPath(), qvtest::dataPath("threads.sql"));
        qvtest::execSqlFile(realDbPath(), qvtest::dataPath("many_rows.sql"));
    }
};

}  // namespace

TEST_F(StoreReplaced, EverySaveAcknowledgedAfterTheReplacementIsInTheFileAtThePath) {
    auto* shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    new (shared) Shared();
    zq_closeRealDB();  // the writers open their own
    std::vector<std::unique_ptr<qvtest::Child>> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.push_back(std::make_unique<qvtest::Child>([w, shared] { return writeRows(w, shared); }));
    usleep(300 * 1000);
    replaceStoreByACopy();
    shared->replaced = 1;
    EXPECT_TRUE(qvtest::eventually(
        [shared] {
            for (const auto& saves : shared->savesAfter)
                if (saves.load() < kSavesAfter) return false;
            return true;
        },
        60000));
    shared->stop = 1;
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(writers[w]->wait(30000), 0) << "writer " << w;
    std::map<long long, long long> stored;
    for (const auto& r : qvtest::query(realDbPath(), "select hashID, value from DAValue"))
        stored[std::stoll(r[0])] = std::stoll(r[1]);
    int lost = 0;
    for (int i = 0; i < kRows; ++i)
        if (shared->ackedAfter[i] != 0 && stored[qvtest::rowKey(row(i))] != shared->ackedAfter[i])
            ++lost;
    EXPECT_EQ(lost, 0) << "rows whose last acknowledged save is not in the file at the path";
    munmap(shared, sizeof(Shared));
}

// Removed with nothing in its place, the store is said to be gone once;
// put back, it is reopened, said once, and saves land in it again.
TEST_F(StoreReplaced, RemovedIsSaidOnceAndAStorePutBackIsReopened) {
    const std::string kept = qvtest::storeFile("kept.db");
    std::ofstream(kept, std::ios::binary) << std::ifstream(realDbPath(), std::ios::binary).rdbuf();
    ASSERT_EQ(unlink(realDbPath().c_str()), 0);
    qvtest::CaptureStderr();
    EXPECT_EQ(zq_saveDoubDAValue(counter(0).c_str(), 1), 0);
    EXPECT_EQ(zq_saveDoubDAValue(counter(0).c_str(), 2), 0);
    ASSERT_EQ(rename(kept.c_str(), realDbPath().c_str()), 0);
    EXPECT_EQ(zq_saveDoubDAValue(counter(0).c_str(), 3), 0);
    EXPECT_EQ(zq_saveDoubDAValue(counter(0).c_str(), 4), 0);
    const std::string said = qvtest::GetCapturedStderr();
    EXPECT_THAT(said, testing::MatchesRegex("[^\n]*was removed: values go to the removed file[^\n]*\n"
                                            "[^\n]*was removed or replaced: reopened[^\n]*\n"));
    EXPECT_EQ(storedValue(counter(0)), 4);
}

// A read notices the replacement within a tick of the coarse clock (4 ms on
// most kernels; 50 ms here is plenty) and reads the file now at the path.
TEST_F(StoreReplaced, AReadAfterAReplacementReadsTheNewFile) {
    double value = 0;
    ASSERT_EQ(zq_getDoubDAValue(counter(0).c_str(), &value), 0);
    // The log emptied into the file first: the copy gets everything, and no
    // old page in the log beside the path covers the copy's change.
    qvtest::execSql(realDbPath(), "PRAGMA wal_checkpoint(TRUNCATE)");
    const std::string copy = qvtest::storeFile("replacement.db");
    std::ofstream(copy, std::ios::binary) << std::ifstream(realDbPath(), std::ios::binary).rdbuf();
    qvtest::execSql(copy, "update DAValue set value=77 where hashID=" +
                              std::to_string(qvtest::rowKey(counter(0))));
    ASSERT_EQ(rename(copy.c_str(), realDbPath().c_str()), 0);
    usleep(50 * 1000);
    qvtest::CaptureStderr();
    EXPECT_EQ(zq_getDoubDAValue(counter(0).c_str(), &value), 0);
    qvtest::GetCapturedStderr();
    EXPECT_EQ(value, 77);
}
