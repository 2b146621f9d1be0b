// The threads of one process on the store while the lock's semaphore set is
// removed or its value forced to 2 from outside, and a creator of the set
// that stalls before freeing it: the threads never meet in the connection
// (no crash, no torn or lost value) and the library leaves the value at 1.
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "outside_writer.h"
#include "process.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "realstore/realstore.h"

using qvtest::realDbPath;

namespace {

constexpr int kThreads = 4;
constexpr int kRunMs = 1500;
constexpr int kDisturbEveryMs = 50;

std::string ref(int thread, char row) {
    return "THREADS/T" + std::to_string(thread) + "$" + row;
}

// Each thread saves its pair in one list save and its counter alone, and
// reads both back at once: the pair must match and the counter must be its
// own last save. Returns false, after a line, at the first fault.
bool threadWork(int t, const std::atomic<bool>& stop) {
    DaNameRow pair[2];
    std::snprintf(pair[0], sizeof pair[0], "%s", ref(t, 'a').c_str());
    std::snprintf(pair[1], sizeof pair[1], "%s", ref(t, 'b').c_str());
    const std::string counter = ref(t, 'n');
    for (int seq = 1; !stop.load(); ++seq) {
        const double values[2] = {double(seq), double(seq)};
        const int qualities[2] = {seq, seq};
        double read[2] = {-1, -1};
        int readQualities[2] = {-1, -1};
        double readCounter = -1;
        if (zq_saveDAValues1(pair, values, qualities, 2) != 0 ||
            zq_saveDoubDAValue(counter.c_str(), seq) != 0 ||
            zq_getDAValues1(pair, 2, read, readQualities) != 0 ||
            zq_getDoubDAValue(counter.c_str(), &readCounter) != 0) {
            std::fprintf(stderr, "thread %d: a call failed at %d\n", t, seq);
            return false;
        }
        if (read[0] != seq || read[1] != seq || readQualities[0] != seq ||
            readQualities[1] != seq || readCounter != seq) {
            std::fprintf(stderr, "thread %d at %d: read %g/%d %g/%d counter %g\n", t, seq, read[0],
                         readQualities[0], read[1], readQualities[1], readCounter);
            return false;
        }
    }
    return true;
}

// A child process of 4 threads at work for kRunMs: 0 when every thread held.
int fourThreads() {
    if (zq_openRealDB() != 0) return 2;
    std::atomic<bool> stop{false};
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &stop, &faults] {
            if (!threadWork(t, stop)) faults.fetch_add(1);
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(kRunMs));
    stop = true;
    for (std::thread& thread : threads) thread.join();
    zq_closeRealDB();
    return faults.load() == 0 ? 0 : 1;
}

enum class Disturbance { SetRemoved, ValueForcedTo2 };

void disturb(Disturbance how) {
    const int semid = semget(QV_SEM_KEY, 1, 0);
    if (semid < 0) return;
    if (how == Disturbance::SetRemoved) {
        semctl(semid, 0, IPC_RMID);
    } else {
        union {
            int val;
        } two{2};
        semctl(semid, 0, SETVAL, two);
    }
}

class LockThreads : public qvtest::RealStoreTest,
                    public testing::WithParamInterface<Disturbance> {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        qvtest::execSqlFile(realDbPath(), qvtest::dataPath("threads.sql"));
        zq_closeRealDB();  // the child opens its own
    }
};

}  // namespace

TEST_P(LockThreads, FourThreadsNeverMeetInTheConnection) {
    qvtest::Child child(fourThreads);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRunMs);
    while (std::chrono::steady_clock::now() < end && child.running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kDisturbEveryMs));
        disturb(GetParam());
    }
    EXPECT_EQ(child.wait(60000), 0) << "a thread failed, or the child crashed or hung";
    // Once more at rest: the next operation, and the end of its process,
    // leave the lock free at 1.
    disturb(GetParam());
    EXPECT_EQ(qvtest::runInChild([] {
                  return zq_openRealDB() == 0 && zq_saveDoubDAValue(ref(0, 'n').c_str(), 1) == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
}

INSTANTIATE_TEST_SUITE_P(Disturbed, LockThreads,
                         testing::Values(Disturbance::SetRemoved, Disturbance::ValueForcedTo2),
                         [](const testing::TestParamInfo<Disturbance>& info) {
                             return info.param == Disturbance::SetRemoved ? "SetRemoved"
                                                                          : "ValueForcedTo2";
                         });

// The creator stalls past the openers' wait: an opener takes over and
// frees the set, and the creator's late release must not add a second unit.
TEST(LockCreator, StalledPastTheTakeOverLeavesTheValueAt1) {
    qvtest::removeStoreLock();
    qvtest::freshRealStore();
    int* sawValue = static_cast<int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *sawValue = -2;
    qvtest::Child creator([] {
        qvreal::g_afterLockSetCreated = [] { usleep(3000 * 1000); };
        initRealSem();
        return 0;
    });
    ASSERT_TRUE(qvtest::eventually([] { return qvtest::storeLockValue() == 0; }));
    qvtest::Child opener([sawValue] {
        if (zq_openRealDB() != 0) return 1;  // takes over after 2 s
        *sawValue = qvtest::storeLockValue();
        return zq_saveDoubDAValue("none", 1) == 0 ? 0 : 1;  // a store operation runs
    });
    EXPECT_EQ(opener.wait(20000), 0);
    EXPECT_EQ(*sawValue, 1);
    EXPECT_EQ(creator.wait(20000), 0);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
    munmap(sawValue, sizeof(int));
}

// A fork while another thread is in a store operation (a save waiting for
// an outside writer) waits for it, so that the child finds the process
// mutex free and its own operations run.
TEST_F(LockThreads, AForkDuringAnOperationLeavesTheChildTheMutexFree) {
    qvtest::OutsideWriter writer;
    ASSERT_TRUE(writer.holding());
    qvtest::Child process([] {
        if (zq_openRealDB() != 0) return 2;
        std::thread saver([] { zq_saveDoubDAValue(ref(0, 'n').c_str(), 1); });
        usleep(200 * 1000);  // the saver waits inside the operation
        const int child = qvtest::runInChild(
            [] {
                zq_closeRealDB();  // the parent's, inherited
                return zq_openRealDB() == 0 && zq_saveDoubDAValue(ref(1, 'n').c_str(), 2) == 0
                           ? 0
                           : 1;
            },
            10000);
        saver.join();
        return child;
    });
    usleep(600 * 1000);
    EXPECT_TRUE(writer.release());
    EXPECT_EQ(process.wait(30000), 0) << "the forked child hung on the mutex or failed";
    EXPECT_EQ(qvtest::queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                                 std::to_string(qvtest::rowKey(ref(1, 'n')))),
              2);
}
