// The writing side of the change feed, run by the saves under the store
// lock: one mapping per process, opened on first use and checked now and
// then for having been removed or replaced; the changes of a save collected
// while it runs and published together once it committed.
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "feed/feed_file.h"
#include "internal/qvfeed_hooks.h"
#include "realstore/realstore.h"

namespace qvfeed {

namespace {

// Everything here is used under the store lock's process mutex only.
Mapping* s_feed = nullptr;
// The file is checked against its path at most this often: a stat on every
// save would cost more than the feed may.
constexpr long long kCheckEveryMillis = 100;
long long s_nextCheck = 0;
std::uint64_t s_newCapacity = 0;
// A reset owed to the readers: the file replaced a removed one, or a saver
// died between its commit and its publish.
bool s_owedReset = false;
// The save in progress: its changes, its time and its place in `savers`.
bool s_inGroup = false;
std::vector<Entry> s_pending;
double s_groupTime = 0;
int s_saverSlot = -1;
// The process id, kept across saves (getpid is a system call) and renewed
// in a forked child.
pid_t s_pid = 0;

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
    if (s_pid == 0) pthread_atfork(nullptr, nullptr, [] { s_pid = getpid(); });
    s_pid = getpid();
    s_feed = Mapping::open();
    return s_feed;
}

bool processGone(std::int32_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

// Takes a free place in `savers` for this save. A place held by a process
// that is gone (or by this process's id, which a dead one had before) means
// a save that may have committed without publishing: a reset is owed. No
// free place: the save cannot be watched, so it owes a reset itself.
int claimSaverSlot() {
    Header& header = s_feed->header();
    int mine = -1;
    for (int i = 0; i < static_cast<int>(sizeof header.savers / sizeof header.savers[0]); ++i) {
        std::int32_t holder = header.savers[i].load(std::memory_order_relaxed);
        if (holder != 0 && (holder == s_pid || processGone(holder)) &&
            header.savers[i].compare_exchange_strong(holder, 0)) {
            s_owedReset = true;
            holder = 0;
        }
        if (holder == 0 && mine < 0 && header.savers[i].compare_exchange_strong(holder, s_pid))
            mine = i;
    }
    if (mine < 0) s_owedReset = true;
    return mine;
}

// Raises the reservation before the slot is written, so that a reader that
// copied the slot's old contents sees that it may have been overwritten.
void append(std::uint64_t seq, const Entry& entry) {
    Header& header = s_feed->header();
    if (header.reserved.load(std::memory_order_relaxed) < seq + 1)
        header.reserved.store(seq + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    Entry& slot = s_feed->slot(seq);
    slot = entry;
    slot.seq = seq;
}

Entry resetEntry() { return Entry{0, 0, QV_CHANGE_RESET, 0, 0, 0, wallClock()}; }

// Appends a reset when one is owed and the save's changes when it
// committed, and makes them visible at once.
void publish(bool committed) {
    Header& header = s_feed->header();
    const std::uint64_t first = header.published.load(std::memory_order_relaxed);
    std::uint64_t next = first;
    if (s_owedReset) append(next++, resetEntry());
    if (committed)
        for (const Entry& entry : s_pending) append(next++, entry);
    s_owedReset = false;
    if (next == first) return;
    s_feed->slot(next - 1).lastOfGroup = 1;
    header.published.store(next, std::memory_order_release);
    s_feed->wakeReaders();
}

}  // namespace

SaveGroup::SaveGroup(bool lockHeld) : active_(lockHeld && writerFeed() != nullptr) {
    if (!active_) return;
    s_pending.clear();
    s_groupTime = 0;
    s_saverSlot = claimSaverSlot();
    s_inGroup = true;
}

// Published before the place is given up: a writer killed in between costs
// a needless reset, never a lost change.
SaveGroup::~SaveGroup() {
    if (!active_) return;
    s_inGroup = false;
    publish(committed_);
    if (s_saverSlot >= 0) s_feed->header().savers[s_saverSlot].store(0, std::memory_order_release);
}

void noteChange(unsigned int hashID, double value, int quality, double timestamp) {
    if (!s_inGroup) return;
    if (timestamp <= 0) {
        if (s_groupTime == 0) s_groupTime = wallClock();
        timestamp = s_groupTime;
    }
    s_pending.push_back(Entry{0, hashID, QV_CHANGE_VALUE, value, quality, 0, timestamp});
}

void noteLoss() {
    if (s_inGroup) s_pending.push_back(resetEntry());
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
    qvreal::StoreLock lock(qvreal::StoreUse::LockOnly);
    SaveGroup group(lock.held());
    noteLoss();
    group.committed();
}

}  // namespace qvfeed
