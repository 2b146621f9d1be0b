// The change feed: what each save puts in it, how batches end between saves,
// and processes at once: writers and subscribers forked from the test, a
// subscriber stopped past the ring's capacity, writers killed mid-save and
// the feed's file removed while everyone runs. Subscribers keep a mirror of
// the values they were told about and compare it with the store.
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "internal/qvfeed_hooks.h"
#include "process.h"
#include "qvfeed.h"
#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;

namespace {

constexpr int kWriters = 4;
constexpr int kSetMembers = 3;
constexpr int kListRows = 4;

std::string feedFile() { return realDbPath() + "-feed"; }

std::string member(int writer, int k) {
    return "W" + std::to_string(writer) + "LD0/GGIO1$ST$Ind" + std::to_string(k + 1) + "$stVal";
}

std::string listRow(int writer, int k) {
    return "W" + std::to_string(writer) + "LD0/MMXU1$MX$A" + std::to_string(k + 1) + "$mag$f";
}

unsigned key(const std::string& reference) { return static_cast<unsigned>(rowKey(reference)); }

// Every reference that has a value row, in a fixed order.
std::vector<std::string> allReferences() {
    std::vector<std::string> references;
    for (int w = 0; w < kWriters; ++w) {
        for (int k = 0; k < kSetMembers; ++k) references.push_back(member(w, k));
        for (int k = 0; k < kListRows; ++k) references.push_back(listRow(w, k));
    }
    return references;
}

// A new feed file with a ring of `capacity` changes (0: the built-in size),
// which this process's saves use from now on.
void freshFeed(unsigned long long capacity) {
    unlink(feedFile().c_str());
    qvfeed::setNewFeedCapacity(capacity);
    qvfeed::announceReset();
}

// A child says what failed on its stderr and in its exit code.
int childFailed(const std::string& text) {
    std::fprintf(stderr, "child %d: %s\n", getpid(), text.c_str());
    return 1;
}

// What a subscriber was told: value and quality by row key.
class Mirror {
public:
    void apply(const QvChange& change) { values_[change.hashID] = {change.value, change.character}; }
    // After a reset: the store as it is now (the store must be open).
    bool reread() {
        values_.clear();
        for (const std::string& reference : allReferences()) {
            double value = 0;
            int quality = 0;
            if (zq_getDoubDAValue1(reference.c_str(), &value, &quality) != 0) return false;
            values_[key(reference)] = {value, quality};
        }
        return true;
    }
    // Empty when every row it holds equals the store's; else the first difference.
    std::string differenceFromStore() const {
        for (const auto& [hashID, held] : values_) {
            const Rows rows = query(realDbPath(), "select printf('%.17g',value),quality from DAValue where hashID=" +
                                                      std::to_string(hashID));
            if (rows.empty() || std::stod(rows[0][0]) != held.first ||
                std::stoi(rows[0][1]) != held.second)
                return "row " + std::to_string(hashID) + " differs";
        }
        return "";
    }
    // The members of a writer's data set hold one value, as every save gives them.
    bool setIsWhole(int writer) const {
        const auto first = values_.find(key(member(writer, 0)));
        for (int k = 1; k < kSetMembers; ++k) {
            const auto other = values_.find(key(member(writer, k)));
            if ((first == values_.end()) != (other == values_.end())) return false;
            if (first != values_.end() && first->second.first != other->second.first) return false;
        }
        return true;
    }
    void writeTo(const std::string& path) const {
        FILE* out = std::fopen(path.c_str(), "w");
        for (const auto& [hashID, held] : values_)
            std::fprintf(out, "%u %.17g %d\n", hashID, held.first, held.second);
        std::fclose(out);
    }

private:
    std::map<unsigned, std::pair<double, int>> values_;
};

class Feed : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        execSqlFile(realDbPath(), dataPath("feed_model.sql"));
        freshFeed(0);
    }
    void TearDown() override {
        qvfeed::setNewFeedCapacity(0);
        RealStoreTest::TearDown();
    }
};

struct ExpectedChange {
    std::string reference;
    double value;
    int quality;
    double timestamp;  // 0: the time of the save
};

double wallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + now.tv_nsec * 1e-9;
}

}  // namespace

// Each save, then what a subscriber gets without waiting: one change per row
// written, in order, numbered on from the last, and nothing for rows that do
// not exist or saves that fail.
TEST_F(Feed, CarriesOneChangePerRowWrittenInSaveOrder) {
    static const std::string a1 = listRow(0, 0), a2 = listRow(0, 1), a3 = listRow(0, 2);
    static DaNameRow names[3];
    std::snprintf(names[0], sizeof names[0], "%s", a2.c_str());
    std::snprintf(names[1], sizeof names[1], "%s", "W0LD0/NOWHERE");
    std::snprintf(names[2], sizeof names[2], "%s", a3.c_str());
    static const double values[4] = {1, 2, 3, 4};
    static const int qualities[4] = {11, 12, 13, 14};
    static const double times[3] = {7, 8, 9};
    execSql(realDbPath(), "update DAValue set quality=5");
    const struct {
        const char* name;
        std::function<int()> save;
        int result;
        std::vector<ExpectedChange> changes;
    } cases[] = {
        {"plain save keeps the quality", [] { return zq_saveDoubDAValue(a1.c_str(), 1.5); }, 0,
         {{a1, 1.5, 5, 0}}},
        {"timed save", [] { return zq_saveDoubDAValueT(a1.c_str(), 2.5, 9, 1000.0); }, 0,
         {{a1, 2.5, 9, 1000.0}}},
        {"the same value again", [] { return zq_saveDoubDAValueT(a1.c_str(), 2.5, 9, 1000.0); }, 0,
         {{a1, 2.5, 9, 1000.0}}},
        {"int save", [] { return zq_saveIntDAValueValue1(a1.c_str(), 7, 3); }, 0, {{a1, 7, 3, 0}}},
        {"no such row", [] { return zq_saveDoubDAValue("W0LD0/NOWHERE", 1); }, 0, {}},
        {"list with a row missing",
         [] { return zq_saveDAValues1(names, values, qualities, 3); }, 0,
         {{a2, 1, 11, 0}, {a3, 3, 13, 0}}},
        {"timed data set",
         [] { return zq_saveDAValuesByDataSetT("W0", "ds", values, qualities, times, 3); }, 0,
         {{member(0, 0), 1, 11, 7}, {member(0, 1), 2, 12, 8}, {member(0, 2), 3, 13, 9}}},
        {"data-set save that fails",
         [] { return zq_saveDAValues1ByDataSet("W0", "ds", values, qualities, 4); }, -1, {}},
    };
    QvFeed* feed = zq_openChangeFeed();
    ASSERT_NE(feed, nullptr);
    unsigned long long lastSeq = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const double before = wallClock();
        ASSERT_EQ(c.save(), c.result);
        const double after = wallClock();
        QvChange got[8];
        int count = -1;
        ASSERT_EQ(zq_waitChanges(feed, 0, got, 8, &count), 0);
        ASSERT_EQ(count, static_cast<int>(c.changes.size()));
        for (int i = 0; i < count; ++i) {
            const ExpectedChange& e = c.changes[i];
            SCOPED_TRACE(i);
            if (lastSeq != 0) {
                EXPECT_EQ(got[i].seq, lastSeq + 1);
            }
            lastSeq = got[i].seq;
            EXPECT_EQ(got[i].kind, QV_CHANGE_VALUE);
            EXPECT_EQ(got[i].hashID, key(e.reference));
            EXPECT_EQ(got[i].value, e.value);
            EXPECT_EQ(got[i].character, e.quality);
            if (e.timestamp != 0) {
                EXPECT_EQ(got[i].timestamp, e.timestamp);
            } else {
                EXPECT_GE(got[i].timestamp, before - 0.01);
                EXPECT_LE(got[i].timestamp, after + 0.01);
            }
        }
    }
    EXPECT_EQ(zq_closeChangeFeed(feed), 0);
}

// A batch holds whole saves: it ends before a save that would not fit, and a
// save larger than the caller's array comes in pieces. A model reset is one
// change of its own.
TEST_F(Feed, BatchesEndBetweenSaves) {
    static const double values[3] = {1, 2, 3};
    QvFeed* feed = zq_openChangeFeed();
    ASSERT_NE(feed, nullptr);
    const auto saveSet = [] { ASSERT_EQ(zq_saveDAValuesByDataSet("W1", "ds", values, 3), 0); };
    const auto saveOne = [] { ASSERT_EQ(zq_saveDoubDAValue(listRow(1, 0).c_str(), 1), 0); };
    const struct {
        const char* name;
        std::function<void()> saves;
        int capacity;
        std::vector<int> batches;
    } cases[] = {
        {"two sets into four", [&] { saveSet(); saveSet(); }, 4, {3, 3}},
        {"set and single into four", [&] { saveSet(); saveOne(); }, 4, {4}},
        {"set into two, then its rest and a single", [&] { saveSet(); saveOne(); }, 2, {2, 2}},
        {"single, set, single into three", [&] { saveOne(); saveSet(); saveOne(); }, 3, {1, 3, 1}},
        {"reset between singles", [&] { saveOne(); qvfeed::announceReset(); saveOne(); }, 8, {3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.saves();
        std::vector<int> batches;
        QvChange got[8];
        int count = 0;
        while (zq_waitChanges(feed, 0, got, c.capacity, &count) == 0 && count > 0)
            batches.push_back(count);
        EXPECT_EQ(batches, c.batches);
    }
    int count = 0;
    QvChange change;
    EXPECT_EQ(zq_waitChanges(feed, 0, &change, 0, &count), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_ARGUMENT);
    EXPECT_EQ(zq_waitChanges(nullptr, 0, &change, 1, &count), -1);
    EXPECT_EQ(zq_closeChangeFeed(feed), 0);
}

// A subscriber in another process, blocked without a time limit, returns
// with the change once a save is made, and used no processor time while
// it waited.
TEST_F(Feed, BlockedSubscriberWakesOnASaveWithoutSpinning) {
    zq_closeRealDB();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    Child subscriber([&] {
        QvFeed* feed = zq_openChangeFeed();
        if (feed == nullptr) return childFailed("no feed");
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        if (write(ready[1], "r", 1) != 1) return childFailed("pipe");
        QvChange change{};
        int count = 0;
        const int result = zq_waitChanges(feed, -1, &change, 1, &count);
        getrusage(RUSAGE_SELF, &after);
        const long usedMicros =
            (after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1000000L +
            (after.ru_utime.tv_usec - before.ru_utime.tv_usec) +
            (after.ru_stime.tv_sec - before.ru_stime.tv_sec) * 1000000L +
            (after.ru_stime.tv_usec - before.ru_stime.tv_usec);
        if (result != 0 || count != 1 || change.value != 42) return childFailed("wrong change");
        if (usedMicros > 100000) return childFailed("busy while blocked");
        return 0;
    });
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    usleep(500000);
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue(listRow(2, 0).c_str(), 42), 0);
    EXPECT_EQ(subscriber.wait(20000), 0);
    close(ready[0]);
    close(ready[1]);
}
