// The change feed. The cost it adds to a save is Lib/SaveDouble* against
// Locked/SaveDouble* (bench_values.cpp). Here: save-to-wake latency, from
// the return of a save to the return of zq_waitChanges in a subscriber
// process blocked in it (Lib/SaveToWake), beside the floor of a bare
// cross-process futex wake one way (Bare/SaveToWake); and a subscriber
// draining batches of 1024 (Lib/DrainBatch1024) beside a bare copy of as
// many records out of a ring (Bare/DrainBatch1024). The latencies' median
// and 99th percentile are counters (microseconds); the time per iteration
// of a latency benchmark is its mean.
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qvfeed.h"
#include "qvrealapi.h"

namespace {

constexpr int kRows = 1024;
std::vector<std::string> g_refs;
DaNameRow g_names[kRows];

void prepareStore() {
    g_refs = qvbench::storeWithValueRows("BENCHFEED/MMXU1$MX$A$phsA$cVal$mag$f", kRows);
    for (int i = 0; i < kRows; ++i)
        std::snprintf(g_names[i], sizeof g_names[i], "%s", g_refs[i].c_str());
    if (zq_openRealDB() != 0) std::exit(1);
}

long long nowNanos() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// What the measuring process and the woken one share.
struct Meeting {
    std::atomic<int> blocking;   // the round the sleeper is about to block for
    std::atomic<int> woken;      // the last round it woke for
    std::atomic<long long> wokeAt;
    std::atomic<int> stop;
    std::atomic<std::uint32_t> word;  // the bare floor's futex
};

Meeting* sharedMeeting() {
    void* memory = mmap(nullptr, sizeof(Meeting), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::exit(1);
    return new (memory) Meeting();
}

void waitFor(const std::atomic<int>& value, int round) {
    while (value.load() < round) sched_yield();
}

void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t seen) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT, seen, nullptr, nullptr,
            0);
}

void futexWake(std::atomic<std::uint32_t>& word) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE, INT_MAX, nullptr,
            nullptr, 0);
}

// The sleeper: blocks once per round, then says when it woke.
void sleeper(Meeting* meeting, bool bare) {
    QvFeed* feed = bare ? nullptr : zq_openChangeFeed();
    QvChange changes[64];
    for (int round = 1;; ++round) {
        meeting->blocking.store(round);
        if (bare) {
            while (meeting->word.load() < static_cast<std::uint32_t>(round) &&
                   meeting->stop.load() == 0)
                futexWait(meeting->word, round - 1);
        } else {
            int count = 0;
            if (zq_waitChanges(feed, -1, changes, 64, &count) < 0) _exit(1);
        }
        const long long woke = nowNanos();
        if (meeting->stop.load() != 0) _exit(0);
        meeting->wokeAt.store(woke);
        meeting->woken.store(round);
    }
}

// One round: the sleeper blocked, a wake-up (a save, or the bare futex)
// timed from its return to the sleeper's.
void wakeLatency(benchmark::State& state, bool bare) {
    prepareStore();
    Meeting* meeting = sharedMeeting();
    const pid_t child = fork();
    if (child == 0) sleeper(meeting, bare);
    std::vector<double> micros;
    int round = 0;
    for (auto _ : state) {
        ++round;
        waitFor(meeting->blocking, round);
        usleep(200);  // into the futex
        long long sent;
        if (bare) {
            meeting->word.store(round);
            futexWake(meeting->word);
            sent = nowNanos();
        } else {
            zq_saveDoubDAValue(g_refs[round % kRows].c_str(), round);
            sent = nowNanos();
        }
        waitFor(meeting->woken, round);
        const long long latency = std::max(0LL, meeting->wokeAt.load() - sent);
        state.SetIterationTime(static_cast<double>(latency) * 1e-9);
        micros.push_back(static_cast<double>(latency) / 1000.0);
    }
    meeting->stop.store(1);
    meeting->word.store(UINT32_MAX);
    futexWake(meeting->word);
    if (!bare) zq_saveDoubDAValue(g_refs[0].c_str(), -1);
    waitpid(child, nullptr, 0);
    munmap(meeting, sizeof(Meeting));
    zq_closeRealDB();
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        state.counters["median_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }
}

void libSaveToWake(benchmark::State& state) { wakeLatency(state, false); }
void bareSaveToWake(benchmark::State& state) { wakeLatency(state, true); }

// Fills the feed with half a default ring of changes, in list saves.
void refill() {
    static double values[kRows];
    for (int i = 0; i < 32; ++i) {
        for (double& value : values) ++value;
        if (zq_saveDAValues(g_names, values, kRows) != 0) std::exit(1);
    }
}

void libDrain(benchmark::State& state) {
    prepareStore();
    QvFeed* feed = zq_openChangeFeed();
    if (feed == nullptr) std::exit(1);
    std::vector<QvChange> batch(1024);
    long long items = 0;
    refill();
    for (auto _ : state) {
        int count = 0;
        if (zq_waitChanges(feed, 0, batch.data(), 1024, &count) != 0) std::exit(1);
        items += count;
        if (count < 1024) {
            state.PauseTiming();
            refill();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(items);
    zq_closeChangeFeed(feed);
    zq_closeRealDB();
}

// The floor: the same bytes copied out of a ring of the default size.
void bareDrain(benchmark::State& state) {
    std::vector<QvChange> ring(65536), batch(1024);
    std::size_t next = 0;
    for (auto _ : state) {
        std::memcpy(batch.data(), &ring[next], 1024 * sizeof(QvChange));
        benchmark::DoNotOptimize(batch.data());
        next = (next + 1024) % ring.size();
    }
    state.SetItemsProcessed(state.iterations() * 1024);
}

}  // namespace

BENCHMARK(libSaveToWake)->Name("Lib/SaveToWake")->UseManualTime()->Iterations(2000);
BENCHMARK(bareSaveToWake)->Name("Bare/SaveToWake")->UseManualTime()->Iterations(2000);
// A fixed count: each refill, outside the timing, costs some 500 times the
// drain it feeds, and a timed minimum would take minutes of refills.
BENCHMARK(libDrain)->Name("Lib/DrainBatch1024")->Iterations(4096);
BENCHMARK(bareDrain)->Name("Bare/DrainBatch1024")->Iterations(4096);
