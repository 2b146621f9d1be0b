// The store lock: a mutex of the process's own, taken first, and the one
// System V semaphore that keeps every other process away from the
// real-time store. Making the set (and taking over from a creator that
// died), taking it with SEM_UNDO, making it anew when it is removed under
// the process, and releasing it without ever raising its value above 1.
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "internal/qvbuildconfig.h"
#include "internal/qvsqlite.h"
#include "qvrealapi.h"
#include "realstore/realstore.h"

namespace qvreal {

std::atomic<int> s_RealSemId{-1};
void (*g_afterLockSetCreated)() = nullptr;

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

// Adds 1 only while the value is 0 (one atomic semop), so that no release
// can leave 2 behind, whatever happened to the set meanwhile.
int releaseIfTaken(int semid, short flags) {
    sembuf ops[2] = {{0, 0, IPC_NOWAIT}, {0, 1, flags}};
    return semop(semid, ops, 2);
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
    int semid = semget(key, 1, IPC_CREAT | IPC_EXCL | QV_IPC_MODE);
    if (semid >= 0) {
        if (qvreal::g_afterLockSetCreated != nullptr) qvreal::g_afterLockSetCreated();
        // A new set holds 0 (taken); this first semop frees it and sets
        // sem_otime, which tells other openers that it is ready. A creator
        // that stalled past their wait finds it freed already.
        if (!semaphoreInitialised(semid)) releaseIfTaken(semid, 0);
    } else if (errno == EEXIST) {
        semid = semget(key, 1, QV_IPC_MODE);
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

// A value above 1 was forced from outside (semctl SETVAL, a stranger's
// semop). The holder takes the rest of it, without SEM_UNDO, so that its
// release (or its end) leaves 1.
void dropSurplus(int semid) {
    const int value = semctl(semid, 0, GETVAL);
    if (value <= 0) return;
    sembuf rest{0, static_cast<short>(-value), IPC_NOWAIT};
    semop(semid, &rest, 1);
}

// SEM_UNDO: a process that ends while it holds the lock, however it ends,
// gives it back at once. The quick tries take a value of exactly 1; one
// forced above 1 is taken by the waiting take, which then drops the rest.
// False when the semaphore failed (errno tells why).
bool takeLock(int semid) {
    sembuf exact[2] = {{0, -1, SEM_UNDO | IPC_NOWAIT}, {0, 0, IPC_NOWAIT}};
    for (int i = 0; i < kLockTriesBeforeSleeping; ++i) {
        if (semop(semid, exact, 2) == 0) return true;
        if (errno != EAGAIN) return false;
        sched_yield();
    }
    sembuf op{0, -1, SEM_UNDO};
    for (;;) {
        if (semop(semid, &op, 1) == 0) break;
        if (errno != EINTR) return false;
    }
    dropSurplus(semid);
    return true;
}

// How often an operation makes the set anew before it runs without the lock.
constexpr int kLockRemakeAttempts = 3;

// Takes the store lock for one of the library's own operations and returns
// the set it took it on, or -1 without a lock (the process mutex still keeps
// this process's threads apart). A set removed under the process (ipcrm) is
// made anew.
int takeStoreLock() {
    for (int attempt = 0;; ++attempt) {
        const int semid = s_RealSemId;
        if (takeLock(semid)) return semid;
        if ((errno != EIDRM && errno != EINVAL) || attempt == kLockRemakeAttempts) return -1;
        initRealSem();
    }
}

// A value that is not 0 at the release was forced up while the lock was
// held; a SETVAL also cleared this process's undo count, so the release
// leaves both alone. (A SETVAL that let another process in meanwhile is
// beyond repair here: this process's end then takes 1 from the value.)
void releaseLock(int semid) { releaseIfTaken(semid, SEM_UNDO); }

// Keeps the threads of this process out of the connection one at a time,
// whatever becomes of the semaphore set: it is taken before the semaphore
// and released after it.
std::mutex s_connectionMutex;

// The set the holder of the mutex took the semaphore on, or -1.
int s_heldSemId = -1;

// A fork waits for the operation in progress in another thread: the child
// gets the mutex free instead of held for good by a thread it does not have.
void lockForFork() { s_connectionMutex.lock(); }
void unlockAfterFork() { s_connectionMutex.unlock(); }
const int s_forkHandlers = pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);

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

StoreLock::StoreLock(StoreUse use) {
    s_connectionMutex.lock();
    s_heldSemId = takeStoreLock();
    if (use != StoreUse::LockOnly) reopenIfStoreReplaced(use);
}

StoreLock::~StoreLock() {
    if (s_heldSemId != -1) releaseLock(s_heldSemId);
    s_heldSemId = -1;
    s_connectionMutex.unlock();
}

void waitForOutsideWriter() {
    if (s_heldSemId != -1) releaseLock(s_heldSemId);
    usleep(qvsql::kBusyPauseMicros);
    s_heldSemId = takeStoreLock();
}

}  // namespace qvreal
