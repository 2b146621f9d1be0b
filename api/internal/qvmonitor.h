// Bus monitors: processes that see a copy of every record that any publisher
// sends, while the receivers still get their own. Not exported; qvtool's
// "watch --all" is the monitor, the send path of qvmessage.cpp the publisher.
//
// A registry shared by all processes (a System V shared memory segment and a
// semaphore set, both under the key QV_QUEUE_KEY_OFFSET - 1) has one slot per
// monitor. A monitor holds its slot's semaphore at 1 with SEM_UNDO, so the
// kernel frees it when the monitor dies however it dies, and puts the id of a
// private queue of its own into the slot. A publisher reads the slots from
// the mapped segment (no system call while no monitor watches) and hands
// each monitor a copy with IPC_NOWAIT: a full monitor queue costs that
// monitor the copy, never the publisher a wait or a receiver a record.
#ifndef QV_INTERNAL_QVMONITOR_H
#define QV_INTERNAL_QVMONITOR_H

#include <cstddef>

#include "qvmessage.h"

namespace qvmonitor {

// How many monitors may watch at once.
constexpr int kSlots = 8;

// The receiver of a copy whose record no route carried.
constexpr int kNoReceiver = -1;

// What a monitor's queue carries: one record on its way to one receiver.
struct alignas(long) Copy {
    long type;          // always 1: the kernel takes only a positive type
    int sendProcessNo;
    int recvProcessNo;  // kNoReceiver when no route carried the record's kind
    int delivered;      // 1: on the receiver's queue; 0: lost for it, or no route
    int reserved;
    MSGINFO record;
};
constexpr std::size_t kCopyText = sizeof(Copy) - sizeof(long);

// A monitor queue holds this many copies where the system allows it.
constexpr unsigned long kMonitorRecords = 2000;

// ---- The publisher's side ------------------------------------------------------

// Maps the registry, creating it when absent; zq_publisherMsg calls it, so a
// reload follows a registry that was made anew. Without one (no permission)
// the process sends to its receivers only.
void attachRegistry();

// Hands a copy of the record to every monitor, never waiting.
void copyToMonitors(int sender, int receiver, bool delivered, const MSGINFO& record);

// ---- The monitor's side --------------------------------------------------------

struct Monitor {
    int slot = -1;
    int queueId = -1;
    unsigned long capacity = 0;  // copies its queue holds
};

// Takes a free slot with a new queue: 0, or -1 with a line saying why.
int openMonitor(Monitor* monitor);

// The next copy, waiting for one: 0, or -1 with errno (EINTR after a
// signal, EIDRM or EINVAL when the queue was removed).
int receiveCopy(const Monitor& monitor, Copy* copy);

// Copies that this monitor's full queue cost it since it opened.
unsigned long droppedCopies(const Monitor& monitor);

// Gives the slot back and removes the queue.
void closeMonitor(Monitor* monitor);

}  // namespace qvmonitor

#endif  // QV_INTERNAL_QVMONITOR_H
