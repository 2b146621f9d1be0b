// Processes on the real-time store at once, each opening its connection as
// it starts: list writers, a data-set writer, list and data-set readers and a
// model load beside them. Every writer writes a rising sequence, so a reader
// can tell a lost, torn or backward value; the parent kills every child past
// a deadline, so a deadlock fails the test instead of hanging it. Then the
// store lock itself: exclusion, waiting, and release when its holder dies.
#include <signal.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "process.h"
#include "qvtest.h"

using qvtest::queryInt;
using qvtest::realDbPath;

namespace {

constexpr int kWriters = 3;
constexpr int kListReaders = 2;
constexpr int kSetReaders = 2;
constexpr int kSequence = 200;  // values each writer writes
constexpr int kMembers = 16;    // members of the data set under load (tests/data/stress.sql)
constexpr int kLoads = 3;       // successful loads the loader needs
constexpr int kDeadlineMs = 60000;
const char* const kOtherIed = "QVFTU2";
const char* const kSetIed = "STRESS";
const char* const kSet = "dsStress";

std::atomic<int>* stopFlag = nullptr;  // mapped shared before the children fork

// A child says what failed on its stderr; its exit code tells the parent.
bool fail(const std::string& text) {
    std::fprintf(stderr, "child %d: %s\n", getpid(), text.c_str());
    return false;
}

std::string ref(int writer, char row) { return "STRESS/W" + std::to_string(writer) + "$" + row; }

// The names of a writer's first `count` rows: the pair a, b and the counter n.
void rowNames(DaNameRow* names, int writer, int count) {
    for (int i = 0; i < count; ++i)
        std::snprintf(names[i], sizeof names[i], "%s", ref(writer, "abn"[i]).c_str());
}

// The pair goes in one list save, the counter through both single-value
// saves in turn; the data-set writer gives every member one value and quality.
bool writer(int w) {
    DaNameRow names[2];
    rowNames(names, w, 2);
    const std::string counter = ref(w, 'n');
    for (int seq = 1; seq <= kSequence; ++seq) {
        const double values[2] = {double(seq), double(seq)};
        const int qualities[2] = {seq, seq};
        if (zq_saveDAValues1(names, values, qualities, 2) != 0)
            return fail("pair save failed at " + std::to_string(seq));
        const int saved = seq % 2 == 0 ? zq_saveDoubDAValue1(counter.c_str(), seq, seq)
                                       : zq_saveIntDAValueValue1(counter.c_str(), seq, seq);
        if (saved != 0) return fail("counter save failed at " + std::to_string(seq));
    }
    return true;
}

bool setWriter() {
    for (int seq = 1; seq <= kSequence; ++seq) {
        const std::vector<double> values(kMembers, seq);
        const std::vector<int> qualities(kMembers, seq);
        if (zq_saveDAValues1ByDataSet(kSetIed, kSet, values.data(), qualities.data(), kMembers) != 0)
            return fail("data-set save failed at " + std::to_string(seq));
    }
    return true;
}

int loadedMembers() {
    int members = -1;
    zq_getDataSetSubsByParamsNum(kOtherIed, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, &members);
    return members;
}

// No value a reader sees may go back, no pair may be torn, and the load shows
// whole or not at all.
bool listReader(int wholeLoad) {
    constexpr int kRows = 3 * kWriters;
    DaNameRow names[kRows];
    for (int w = 0; w < kWriters; ++w) rowNames(names + 3 * w, w, 3);
    std::vector<double> seen(kRows, 0);
    while (stopFlag->load() == 0) {
        double values[kRows];
        int qualities[kRows];
        if (zq_getDAValues1(names, kRows, values, qualities) != 0) return fail("read failed");
        for (int i = 0; i < kRows; ++i) {
            if (values[i] < seen[i]) return fail(std::string(names[i]) + " went back");
            seen[i] = values[i];
            if (i % 3 == 0 && (values[i] != values[i + 1] || qualities[i] != qualities[i + 1]))
                return fail(std::string(names[i]) + " torn from its pair");
        }
        const int shown = loadedMembers();
        if (shown != 0 && shown != wholeLoad) return fail("the load showed " + std::to_string(shown));
    }
    return true;
}

// Every read of the data set shows all members at one save, never older
// than the last read; the bounded form is used in turn with the plain one.
bool setReader() {
    double seen = 0;
    for (int pass = 0; stopFlag->load() == 0; ++pass) {
        double values[kMembers];
        int qualities[kMembers];
        int count = 0;
        const int result =
            pass % 2 == 0 ? zq_getDAValues1ByDataSet(kSetIed, kSet, values, qualities, &count)
                          : zq_getDAValues1ByDataSetN(kSetIed, kSet, values, qualities, kMembers, &count);
        if (result != 0 || count != kMembers) return fail("data-set read failed");
        for (int i = 0; i < kMembers; ++i) {
            if (values[i] != values[0] || qualities[i] != values[0])
                return fail("torn data-set read at member " + std::to_string(i));
        }
        if (values[0] < seen) return fail("the data set went back");
        seen = values[0];
    }
    return true;
}

// The loader takes no store lock and no busy retry: under traffic a load may
// fail, and must then leave the store as it was.
bool loader(std::string model) {
    for (int loaded = 0; loaded < kLoads; usleep(5000)) {
        const int before = loadedMembers(), result = zq_addIEDRealDB(&model[0]);
        if (result == 0) {
            ++loaded;
        } else if (result != -1) {
            return fail("load answered " + std::to_string(result));
        } else if (loadedMembers() != before) {
            return fail("a failed load changed the store");
        }
    }
    return true;
}

// Adds one to a row's value `times` times under the store lock, by
// read-modify-write on a connection of its own: without exclusion, updates
// get lost.
bool incrementUnderStoreLock(long long rowKey, int times) {
    sqlite3* db = nullptr;
    sqlite3_open(realDbPath().c_str(), &db);
    sqlite3_busy_timeout(db, 10000);
    const std::string key = std::to_string(rowKey);
    auto readValue = [](void* out, int, char** columns, char**) {
        *static_cast<double*>(out) = std::atof(columns[0]);
        return 0;
    };
    for (int n = 0; n < times; ++n) {
        locksem(semget(QV_SEM_KEY, 1, 0666));
        double value = 0;
        const std::string read = "select value from DAValue where hashID=" + key;
        sqlite3_exec(db, read.c_str(), readValue, &value, nullptr);
        usleep(50);  // widen the window a missing lock would leave open
        const std::string update = "update DAValue set value=" + std::to_string(value + 1) + " where hashID=";
        sqlite3_exec(db, (update + key).c_str(), nullptr, nullptr, nullptr);
        unlocksem(semget(QV_SEM_KEY, 1, 0666));
    }
    return sqlite3_close(db) == SQLITE_OK;
}

long long members(const std::string& ied) {
    return queryInt(realDbPath(), "select count(*) from DataSetSub where iedName='" + ied + "'");
}

long long valueOf(const std::string& reference) {
    return queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                      std::to_string(qvtest::rowKey(reference)));
}

// Processes asleep on the store lock.
int lockSleepers() { return semctl(semget(QV_SEM_KEY, 1, 0666), 0, GETNCNT); }

class Stress : public testing::Test {
protected:
    void SetUp() override {
        stopFlag = static_cast<std::atomic<int>*>(mmap(nullptr, sizeof *stopFlag, PROT_READ | PROT_WRITE,
                                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        zq_closeRealDB();  // children must not inherit a connection
        qvtest::removeStoreLock();
        qvtest::freshRealStore();
        std::string sample = qvtest::sourcePath("samples/feeder_terminal.cid");
        ASSERT_EQ(zq_addIEDRealDB(&sample[0]), 0);
        qvtest::execSqlFile(realDbPath(), qvtest::dataPath("stress.sql"));
    }
    void TearDown() override {
        children_.clear();
        munmap(stopFlag, sizeof *stopFlag);
    }
    // Forks a child that opens its own connection and runs its role at once;
    // its exit code says whether the role held.
    size_t start(const std::function<bool()>& role) {
        children_.emplace_back(new qvtest::Child([role] {
            const bool ok = (zq_openRealDB() == 0 || fail("open failed")) && role();
            zq_closeRealDB();
            return ok ? 0 : 1;
        }));
        return children_.size() - 1;
    }
    // Waits for every child to end well, raising the stop flag once the first
    // `workers` ended; a child still running at the deadline fails the test
    // (and the others are killed).
    void finishAll(size_t workers = 0) {
        for (size_t i = 0; i < children_.size(); ++i) {
            if (i == workers) stopFlag->store(1);
            ASSERT_EQ(children_[i]->wait(kDeadlineMs), 0)
                << "child " << i << " failed or hung: deadlock or a lock never freed";
        }
    }

    std::vector<std::unique_ptr<qvtest::Child>> children_;
};

}  // namespace

TEST_F(Stress, NineProcessesLoseNoUpdateReadNothingTornAndLoadsLandWholeOrNotAtAll) {
    const int wholeLoad = static_cast<int>(members("QVFTU1"));
    // The sample model under a second IED name, for a load beside the first.
    const std::string model = qvtest::storeFile("other_ied.cid");
    std::string text = qvtest::fileText(qvtest::sourcePath("samples/feeder_terminal.cid"));
    for (size_t at; (at = text.find("QVFTU1")) != std::string::npos;) text.replace(at, 6, kOtherIed);
    std::ofstream(model) << text;
    for (int w = 0; w < kWriters; ++w) start([w] { return writer(w); });
    start(setWriter);
    start([&model] { return loader(model); });
    const size_t workers = children_.size();
    for (int r = 0; r < kListReaders; ++r) start([=] { return listReader(wholeLoad); });
    for (int r = 0; r < kSetReaders; ++r) start(setReader);
    finishAll(workers);
    // Nothing was lost: every owned row holds the last value and quality.
    const std::string last = std::to_string(kSequence);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value=" + last +
                                         " and quality=" + last),
              3 * kWriters + kMembers);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
    EXPECT_EQ(members(kOtherIed), wholeLoad);
}

// A save and four processes that increment a value under the store lock on
// connections of their own wait while another process holds the lock, and go
// on as soon as the holder is killed: the lock dies with its holder. The
// saver gets signals while it waits, through a handler without SA_RESTART
// (stopFlag counts them): it waits on and saves once, under the lock.
// Without exclusion among the incrementers, increments get lost.
TEST_F(Stress, LockedWorkWaitsThroughSignalsGoesOnWhenTheHolderIsKilledAndLosesNothing) {
    const std::string counter = ref(0, 'n'), incremented = ref(1, 'n');
    const int kIncrements = 150;
    // The holder says when it holds the lock: a set just made holds 0 too,
    // until its maker frees it.
    const size_t holder = start([] {
        locksem(semget(QV_SEM_KEY, 1, 0666));
        stopFlag->store(-1);
        pause();
        return true;
    });
    ASSERT_TRUE(qvtest::eventually([] { return stopFlag->load() == -1; }));
    stopFlag->store(0);
    const size_t saver = start([&counter] {
        struct sigaction action {};
        action.sa_handler = [](int) { stopFlag->fetch_add(1); };
        sigaction(SIGUSR1, &action, nullptr);
        return zq_saveDoubDAValue1(counter.c_str(), 7, 1) == 0;
    });
    const long long key = qvtest::rowKey(incremented);
    for (int c = 0; c < 4; ++c) start([key] { return incrementUnderStoreLock(key, kIncrements); });
    for (int signals = 1; signals <= 5; ++signals) {
        ASSERT_TRUE(qvtest::eventually([] { return lockSleepers() == 5; }));
        children_[saver]->signal(SIGUSR1);
        ASSERT_TRUE(qvtest::eventually([signals] { return stopFlag->load() == signals; }));
    }
    EXPECT_TRUE(qvtest::eventually([] { return lockSleepers() == 5; }));
    usleep(300000);
    for (size_t i = holder + 1; i < children_.size(); ++i)
        EXPECT_TRUE(children_[i]->running()) << "child " << i << " did not wait";
    EXPECT_EQ(valueOf(counter) + valueOf(incremented), 0);

    children_[holder]->signal(SIGKILL);
    children_.erase(children_.begin() + holder);
    finishAll();
    EXPECT_EQ(valueOf(counter), 7);
    EXPECT_EQ(valueOf(incremented), 4 * kIncrements);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
}

// ---- Faults around the store lock: kills, a removed set -------------------------

// Writers killed with SIGKILL at random moments while they save a long list
// again and again (stopFlag says that one save landed): every save lands
// whole or not at all, the lock is free at once, and the store is sound and
// takes the next save.
TEST_F(Stress, AListSaveKilledPartWayLandsWholeOrNotAtAllAndFreesTheLock) {
    constexpr int kRows = 2000;
    std::vector<DaNameRow> names(kRows);
    std::string rows;
    for (int i = 0; i < kRows; ++i) {
        std::snprintf(names[i], sizeof names[i], "KILL/GGIO1$ST$Ind%d$stVal", i);
        rows += "insert into DAValue values(" + std::to_string(qvtest::rowKey(names[i])) + ",9,0,0,0);";
    }
    qvtest::execSql(realDbPath(), rows);
    const std::string listed = "select count(distinct value),min(value) from DAValue where type=9";
    for (int writer = 1; writer <= 10; ++writer) {
        qvtest::Child saver([&names, writer] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // it never outlives the test
            if (zq_openRealDB() != 0) return 1;
            std::vector<double> values(kRows);
            for (int save = 1;; ++save) {
                std::fill(values.begin(), values.end(), writer * 100000 + save);
                if (zq_saveDAValues(names.data(), values.data(), kRows) == 0) stopFlag->store(writer);
            }
        });
        ASSERT_TRUE(qvtest::eventually([writer] { return stopFlag->load() == writer; }));
        usleep(random() % 20000);
        saver.signal(SIGKILL);
        ASSERT_EQ(qvtest::storeLockValue(), 1);
        EXPECT_EQ(queryInt(realDbPath(), listed), 1);
    }
    EXPECT_EQ(qvtest::query(realDbPath(), "pragma integrity_check"), (qvtest::Rows{{"ok"}}));
    ASSERT_EQ(zq_openRealDB(), 0);
    const std::vector<double> ones(kRows, 1);
    EXPECT_EQ(zq_saveDAValues(names.data(), ones.data(), kRows), 0);
    EXPECT_EQ(qvtest::query(realDbPath(), listed), (qvtest::Rows{{"1", "1.0"}}));
    zq_closeRealDB();
}

// The lock's set removed while one process holds the lock and another sleeps
// on it: nobody crashes or hangs, the sleeper's save runs, the set is there
// again and free, and the holder's next save works.
TEST_F(Stress, ALockSetRemovedUnderItsHolderAndASleeperIsMadeAnew) {
    const std::string held = ref(0, 'n'), waited = ref(1, 'n');
    initRealSem();  // free until the holder takes it
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    qvtest::Child holder([&] {
        char c;
        close(go[1]);  // so that the read ends with the test
        if (zq_openRealDB() != 0) return 1;
        const int semid = semget(QV_SEM_KEY, 1, 0666);
        locksem(semid);
        if (read(go[0], &c, 1) != 1) return 1;
        unlocksem(semid);  // the set is gone: nothing to give back
        return zq_saveDoubDAValue1(held.c_str(), 2, 2) == 0 ? 0 : 1;
    });
    close(go[0]);
    ASSERT_TRUE(qvtest::eventually([] { return qvtest::storeLockValue() == 0; }));
    qvtest::Child sleeper([&waited] {
        return zq_openRealDB() == 0 && zq_saveDoubDAValue1(waited.c_str(), 1, 1) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(qvtest::eventually([] { return lockSleepers() == 1; }));
    qvtest::removeStoreLock();
    EXPECT_EQ(sleeper.wait(10000), 0);
    EXPECT_EQ(valueOf(waited), 1);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
    ASSERT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(holder.wait(10000), 0);
    EXPECT_EQ(valueOf(held), 2);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
    close(go[1]);
}
