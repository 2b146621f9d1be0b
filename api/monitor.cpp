// Bus monitors: the registry of monitor queues, the publisher's copies and
// the monitor's own end. See internal/qvmonitor.h for the design.
#include "internal/qvmonitor.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "internal/qvbuildconfig.h"
#include "internal/qvmessage_internal.h"
#include "internal/qvreport.h"

namespace qvmonitor {

namespace {

static_assert(QV_QUEUE_KEY_OFFSET > 1, "the monitor registry's key is the queue key offset - 1");
constexpr key_t kRegistryKey = QV_QUEUE_KEY_OFFSET - 1;
constexpr int kCreateFlags = IPC_CREAT | QV_IPC_MODE;

// One monitor's place in the shared segment.
struct Slot {
    std::atomic<int> queue;  // the monitor queue's id + 1; 0 while the slot is free
    std::atomic<unsigned long> dropped;
};
static_assert(std::atomic<int>::is_always_lock_free &&
                  std::atomic<unsigned long>::is_always_lock_free,
              "the slots are shared between processes");

// A new segment is zeroed by the kernel: every slot free.
struct Registry {
    Slot slots[kSlots];
};

// Set by attachRegistry before the threads send (as the route table is).
Registry* s_registry = nullptr;
int s_semId = -1;

// While a monitor lives its semaphore is 1 (held with SEM_UNDO); a registry
// without its semaphore set takes every monitor for alive.
bool monitorAlive(int slot) { return s_semId == -1 || semctl(s_semId, slot, GETVAL) != 0; }

// Frees a slot whose monitor is gone, unless a new monitor took it meanwhile,
// and removes the queue that the old one left.
void retire(Slot& slot, int queue) {
    int expected = queue;
    if (slot.queue.compare_exchange_strong(expected, 0)) msgctl(queue - 1, IPC_RMID, nullptr);
}

// A copy that the kernel refused: a live monitor's full queue loses the copy
// (counted for the monitor to say), a dead monitor's queue is removed, and a
// queue that someone removed frees the slot.
void copyRefused(int index, int queue, int error) {
    Slot& slot = s_registry->slots[index];
    if (error == EIDRM || error == EINVAL || (error == EAGAIN && !monitorAlive(index))) {
        retire(slot, queue);
        return;
    }
    slot.dropped.fetch_add(1, std::memory_order_relaxed);
}

// Slots whose monitor died and left its queue behind.
void retireDeadMonitors() {
    for (int i = 0; i < kSlots; ++i) {
        const int queue = s_registry->slots[i].queue.load();
        if (queue != 0 && !monitorAlive(i)) retire(s_registry->slots[i], queue);
    }
}

// Holds the semaphore of a free slot; the slot's number, or -1 when every
// slot is taken (errno EAGAIN) or the set cannot be used.
int claimSlot() {
    for (int i = 0; i < kSlots; ++i) {
        // Only while nobody holds it: wait-for-zero and the raise are one step.
        sembuf claim[2] = {{static_cast<unsigned short>(i), 0, IPC_NOWAIT},
                           {static_cast<unsigned short>(i), 1, SEM_UNDO | IPC_NOWAIT}};
        if (semop(s_semId, claim, 2) == 0) return i;
        if (errno != EAGAIN) return -1;
    }
    errno = EAGAIN;
    return -1;
}

void releaseSlot(int slot) {
    sembuf release = {static_cast<unsigned short>(slot), -1, SEM_UNDO | IPC_NOWAIT};
    semop(s_semId, &release, 1);
}

int registryFailure(const char* what) {
    qvreport::failure(qvreport::codeOfErrno(errno), "cannot %s (key %ld): %s\n", what,
                      static_cast<long>(kRegistryKey), std::strerror(errno));
    return -1;
}

}  // namespace

void attachRegistry() {
    if (s_registry != nullptr) shmdt(s_registry);
    s_registry = nullptr;
    const int shmId = shmget(kRegistryKey, sizeof(Registry), kCreateFlags);
    void* mapped = shmId == -1 ? reinterpret_cast<void*>(-1) : shmat(shmId, nullptr, 0);
    if (mapped == reinterpret_cast<void*>(-1)) return;
    s_semId = semget(kRegistryKey, kSlots, kCreateFlags);
    s_registry = static_cast<Registry*>(mapped);
}

void copyToMonitors(int sender, int receiver, bool delivered, const MSGINFO& record) {
    if (s_registry == nullptr) return;
    Copy copy;
    bool built = false;
    for (int i = 0; i < kSlots; ++i) {
        const int queue = s_registry->slots[i].queue.load(std::memory_order_acquire);
        if (queue == 0) continue;
        if (!built) {
            copy = Copy{1, sender, receiver, delivered ? 1 : 0, 0, record};
            built = true;
        }
        if (msgsnd(queue - 1, &copy, kCopyText, IPC_NOWAIT) != 0) copyRefused(i, queue, errno);
    }
}

int openMonitor(Monitor* monitor) {
    attachRegistry();
    if (s_registry == nullptr) return registryFailure("map the monitor registry");
    if (s_semId == -1) return registryFailure("open the monitor registry's semaphores");
    retireDeadMonitors();
    const int slot = claimSlot();
    if (slot == -1 && errno == EAGAIN) {
        qvreport::failure(QV_ERR_FULL, "%d monitors watch the bus already; none can be added\n",
                          kSlots);
        return -1;
    }
    if (slot == -1) return registryFailure("take a slot of the monitor registry");
    const int queueId = msgget(IPC_PRIVATE, kCreateFlags);
    if (queueId == -1) {
        releaseSlot(slot);
        return registryFailure("create a monitor queue");
    }
    monitor->slot = slot;
    monitor->queueId = queueId;
    monitor->capacity = raiseQueueCapacity(queueId, kMonitorRecords * kCopyText) / kCopyText;
    Slot& shared = s_registry->slots[slot];
    shared.dropped = 0;
    // A monitor that died between its claim and now may have left a queue.
    const int left = shared.queue.exchange(queueId + 1);
    if (left != 0) msgctl(left - 1, IPC_RMID, nullptr);
    return 0;
}

int receiveCopy(const Monitor& monitor, Copy* copy) {
    return msgrcv(monitor.queueId, copy, kCopyText, 0, MSG_NOERROR) == -1 ? -1 : 0;
}

unsigned long droppedCopies(const Monitor& monitor) {
    return s_registry->slots[monitor.slot].dropped.load(std::memory_order_relaxed);
}

void closeMonitor(Monitor* monitor) {
    if (monitor->slot == -1) return;
    retire(s_registry->slots[monitor->slot], monitor->queueId + 1);
    msgctl(monitor->queueId, IPC_RMID, nullptr);  // when a publisher freed the slot first
    releaseSlot(monitor->slot);
    monitor->slot = -1;
}

}  // namespace qvmonitor
