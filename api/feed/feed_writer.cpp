// The writing side of the change feed, run by the saves under the store
// lock: one mapping per process, opened on first use and checked now and
// then for having been removed or replaced; the changes of a save appended
// after the published ones and published together once the save committed.
#include <time.h>

#include <cstdint>

#include "feed/feed_file.h"
#include "internal/qvfeed_hooks.h"
#include "realstore/realstore.h"

namespace qvfeed {

namespace {

// Everything here is used under the store lock only.
Mapping* s_feed = nullptr;
// The file is checked against its path at most this often: a stat on every
// save would cost more than the feed may.
constexpr long long kCheckEveryMillis = 100;
long long s_nextCheck = 0;
std::uint64_t s_newCapacity = 0;
// A reset owed to the readers of a file that replaced a removed one.
bool s_owedReset = false;
// The group in progress: its first change, the next one and its time.
bool s_inGroup = false;
std::uint64_t s_groupStart = 0;
std::uint64_t s_next = 0;
double s_groupTime = 0;

long long coarseMillis() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

double wallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The process's mapping. A file that is gone or replaced is retired (its
// readers reopen) and the one at the path now is used, with a reset first
// for the changes that went into the old one.
Mapping* writerFeed() {
    const long long now = coarseMillis();
    if (s_feed != nullptr && now < s_nextCheck) return s_feed;
    s_nextCheck = now + kCheckEveryMillis;
    if (s_feed != nullptr && !s_feed->replaced() && s_feed->header().retired.load() == 0)
        return s_feed;
    if (s_feed != nullptr) {
        s_feed->retire();
        delete s_feed;
        s_owedReset = true;
    }
    s_feed = Mapping::open();
    return s_feed;
}

// Raises the reservation before the slot is written, so that a reader that
// copied the slot's old contents sees that it may have been overwritten.
void append(const Entry& entry) {
    Header& header = s_feed->header();
    const std::uint64_t seq = s_next++;
    if (header.reserved.load(std::memory_order_relaxed) < seq + 1)
        header.reserved.store(seq + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    Entry& slot = s_feed->slot(seq);
    slot = entry;
    slot.seq = seq;
}

void appendReset() { append(Entry{0, 0, QV_CHANGE_RESET, 0, 0, 0, wallClock()}); }

// Makes everything appended since the last publish visible at once.
void publish() {
    Header& header = s_feed->header();
    if (s_next == header.published.load(std::memory_order_relaxed)) return;
    s_feed->slot(s_next - 1).lastOfGroup = 1;
    header.published.store(s_next, std::memory_order_release);
    s_feed->wakeReaders();
}

}  // namespace

SaveGroup::SaveGroup(bool lockHeld) : active_(lockHeld && writerFeed() != nullptr) {
    if (!active_) return;
    Header& header = s_feed->header();
    s_next = header.published.load(std::memory_order_relaxed);
    // A writer that died between its mark and its publish may have changed
    // values that nobody was told about.
    if (s_owedReset || header.writing.load(std::memory_order_relaxed) != 0) {
        appendReset();
        publish();
        s_owedReset = false;
    }
    header.writing.store(1, std::memory_order_release);
    s_groupStart = s_next;
    s_groupTime = 0;
    s_inGroup = true;
}

// Published before the mark is cleared: a writer killed in between costs a
// needless reset, never a lost change.
SaveGroup::~SaveGroup() {
    if (!active_) return;
    s_inGroup = false;
    if (committed_) publish();
    s_feed->header().writing.store(0, std::memory_order_release);
}

void noteLoss() {
    if (s_inGroup) appendReset();
}

void noteChange(unsigned int hashID, double value, int quality, double timestamp) {
    if (!s_inGroup) return;
    if (timestamp <= 0) {
        if (s_groupTime == 0) s_groupTime = wallClock();
        timestamp = s_groupTime;
    }
    append(Entry{0, hashID, QV_CHANGE_VALUE, value, quality, 0, timestamp});
}

std::uint64_t newFeedCapacity() { return s_newCapacity; }

// The next save looks at the file at once: a test that replaced it wants
// its saves in the new one.
void setNewFeedCapacity(unsigned long long capacity) {
    s_newCapacity = capacity;
    s_nextCheck = 0;
}

// The store lock makes its semaphore itself in a process that has not yet.
void announceReset() {
    qvreal::StoreLock lock;
    SaveGroup group(lock.held());
    if (!s_inGroup) return;
    appendReset();
    group.committed();
}

}  // namespace qvfeed
