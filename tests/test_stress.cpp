// Several processes on the real-time store at once: writers, readers and a
// model load. Each writer owns its rows and writes a rising sequence, so a
// reader can tell a lost, torn or backward value; every child has a
// deadline, so a deadlock ends the test instead of hanging it.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::queryInt;
using qvtest::realDbPath;
using qvtest::rowKey;
using qvtest::sourcePath;
using qvtest::storeLockValue;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWriters = 3;
constexpr int kReaders = 2;
constexpr int kSequence = 300;      // values each writer writes
constexpr int kLoads = 3;           // successful loads the loader needs
constexpr int kLoadAttempts = 100;  // per load, while the store is busy
constexpr auto kChildDeadline = std::chrono::seconds(15);
constexpr auto kParentDeadline = std::chrono::seconds(18);

const char* const kIed = "QVFTU1";
const char* const kOtherIed = "QVFTU2";
const char* const kDataSet = "dsAin";

// What the children share with the parent: start and stop flags and one
// failure text per child.
struct Shared {
    std::atomic<int> ready;
    std::atomic<int> go;
    std::atomic<int> stop;
    char failure[kWriters + kReaders + 1][256];
};

std::string ref(int writer, const char* row) {
    return "STRESS/W" + std::to_string(writer) + "$" + row;
}

void copyRef(DaNameRow& row, const std::string& text) {
    std::snprintf(row, sizeof row, "%s", text.c_str());
}

// One child's view: its failure slot and its deadline.
class Child {
public:
    Child(Shared* shared, int slot)
        : shared_(shared), slot_(slot), end_(Clock::now() + kChildDeadline) {}
    bool expired() const { return Clock::now() > end_; }
    bool fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        char* text = shared_->failure[slot_];
        if (text[0] == '\0') {
            va_list arguments;
            va_start(arguments, format);
            std::vsnprintf(text, sizeof shared_->failure[slot_], format, arguments);
            va_end(arguments);
        }
        return false;
    }
    bool stopped() const { return shared_->stop.load() != 0; }

private:
    Shared* shared_;
    int slot_;
    Clock::time_point end_;
};

// ---- Roles ----------------------------------------------------------------

struct Options {
    bool withLoader;  // a bulk save may then lose elements to the busy loader
    int dataSetMembers;
    int otherIedMembers;
    std::string otherModel;
};

// A bulk save skips elements that hit a busy store (the loader's
// transaction); the owner reads back and saves again until its rows hold seq.
bool savePair(Child& child, int writer, int seq) {
    DaNameRow names[2];
    copyRef(names[0], ref(writer, "a"));
    copyRef(names[1], ref(writer, "b"));
    const double values[2] = {double(seq), double(seq)};
    const int qualities[2] = {seq, seq};
    for (;;) {
        if (zq_saveDAValues1(names, values, qualities, 2) != 0)
            return child.fail("pair save failed");
        double read[2] = {-1, -1};
        int readQ[2] = {-1, -1};
        if (zq_getDAValues1(names, 2, read, readQ) != 0) return child.fail("pair read failed");
        if (read[0] == seq && read[1] == seq) return true;
        if (child.expired()) return child.fail("pair of writer %d never held %d", writer, seq);
        usleep(1000);
    }
}

bool saveDataSet(Child& child, const Options& options, int seq) {
    std::vector<double> values(options.dataSetMembers, seq), read(options.dataSetMembers + 8);
    std::vector<int> qualities(options.dataSetMembers, seq), readQ(options.dataSetMembers + 8);
    for (;;) {
        if (zq_saveDAValues1ByDataSet(kIed, kDataSet, values.data(), qualities.data(),
                                      options.dataSetMembers) != 0)
            return child.fail("data set save failed");
        int count = 0;
        if (zq_getDAValues1ByDataSet(kIed, kDataSet, read.data(), readQ.data(), &count) != 0)
            return child.fail("data set read failed");
        bool all = count == options.dataSetMembers;
        for (int i = 0; all && i < count; ++i) all = read[i] == seq;
        if (all) return true;
        if (child.expired()) return child.fail("data set never held %d", seq);
        usleep(1000);
    }
}

// Writer 0 also owns the values of the data set.
bool writer(Child& child, const Options& options, int w) {
    const std::string counter = ref(w, "n");
    for (int seq = 1; seq <= kSequence; ++seq) {
        if (!savePair(child, w, seq)) return false;
        const int saved = seq % 2 == 0 ? zq_saveDoubDAValue1(counter.c_str(), seq, seq)
                                       : zq_saveIntDAValueValue1(counter.c_str(), seq, seq);
        if (saved != 0) return child.fail("counter save failed at %d", seq);
        if (w == 0 && !saveDataSet(child, options, seq)) return false;
    }
    return true;
}

// What one reader has seen so far; nothing may go back.
struct Seen {
    std::vector<double> pairs = std::vector<double>(kWriters, 0);
    std::vector<int> counters = std::vector<int>(kWriters, 0);
    double dataSet = 0;
};

bool readPairs(Child& child, const Options& options, Seen& seen) {
    DaNameRow names[2 * kWriters];
    for (int w = 0; w < kWriters; ++w) {
        copyRef(names[2 * w], ref(w, "a"));
        copyRef(names[2 * w + 1], ref(w, "b"));
    }
    double values[2 * kWriters];
    int qualities[2 * kWriters];
    if (zq_getDAValues1(names, 2 * kWriters, values, qualities) != 0)
        return child.fail("pairs read failed");
    for (int w = 0; w < kWriters; ++w) {
        const double a = values[2 * w], b = values[2 * w + 1];
        if (!options.withLoader && (a != b || qualities[2 * w] != qualities[2 * w + 1]))
            return child.fail("torn pair of writer %d: %g and %g", w, a, b);
        if (a < seen.pairs[w] || b < seen.pairs[w])
            return child.fail("pair of writer %d went back from %g to %g/%g", w, seen.pairs[w],
                              a, b);
        seen.pairs[w] = std::min(a, b);
    }
    return true;
}

bool readCounters(Child& child, Seen& seen) {
    for (int w = 0; w < kWriters; ++w) {
        const std::string counter = ref(w, "n");
        int value = 0, quality = 0;
        double asDouble = 0;
        if (zq_getIntDAValue1(counter.c_str(), &value, &quality) != 0 ||
            zq_getDoubDAValue(counter.c_str(), &asDouble) != 0)
            return child.fail("counter read failed");
        if (value < seen.counters[w] || asDouble < value)
            return child.fail("counter of writer %d went back from %d", w, seen.counters[w]);
        seen.counters[w] = value;
    }
    return true;
}

bool readDataSets(Child& child, const Options& options, Seen& seen) {
    std::vector<double> values(options.dataSetMembers + 8, -1);
    int count = 0;
    if (zq_getDAValuesByDataSet(kIed, kDataSet, values.data(), &count) != 0 ||
        count != options.dataSetMembers)
        return child.fail("data set read failed or counted %d members", count);
    const double low = *std::min_element(values.begin(), values.begin() + count);
    const double high = *std::max_element(values.begin(), values.begin() + count);
    if (!options.withLoader && low != high)
        return child.fail("torn data set: %g to %g", low, high);
    if (low < seen.dataSet)
        return child.fail("data set went back from %g to %g", seen.dataSet, low);
    seen.dataSet = low;
    // A load lands whole or not at all.
    int members = 0;
    if (zq_getDataSetSubsByParamsNum(kOtherIed, nullptr, nullptr, nullptr, nullptr, nullptr,
                                     nullptr, nullptr, &members) != 0 ||
        (members != 0 && members != options.otherIedMembers))
        return child.fail("the loading IED showed %d of %d members", members,
                          options.otherIedMembers);
    return true;
}

bool reader(Child& child, const Options& options) {
    Seen seen;
    while (!child.stopped()) {
        if (!readPairs(child, options, seen) || !readCounters(child, seen) ||
            !readDataSets(child, options, seen))
            return false;
        if (child.expired()) return child.fail("reader ran past its deadline");
    }
    return true;
}

int otherIedMembers() {
    int members = -1;
    zq_getDataSetSubsByParamsNum(kOtherIed, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, &members);
    return members;
}

// The loader takes no store lock and no busy retry: under traffic a load may
// fail, and must then leave the store as it was.
bool loader(Child& child, const Options& options) {
    std::vector<char> file(options.otherModel.begin(), options.otherModel.end());
    file.push_back('\0');
    for (int load = 0; load < kLoads; ++load) {
        int attempt = 0;
        for (;; ++attempt) {
            const int before = otherIedMembers();
            const int result = zq_addIEDRealDB(file.data());
            if (result == 0) break;
            if (result != -1) return child.fail("load answered %d", result);
            if (otherIedMembers() != before) return child.fail("a failed load changed the store");
            if (attempt == kLoadAttempts || child.expired())
                return child.fail("load %d never got through the traffic", load);
            usleep(5000);
        }
    }
    return true;
}

// ---- The parent -----------------------------------------------------------

class StressRun {
public:
    StressRun() {
        shared_ = static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        std::memset(static_cast<void*>(shared_), 0, sizeof(Shared));
    }
    ~StressRun() {
        killAll();
        munmap(shared_, sizeof(Shared));
    }

    // Forks a child that opens its own connection, waits for the start and
    // runs its role; its exit code says whether the role held.
    void start(const std::function<bool(Child&)>& role) {
        const int slot = static_cast<int>(pids_.size());
        const pid_t pid = fork();
        if (pid == 0) {
            Child child(shared_, slot);
            bool ok = zq_openRealDB() == 0 || child.fail("open failed");
            shared_->ready.fetch_add(1);
            while (ok && shared_->go.load() == 0) {
                if (child.expired()) ok = child.fail("never started");
                usleep(1000);
            }
            ok = ok && role(child);
            zq_closeRealDB();
            _exit(ok ? 0 : 1);
        }
        pids_.push_back(pid);
    }

    // Every child has opened its connection before any takes the store lock,
    // since each open sets the lock free.
    bool go() {
        while (shared_->ready.load() < static_cast<int>(pids_.size())) {
            if (Clock::now() > end_) return false;
            usleep(1000);
        }
        shared_->go.store(1);
        return true;
    }

    // Waits for children first..last-1; false when the deadline passed.
    bool wait(size_t first, size_t last) {
        for (size_t i = first; i < last; ++i) {
            int status = 0;
            while (waitpid(pids_[i], &status, WNOHANG) == 0) {
                if (Clock::now() > end_) return false;
                usleep(2000);
            }
            pids_[i] = -1;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                ADD_FAILURE() << "child " << i << ": " << shared_->failure[i];
        }
        return true;
    }
    void stop() { shared_->stop.store(1); }

    // After a hang: end everything and set the store lock free again.
    void killAll() {
        for (pid_t& pid : pids_) {
            if (pid <= 0) continue;
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
        zq_openRealDB();
        zq_closeRealDB();
    }

private:
    Shared* shared_;
    std::vector<pid_t> pids_;
    Clock::time_point end_ = Clock::now() + kParentDeadline;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The sample model under a second IED name, for a load beside the first.
std::string writeOtherModel() {
    std::string model = readFile(sourcePath("samples/feeder_terminal.cid"));
    for (size_t at = model.find(kIed); at != std::string::npos; at = model.find(kIed, at))
        model.replace(at, std::strlen(kIed), kOtherIed);
    const std::string path = std::string(QV_TEST_STORE_DIR) + "/other_ied.cid";
    std::ofstream(path) << model;
    return path;
}

double storedValue(const std::string& reference) {
    return static_cast<double>(queryInt(realDbPath(), "select value from DAValue where hashID=" +
                                                          std::to_string(rowKey(reference))));
}

class Stress : public testing::Test {
protected:
    void SetUp() override {
        zq_closeRealDB();  // children must not inherit a connection
        qvtest::freshRealStore();
        std::vector<char> model;
        const std::string sample = sourcePath("samples/feeder_terminal.cid");
        model.assign(sample.begin(), sample.end());
        model.push_back('\0');
        ASSERT_EQ(zq_addIEDRealDB(model.data()), 0);
        for (int w = 0; w < kWriters; ++w) {
            for (const char* row : {"a", "b", "n"}) {
                execSql(realDbPath(), "insert into DAValue values(" +
                                          std::to_string(rowKey(ref(w, row))) + ",1,0,0,0)");
            }
        }
        options_.dataSetMembers = static_cast<int>(queryInt(
            realDbPath(), std::string("select count(*) from DataSetSub where dsName='") +
                              kDataSet + "' and iedName='" + kIed + "'"));
        options_.otherIedMembers = static_cast<int>(
            queryInt(realDbPath(),
                     std::string("select count(*) from DataSetSub where iedName='") + kIed + "'"));
        options_.otherModel = writeOtherModel();
    }

    void run(bool withLoader) {
        options_.withLoader = withLoader;
        const Options options = options_;
        StressRun stress;
        for (int w = 0; w < kWriters; ++w)
            stress.start([&options, w](Child& child) { return writer(child, options, w); });
        if (withLoader) stress.start([&options](Child& child) { return loader(child, options); });
        const size_t workers = kWriters + (withLoader ? 1 : 0);
        for (int r = 0; r < kReaders; ++r)
            stress.start([&options](Child& child) { return reader(child, options); });
        const bool finished = stress.go() && stress.wait(0, workers);
        stress.stop();
        if (!finished || !stress.wait(workers, workers + kReaders)) {
            stress.killAll();
            FAIL() << "a child did not finish in time: deadlock or a lock never released";
        }
        // Nothing was lost: every owned row holds the last value written.
        for (int w = 0; w < kWriters; ++w) {
            for (const char* row : {"a", "b", "n"}) EXPECT_EQ(storedValue(ref(w, row)), kSequence);
        }
        EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value=" +
                                             std::to_string(kSequence) + " and quality=" +
                                             std::to_string(kSequence)),
                  3 * kWriters + options_.dataSetMembers);
        if (withLoader) {
            EXPECT_EQ(queryInt(realDbPath(), std::string("select count(*) from DataSetSub where "
                                                         "iedName='") + kOtherIed + "'"),
                      options_.otherIedMembers);
        }
    }

    Options options_{};
};

}  // namespace

TEST_F(Stress, WritersAndReadersNeverSeeALostTornOrBackwardValue) { run(false); }

TEST_F(Stress, LoadsOfAnotherIedUnderTrafficLandWholeOrNotAtAll) { run(true); }

namespace {

bool readByte(int fd) {
    char byte = 0;
    return read(fd, &byte, 1) == 1;
}

void writeByte(int fd) {
    const char byte = 1;
    if (write(fd, &byte, 1) != 1) _exit(2);
}

}  // namespace

// A process that dies holding the store lock leaves it taken; the next
// zq_openRealDB of any process sets it free.
TEST_F(Stress, ALockHolderKilledMidOperationIsRecoveredByTheNextOpen) {
    int toParent[2], toWaiter[2];
    ASSERT_EQ(pipe(toParent), 0);
    ASSERT_EQ(pipe(toWaiter), 0);
    const std::string counter = ref(0, "n");

    // The waiter opens first: an open later would free the lock itself.
    const pid_t waiter = fork();
    if (waiter == 0) {
        if (zq_openRealDB() != 0) _exit(1);
        writeByte(toParent[1]);
        if (!readByte(toWaiter[0])) _exit(1);
        _exit(zq_saveDoubDAValue1(counter.c_str(), 7, 1) == 0 ? 0 : 1);
    }
    ASSERT_TRUE(readByte(toParent[0]));

    const pid_t holder = fork();
    if (holder == 0) {
        if (zq_openRealDB() != 0) _exit(1);
        locksem(semget(QV_SEM_KEY, 1, 0666));
        writeByte(toParent[1]);
        pause();
        _exit(0);
    }
    ASSERT_TRUE(readByte(toParent[0]));
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(storeLockValue(), 0);

    writeByte(toWaiter[1]);
    usleep(300000);
    int status = 0;
    EXPECT_EQ(waitpid(waiter, &status, WNOHANG), 0) << "the dead holder's lock did not hold";

    ASSERT_EQ(zq_openRealDB(), 0);  // sets the lock free
    const auto end = Clock::now() + std::chrono::seconds(10);
    pid_t done = 0;
    while ((done = waitpid(waiter, &status, WNOHANG)) == 0 && Clock::now() < end) usleep(2000);
    if (done == 0) {
        kill(waiter, SIGKILL);
        waitpid(waiter, &status, 0);
        FAIL() << "the waiter stayed blocked after zq_openRealDB";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    double value = 0;
    EXPECT_EQ(zq_getDoubDAValue(counter.c_str(), &value), 0);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(storeLockValue(), 1);
    zq_closeRealDB();
    for (int fd : {toParent[0], toParent[1], toWaiter[0], toWaiter[1]}) close(fd);
}
