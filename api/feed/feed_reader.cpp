// The reading side of the change feed. A reader only reads the shared file,
// but for the flag that says it sleeps: copies changes out, checks that the
// writers did not overwrite them meanwhile, ends a batch between two saves,
// and sleeps on the futex while there is nothing new.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "feed/feed_file.h"
#include "internal/qvcheck.h"
#include "internal/qvreport.h"
#include "qvfeed.h"

using qvfeed::Entry;
using qvfeed::Header;
using qvfeed::Mapping;

struct QvFeed {
    Mapping* mapping;
    std::uint64_t next;  // the next change this reader takes
    bool owesReset;      // its file was replaced: a reset comes first
};

namespace {

static_assert(offsetof(Entry, seq) == offsetof(QvChange, seq) &&
                  offsetof(Entry, hashID) == offsetof(QvChange, hashID) &&
                  offsetof(Entry, kind) == offsetof(QvChange, kind) &&
                  offsetof(Entry, value) == offsetof(QvChange, value) &&
                  offsetof(Entry, character) == offsetof(QvChange, character) &&
                  offsetof(Entry, timestamp) == offsetof(QvChange, timestamp),
              "entries are copied out as changes");

// A blocked reader looks this often whether its file is still the feed's:
// a file removed while no writer of its own runs has nobody to retire it.
constexpr long long kLivenessNanos = 1000000000LL;

long long monotonicNanos() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// The mark of a save's last change travels in the record's padding.
bool endsGroup(const QvChange& change) {
    std::uint32_t mark;
    std::memcpy(&mark, reinterpret_cast<const char*>(&change) + offsetof(Entry, lastOfGroup),
                sizeof mark);
    return mark != 0;
}

void clearMark(QvChange& change) {
    std::memset(reinterpret_cast<char*>(&change) + offsetof(Entry, lastOfGroup), 0,
                sizeof(std::uint32_t));
}

QvChange resetBefore(std::uint64_t seq) {
    QvChange reset{};
    reset.seq = seq - 1;
    reset.kind = QV_CHANGE_RESET;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    reset.timestamp = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    return reset;
}

// The oldest change whose slot no writer has started to overwrite.
std::uint64_t oldestHeld(const Header& header) {
    const std::uint64_t reserved = header.reserved.load(std::memory_order_acquire);
    return reserved > header.capacity ? reserved - header.capacity : 1;
}

// Copies changes [first, first + count) of the ring, in at most two pieces.
void copyOut(const Mapping& mapping, std::uint64_t first, int count, QvChange* out) {
    const std::uint64_t capacity = mapping.header().capacity;
    const std::uint64_t start = first % capacity;
    const std::uint64_t head = std::min<std::uint64_t>(count, capacity - start);
    std::memcpy(static_cast<void*>(out), &mapping.slot(first), head * sizeof(Entry));
    if (head < static_cast<std::uint64_t>(count))
        std::memcpy(static_cast<void*>(out + head), &mapping.slot(first + head),
                    (count - head) * sizeof(Entry));
}

// After a loss the reader starts at the first whole save still held.
std::uint64_t firstWholeGroup(const Mapping& mapping, std::uint64_t from,
                              std::uint64_t published) {
    for (std::uint64_t seq = from; seq < published; ++seq)
        if (mapping.slot(seq).lastOfGroup != 0) return seq + 1;
    return published;
}

// Copies what is published from the reader's place on into the caller's
// array (a reset first when changes were lost) and cuts it after the last
// whole save that fitted: the number of changes, and *lost.
int takeBatch(QvFeed* feed, std::uint64_t published, QvChange* out, int capacity, bool* lost) {
    const Mapping& mapping = *feed->mapping;
    for (;;) {
        int taken = 0;
        if (feed->next < oldestHeld(mapping.header())) {
            feed->next = firstWholeGroup(mapping, oldestHeld(mapping.header()), published);
            feed->owesReset = true;
        }
        if (feed->owesReset) out[taken++] = resetBefore(feed->next);
        const int count = static_cast<int>(
            std::min<std::uint64_t>(published - feed->next, capacity - taken));
        copyOut(mapping, feed->next, count, out + taken);
        // Whatever a writer began to overwrite while we copied is lost: go
        // round again from the oldest change still held.
        std::atomic_thread_fence(std::memory_order_acquire);
        if (count > 0 && feed->next < oldestHeld(mapping.header())) continue;
        int end = taken + count;
        if (count > 0 && !endsGroup(out[end - 1])) {
            int lastEnd = end - 1;
            while (lastEnd >= taken && !endsGroup(out[lastEnd])) --lastEnd;
            // No save ended in the batch: one larger than the caller's array
            // comes in pieces, unless a reset took its first place.
            if (lastEnd >= taken) end = lastEnd + 1;
            else if (taken > 0) end = taken;
        }
        for (int i = taken; i < end; ++i) clearMark(out[i]);
        feed->next += end - taken;
        *lost = feed->owesReset;
        feed->owesReset = false;
        return end;
    }
}

// A fresh mapping for a reader whose file was retired or replaced; its
// next batch starts with a reset.
bool reopen(QvFeed* feed) {
    Mapping* mapping = Mapping::open();
    if (mapping == nullptr) {
        const int error = errno;
        qvreport::failure(qvreport::codeOfErrno(error), "zq_waitChanges: %s: %s\n",
                          qvfeed::feedPath().c_str(), std::strerror(error));
        return false;
    }
    delete feed->mapping;
    feed->mapping = mapping;
    feed->next = mapping->header().published.load(std::memory_order_acquire);
    feed->owesReset = true;
    return true;
}

// Sleeps until a publish, a retirement or the time runs out (waitNanos < 0:
// no limit). The flag goes up in one exchange with the publish count that
// was seen, so a publish in between makes the exchange or the wait fail.
// False when the file turned out to be replaced.
bool sleepForChanges(QvFeed* feed, long long waitNanos) {
    Header& header = feed->mapping->header();
    std::atomic<std::uint32_t>& word = header.wakeWord;
    std::uint32_t seen = word.load(std::memory_order_acquire);
    if (header.published.load(std::memory_order_acquire) > feed->next ||
        header.retired.load(std::memory_order_acquire) != 0)
        return true;
    if ((seen & qvfeed::kSleepers) == 0) {
        if (!word.compare_exchange_strong(seen, seen | qvfeed::kSleepers)) return true;
        seen |= qvfeed::kSleepers;
    }
    const long long nanos = waitNanos < 0 ? kLivenessNanos : std::min(waitNanos, kLivenessNanos);
    timespec limit{static_cast<time_t>(nanos / 1000000000LL), static_cast<long>(nanos % 1000000000LL)};
    const long rc = syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT, seen,
                            &limit, nullptr, 0);
    return !(rc != 0 && errno == ETIMEDOUT && nanos == kLivenessNanos &&
             feed->mapping->replaced());
}

}  // namespace

QvFeed* zq_openChangeFeed(void) {
    qvreport::succeeded();
    Mapping* mapping = Mapping::open();
    QvFeed* feed = mapping != nullptr ? new (std::nothrow) QvFeed{mapping, 0, false} : nullptr;
    if (feed == nullptr) {
        const int error = mapping != nullptr ? ENOMEM : errno;
        delete mapping;
        qvreport::failure(qvreport::codeOfErrno(error), "zq_openChangeFeed: %s: %s\n",
                          qvfeed::feedPath().c_str(), std::strerror(error));
        return nullptr;
    }
    feed->next = mapping->header().published.load(std::memory_order_acquire);
    return feed;
}

int zq_waitChanges(QvFeed* feed, int timeoutMs, QvChange* pChanges, int capacity, int* pCount) {
    qvreport::succeeded();
    if (!qvcheck::argumentGiven(feed, __func__) || !qvcheck::argumentGiven(pChanges, __func__) ||
        !qvcheck::argumentGiven(pCount, __func__))
        return -1;
    if (capacity < 1) {
        qvreport::failure(QV_ERR_ARGUMENT, "zq_waitChanges: capacity %d: at least 1 change\n",
                          capacity);
        return -1;
    }
    *pCount = 0;
    const long long deadline = timeoutMs < 0 ? -1 : monotonicNanos() + timeoutMs * 1000000LL;
    for (;;) {
        const Header& header = feed->mapping->header();
        if (header.retired.load(std::memory_order_acquire) != 0 && !reopen(feed)) return -1;
        const std::uint64_t published =
            feed->mapping->header().published.load(std::memory_order_acquire);
        if (published > feed->next || feed->owesReset) {
            bool lost = false;
            *pCount = takeBatch(feed, published, pChanges, capacity, &lost);
            return lost ? 1 : 0;
        }
        const long long left = deadline < 0 ? -1 : deadline - monotonicNanos();
        if (deadline >= 0 && left <= 0) return 0;
        if (!sleepForChanges(feed, left) && !reopen(feed)) return -1;
    }
}

int zq_closeChangeFeed(QvFeed* feed) {
    qvreport::succeeded();
    if (!qvcheck::argumentGiven(feed, __func__)) return -1;
    delete feed->mapping;
    delete feed;
    return 0;
}
