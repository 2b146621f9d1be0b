// The change feed: what each save puts in it, how batches end between saves,
// and processes at once: writers and subscribers forked from the test, a
// subscriber stopped past the ring's capacity, writers killed mid-save and
// the feed's file removed while everyone runs. Subscribers keep a mirror of
// the values they were told about and compare it with the store.
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "feed/feed_file.h"
#include "internal/qvfeed_hooks.h"
#include "process.h"
#include "qvaddied.h"
#include "qvfeed.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "qvtool_run.h"

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

// A model load and `qvtool init` change values beyond the feed: each gives
// one reset and nothing else.
TEST_F(Feed, ModelLoadAndInitGiveOneResetEach) {
    const struct {
        const char* name;
        std::function<bool()> run;
    } cases[] = {
        {"model load",
         [] { return zq_addIEDRealDB(const_cast<char*>(dataPath("valid_model.scd").c_str())) == 0; }},
        {"qvtool init", [] { return tool({"init"}).code == 0; }},
    };
    QvFeed* feed = zq_openChangeFeed();
    ASSERT_NE(feed, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.run());
        QvChange got[4];
        int count = 0;
        ASSERT_EQ(zq_waitChanges(feed, 0, got, 4, &count), 0);
        ASSERT_EQ(count, 1);
        EXPECT_EQ(got[0].kind, QV_CHANGE_RESET);
        EXPECT_TRUE(got[0].hashID == 0 && got[0].value == 0 && got[0].character == 0);
    }
    zq_closeChangeFeed(feed);
}

// The file is made with the configured access mode, whatever the umask of
// the process that makes it.
TEST_F(Feed, FileHasTheConfiguredModeWhateverTheUmask) {
    const mode_t previous = umask(0077);
    freshFeed(0);
    umask(previous);
    struct stat info{};
    ASSERT_EQ(stat(feedFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, static_cast<mode_t>(QV_IPC_MODE));
}

long long monotonicMicros() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

// A subscriber in another process, blocked without a time limit, returns
// with the change as soon as a save is made (not at some later look of its
// own), and used no processor time while it waited.
TEST_F(Feed, BlockedSubscriberWakesOnASaveWithoutSpinning) {
    zq_closeRealDB();
    int ready[2], saved[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(saved), 0);
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
        const long long woke = monotonicMicros();
        long long savedAt = 0;
        if (read(saved[0], &savedAt, sizeof savedAt) != sizeof savedAt) return childFailed("pipe");
        if (woke - savedAt > 400000) return childFailed("woke late");
        return 0;
    });
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    usleep(200000);
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue(listRow(2, 0).c_str(), 42), 0);
    const long long savedAt = monotonicMicros();
    ASSERT_EQ(write(saved[1], &savedAt, sizeof savedAt), static_cast<ssize_t>(sizeof savedAt));
    EXPECT_EQ(subscriber.wait(20000), 0);
    for (int fd : {ready[0], ready[1], saved[0], saved[1]}) close(fd);
}

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr int kSavesPerWriter = 2000;
#else
constexpr int kSavesPerWriter = 10000;
#endif
constexpr int kChildLimitMs = 120000;
constexpr int kKillRounds = 60;

// Save i of writer w: a single row, a list of its four rows or its data set
// in turn, each row of one save with the same value, and that value rising.
int mixedSave(int w, int i) {
    const double value = w * 1e6 + i;
    const int quality = i & 0xff;
    if (i % 3 == 0) return zq_saveDoubDAValue1(listRow(w, i % kListRows).c_str(), value, quality);
    const double values[kListRows] = {value, value, value, value};
    const int qualities[kListRows] = {quality, quality, quality, quality};
    if (i % 3 == 2)
        return zq_saveDAValues1ByDataSet(("W" + std::to_string(w)).c_str(), "ds", values,
                                         qualities, kSetMembers);
    DaNameRow names[kListRows];
    for (int k = 0; k < kListRows; ++k)
        std::snprintf(names[k], sizeof names[k], "%s", listRow(w, k).c_str());
    return zq_saveDAValues1(names, values, qualities, kListRows);
}

int changesOfMixedSaves(int saves) {
    int changes = 0;
    for (int i = 0; i < saves; ++i) changes += i % 3 == 0 ? 1 : i % 3 == 1 ? kListRows : kSetMembers;
    return changes;
}

// Children that say they are ready by a byte on a pipe.
class ReadyPipe {
public:
    ReadyPipe() { EXPECT_EQ(pipe(fds_), 0); }
    ~ReadyPipe() {
        close(fds_[0]);
        close(fds_[1]);
    }
    bool signal() { return write(fds_[1], "r", 1) == 1; }
    bool awaitOne() {
        char byte;
        return read(fds_[0], &byte, 1) == 1;
    }

private:
    int fds_[2];
};

// A subscriber that takes changes until `done` says so, checking each batch
// with `check`; resets make it read the store again. Opens the store itself.
int follow(ReadyPipe& ready, const std::function<bool(const QvChange*, int, int)>& check,
           const std::function<bool(const QvChange&)>& done, Mirror& mirror) {
    QvFeed* feed = zq_openChangeFeed();
    if (feed == nullptr || zq_openRealDB() != 0) return childFailed("cannot open");
    if (!mirror.reread() || !ready.signal()) return childFailed("no snapshot");
    std::vector<QvChange> batch(1024);
    for (;;) {
        int count = 0;
        const int result = zq_waitChanges(feed, 30000, batch.data(), 1024, &count);
        if (result < 0 || count == 0) return childFailed("no changes: " + std::to_string(result));
        if (!check(batch.data(), count, result)) return 1;
        for (int i = 0; i < count; ++i) {
            if (batch[i].kind == QV_CHANGE_RESET) {
                if (!mirror.reread()) return childFailed("re-read failed");
            } else {
                mirror.apply(batch[i]);
            }
        }
        for (int i = 0; i < count; ++i)
            if (done(batch[i])) return zq_closeChangeFeed(feed);
    }
}

}  // namespace

// Four writers, four subscribers: every subscriber gets every change once,
// numbered without a gap, never half a data-set save, and ends with the
// store's values.
TEST_F(Feed, EverySubscriberGetsEveryChangeOnce) {
    zq_closeRealDB();
    ReadyPipe ready;
    const int total = kWriters * changesOfMixedSaves(kSavesPerWriter);
    std::vector<std::unique_ptr<Child>> subscribers, writers;
    for (int s = 0; s < 4; ++s) {
        subscribers.emplace_back(new Child([&] {
            Mirror mirror;
            int received = 0;
            unsigned long long lastSeq = 0;
            const auto check = [&](const QvChange* batch, int count, int result) {
                if (result != 0) return childFailed("fell behind") == 0;
                for (int i = 0; i < count; ++i) {
                    if (batch[i].kind != QV_CHANGE_VALUE) return childFailed("a reset") == 0;
                    if (lastSeq != 0 && batch[i].seq != lastSeq + 1)
                        return childFailed("seq " + std::to_string(batch[i].seq)) == 0;
                    lastSeq = batch[i].seq;
                    mirror.apply(batch[i]);
                }
                for (int w = 0; w < kWriters; ++w)
                    if (!mirror.setIsWhole(w)) return childFailed("half a data set") == 0;
                received += count;
                return true;
            };
            const int result = follow(ready, check, [&](const QvChange&) { return received >= total; },
                                      mirror);
            if (result != 0) return result;
            if (received != total) return childFailed("received " + std::to_string(received));
            const std::string difference = mirror.differenceFromStore();
            return difference.empty() ? 0 : childFailed(difference);
        }));
    }
    for (int s = 0; s < 4; ++s) ASSERT_TRUE(ready.awaitOne());
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back(new Child([w] {
            if (zq_openRealDB() != 0) return childFailed("cannot open");
            for (int i = 0; i < kSavesPerWriter; ++i)
                if (mixedSave(w, i) != 0) return childFailed("save failed");
            return 0;
        }));
    }
    for (auto& writer : writers) EXPECT_EQ(writer->wait(kChildLimitMs), 0);
    for (auto& subscriber : subscribers) EXPECT_EQ(subscriber->wait(kChildLimitMs), 0);
}

// A subscriber stopped while more changes than the ring holds are saved is
// told it fell behind (a reset first), and then follows on as before.
TEST_F(Feed, StoppedSubscriberFallsBehindIsToldAndContinues) {
    freshFeed(64);
    zq_closeRealDB();
    ReadyPipe ready;
    const std::string marker = listRow(3, 0);
    Child subscriber([&] {
        Mirror mirror;
        int calls = 0;
        const auto check = [&](const QvChange* batch, int, int result) {
            if (++calls == 1)
                return (result == 1 && batch[0].kind == QV_CHANGE_RESET) ||
                       childFailed("first result " + std::to_string(result)) == 0;
            return result == 0 || childFailed("a later loss") == 0;
        };
        const int result = follow(ready, check, [&](const QvChange& c) {
            return c.hashID == key(marker) && c.value == 777;
        }, mirror);
        return result != 0 ? result : calls >= 2 ? 0 : childFailed("marker came with the loss");
    });
    ASSERT_TRUE(ready.awaitOne());
    usleep(100000);
    ASSERT_TRUE(subscriber.pause());
    ASSERT_EQ(zq_openRealDB(), 0);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(zq_saveDoubDAValue(listRow(3, 1).c_str(), i), 0);
    subscriber.resume();
    usleep(300000);
    ASSERT_EQ(zq_saveDoubDAValue(marker.c_str(), 777), 0);
    EXPECT_EQ(subscriber.wait(kChildLimitMs), 0);
}

// Writers killed at any point of their saves, one after another: after
// each, with no writer left, the subscriber's mirror, kept with the changes
// and the resets it got, equals the store.
TEST_F(Feed, WritersKilledMidSaveLeaveNoWrongMirror) {
    zq_closeRealDB();
    ReadyPipe ready, checked;
    const std::string marker = listRow(kWriters - 1, 0);  // the killed writers' rows are others
    Child subscriber([&] {
        Mirror mirror;
        int resets = 0, differences = 0;
        const auto countResets = [&](const QvChange* batch, int count, int) {
            for (int i = 0; i < count; ++i) resets += batch[i].kind == QV_CHANGE_RESET;
            return true;
        };
        const auto roundEnds = [&](const QvChange& c) {
            if (c.hashID != key(marker)) return false;
            const std::string difference = mirror.differenceFromStore();
            if (!difference.empty()) ++differences;
            if (!difference.empty()) childFailed("round " + std::to_string(c.value) + ": " + difference);
            checked.signal();
            return c.value == kKillRounds - 1;
        };
        const int result = follow(ready, countResets, roundEnds, mirror);
        std::fprintf(stderr, "%d resets after %d killed writers\n", resets, kKillRounds);
        return result != 0 ? result : differences;
    });
    ASSERT_TRUE(ready.awaitOne());
    for (int round = 0; round < kKillRounds; ++round) {
        Child writer([round] {
            if (zq_openRealDB() != 0) return childFailed("cannot open");
            for (int i = 0;; ++i)
                if (mixedSave(round % (kWriters - 1), i) != 0) return childFailed("save failed");
        });
        usleep(5000 + 3000 * (round % 7));
        writer.signal(SIGKILL);
        ASSERT_EQ(zq_openRealDB(), 0);
        ASSERT_EQ(zq_saveDoubDAValue(marker.c_str(), round), 0);
        zq_closeRealDB();
        ASSERT_TRUE(checked.awaitOne());
    }
    EXPECT_EQ(subscriber.wait(kChildLimitMs), 0);
}

// The feed's file removed while a writer saves and a subscriber waits: the
// file is made again, the subscriber is told by a reset and follows the new
// one, and a subscriber that opens after the removal gets the same changes.
TEST_F(Feed, RemovedFileIsMadeAgainAndSubscribersAreReset) {
    zq_closeRealDB();
    ReadyPipe ready;
    const std::string marker = listRow(2, 3);
    const auto subscriberExpectingReset = [&](bool resetExpected) {
        return [&, resetExpected] {
            Mirror mirror;
            bool reset = false;
            const auto check = [&](const QvChange* batch, int count, int) {
                for (int i = 0; i < count; ++i) reset |= batch[i].kind == QV_CHANGE_RESET;
                return true;
            };
            const int result = follow(ready, check, [&](const QvChange& c) {
                return c.hashID == key(marker) && c.value == 555;
            }, mirror);
            if (result != 0) return result;
            if (resetExpected && !reset) return childFailed("no reset");
            const std::string difference = mirror.differenceFromStore();
            return difference.empty() ? 0 : childFailed(difference);
        };
    };
    Child before(subscriberExpectingReset(true));
    ASSERT_TRUE(ready.awaitOne());
    Child writer([] {
        if (zq_openRealDB() != 0) return childFailed("cannot open");
        for (int i = 0;; ++i) {
            if (mixedSave(1, i) != 0) return childFailed("save failed");
            usleep(1000);
        }
    });
    usleep(100000);
    ASSERT_EQ(unlink(feedFile().c_str()), 0);
    usleep(300000);
    Child after(subscriberExpectingReset(false));
    ASSERT_TRUE(ready.awaitOne());
    ASSERT_TRUE(eventually([&] { return access(feedFile().c_str(), F_OK) == 0; }));
    // The mirrors are compared with the store once the marker is in: no
    // save may come after it.
    writer.signal(SIGKILL);
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue(marker.c_str(), 555), 0);
    EXPECT_EQ(before.wait(kChildLimitMs), 0);
    EXPECT_EQ(after.wait(kChildLimitMs), 0);
}

// The file removed while a subscriber waits and no process that maps it
// saves again (a new tool run makes the file anew): the subscriber finds
// out by itself, without a save to wake it, and is told by a reset.
TEST_F(Feed, SubscriberFindsItsFileReplacedWithoutAnyWriter) {
    zq_closeRealDB();
    ReadyPipe ready;
    Child subscriber([&] {
        QvFeed* feed = zq_openChangeFeed();
        if (feed == nullptr || !ready.signal()) return childFailed("cannot open");
        QvChange changes[4];
        int count = 0;
        const int result = zq_waitChanges(feed, 20000, changes, 4, &count);
        if (result != 1 || count < 1 || changes[0].kind != QV_CHANGE_RESET)
            return childFailed("result " + std::to_string(result));
        return zq_closeChangeFeed(feed);
    });
    ASSERT_TRUE(ready.awaitOne());
    usleep(100000);
    ASSERT_EQ(unlink(feedFile().c_str()), 0);
    ASSERT_EQ(tool({"init"}).code, 0);
    EXPECT_EQ(subscriber.wait(kChildLimitMs), 0);
}

// Two writers held up by a program that holds the store's write lock
// itself (each gives the store lock up while it waits, so both saves are
// under way at once): every change still comes once, in order, without a
// reset, and the mirror ends equal to the store.
TEST_F(Feed, SavesHeldUpByAnOutsideWriterStayWhole) {
    zq_closeRealDB();
    constexpr int kSaves = 60;
    ReadyPipe ready;
    const std::string marker = listRow(kWriters - 1, 0);
    Child subscriber([&] {
        Mirror mirror;
        int received = 0;
        unsigned long long lastSeq = 0;
        const auto check = [&](const QvChange* batch, int count, int result) {
            if (result != 0) return childFailed("a loss") == 0;
            for (int i = 0; i < count; ++i) {
                if (batch[i].kind != QV_CHANGE_VALUE) return childFailed("a reset") == 0;
                if (lastSeq != 0 && batch[i].seq != lastSeq + 1) return childFailed("a gap") == 0;
                lastSeq = batch[i].seq;
            }
            received += count;
            return true;
        };
        const int result = follow(ready, check, [&](const QvChange& c) {
            return c.hashID == key(marker) && c.value == -7;
        }, mirror);
        if (result != 0) return result;
        if (received != 2 * changesOfMixedSaves(kSaves) + 1)
            return childFailed("received " + std::to_string(received));
        const std::string difference = mirror.differenceFromStore();
        return difference.empty() ? 0 : childFailed(difference);
    });
    ASSERT_TRUE(ready.awaitOne());
    // The outside program runs in a process of its own: a connection
    // carried across a fork would hold its lock in the children too.
    ReadyPipe holding;
    Child outside([&] {
        sqlite3* db = nullptr;
        if (sqlite3_open(realDbPath().c_str(), &db) != SQLITE_OK ||
            sqlite3_exec(db, "begin immediate", nullptr, nullptr, nullptr) != SQLITE_OK ||
            !holding.signal())
            return childFailed("cannot hold the store");
        usleep(300000);
        const int committed = sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return committed == SQLITE_OK ? 0 : childFailed("commit failed");
    });
    ASSERT_TRUE(holding.awaitOne());
    std::vector<std::unique_ptr<Child>> writers;
    for (int w = 0; w < 2; ++w) {
        writers.emplace_back(new Child([w] {
            if (zq_openRealDB() != 0) return childFailed("cannot open");
            for (int i = 0; i < kSaves; ++i)
                if (mixedSave(w, i) != 0) return childFailed("save failed");
            return 0;
        }));
    }
    EXPECT_EQ(outside.wait(kChildLimitMs), 0);
    for (auto& writer : writers) EXPECT_EQ(writer->wait(kChildLimitMs), 0);
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue(marker.c_str(), -7), 0);
    EXPECT_EQ(subscriber.wait(kChildLimitMs), 0);
}

// A retired file back at the path (a file system mounted over the store's
// directory and gone again shows the file retired under it) is made anew:
// followers and writers meet on a fresh ring instead of resetting forever.
TEST_F(Feed, RetiredFileLeftAtThePathIsMadeAnew) {
    const std::string row = listRow(0, 0);
    ASSERT_EQ(zq_saveDoubDAValue(row.c_str(), 1), 0);
    {
        std::unique_ptr<qvfeed::Mapping> old(qvfeed::Mapping::open());
        ASSERT_NE(old, nullptr);
        old->retire();
    }
    QvFeed* feed = zq_openChangeFeed();
    ASSERT_NE(feed, nullptr);
    double value = 2;
    EXPECT_TRUE(eventually([&] {
        if (zq_saveDoubDAValue(row.c_str(), ++value) != 0) return false;
        QvChange changes[8];
        int count = 0;
        if (zq_waitChanges(feed, 100, changes, 8, &count) < 0) return false;
        for (int i = 0; i < count; ++i)
            if (changes[i].kind == QV_CHANGE_VALUE && changes[i].value == value) return true;
        return false;
    }));
    EXPECT_EQ(zq_closeChangeFeed(feed), 0);
}
