// The store lock: the one System V semaphore that keeps every process and
// thread but one away from the real-time store. Making the set (and taking
// over from a creator that died), taking it with SEM_UNDO, making it anew
// when it is removed under the process, and releasing it.
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "internal/qvbuildconfig.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

namespace qvreal {

std::atomic<int> s_RealSemId{-1};

}  // namespace qvreal

using qvreal::s_RealSemId;

namespace {

union semun {
    int val;
    semid_ds* buf;
};

// How long an opener waits for the process that created the semaphore set
// to set it free before it takes the creator for dead and does it itself.
constexpr int kSemInitWaitMillis = 2000;

// A set's sem_otime stays 0 until its first semop: the creator's freeing one.
bool semaphoreInitialised(int semid) {
    semid_ds info{};
    semun arg;
    arg.buf = &info;
    return semctl(semid, 0, IPC_STAT, arg) == 0 && info.sem_otime != 0;
}

// Frees a set whose creator died between creating and freeing it. Setting
// the value (rather than adding to it) keeps two such openers from raising
// it to 2; the pair of operations marks the set initialised.
void takeOverInitialisation(int semid) {
    semun arg;
    arg.val = 1;
    semctl(semid, 0, SETVAL, arg);
    sembuf ops[2] = {{0, -1, 0}, {0, 1, 0}};
    semop(semid, ops, 2);
}

}  // namespace

// Only the process that creates the set frees it; an existing lock is never
// reset, since another process may hold it.
int initRealSem(void) {
    qvreport::succeeded();
    const key_t key = static_cast<key_t>(QV_SEM_KEY);
    int semid = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (semid >= 0) {
        // A new set holds 0 (taken); this first semop frees it and sets
        // sem_otime, which tells other openers that it is ready.
        sembuf release{0, 1, 0};
        semop(semid, &release, 1);
    } else if (errno == EEXIST) {
        semid = semget(key, 1, 0666);
        for (int waited = 0; semid >= 0 && !semaphoreInitialised(semid); ++waited) {
            if (waited == kSemInitWaitMillis) {
                takeOverInitialisation(semid);
                break;
            }
            usleep(1000);
        }
    }
    // Published once ready, so that other threads never see a set half made.
    s_RealSemId = semid;
    return 0;
}

namespace {

// A lock that is taken is tried again this many times, giving the processor
// away in between, before the caller sleeps in the semaphore's queue. The
// store operations hold it for microseconds, so a waiter that sleeps costs
// two context switches for each hand-over, and with several processes per
// core every operation ends up waiting for a wake-up.
constexpr int kLockTriesBeforeSleeping = 64;

// SEM_UNDO: a process that ends while it holds the lock, however it ends,
// gives it back at once. False when the semaphore failed (errno tells why).
bool takeLock(int semid) {
    sembuf tryOp{0, -1, SEM_UNDO | IPC_NOWAIT};
    for (int i = 0; i < kLockTriesBeforeSleeping; ++i) {
        if (semop(semid, &tryOp, 1) == 0) return true;
        if (errno != EAGAIN) break;
        sched_yield();
    }
    sembuf op{0, -1, SEM_UNDO};
    for (;;) {
        if (semop(semid, &op, 1) == 0) return true;
        if (errno != EINTR) return false;
    }
}

// How often an operation makes the set anew before it runs without the lock.
constexpr int kLockRemakeAttempts = 3;

// Takes the store lock for one of the library's own operations and returns
// the set it took it on, or -1 without a lock. A set removed under the
// process (ipcrm) is made anew, so that this process's threads stay apart on
// the connection, which has no mutex of its own.
int takeStoreLock() {
    for (int attempt = 0;; ++attempt) {
        const int semid = s_RealSemId;
        if (takeLock(semid)) return semid;
        if ((errno != EIDRM && errno != EINVAL) || attempt == kLockRemakeAttempts) return -1;
        initRealSem();
    }
}

void releaseLock(int semid) {
    sembuf op{0, 1, SEM_UNDO};
    semop(semid, &op, 1);
}

}  // namespace

void locksem(int semid) {
    qvreport::succeeded();
    takeLock(semid);
}

// The library's own operations release through releaseLock, which leaves
// the last error that the operation set alone.
void unlocksem(int semid) {
    qvreport::succeeded();
    releaseLock(semid);
}

namespace qvreal {

StoreLock::StoreLock() : semid_(takeStoreLock()) {}

StoreLock::~StoreLock() {
    if (semid_ != -1) releaseLock(semid_);
}

}  // namespace qvreal
