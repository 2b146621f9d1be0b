// The message bus: routes from the configuration store, one System V queue
// per receiving process. The process's own name is found in process_name.cpp.
//
// A sender loads the routes of its own process once (zq_publisherMsg); each
// send then puts one MSGINFO on the queue of every receiver whose route
// carries the kind's bit. A receiver waits on its own queue and hands every
// record to its callback.
#include "qvmessage.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "internal/qvbuildconfig.h"
#include "internal/qvcheck.h"
#include "internal/qvconf_internal.h"
#include "internal/qvmessage_internal.h"
#include "internal/qvmonitor.h"
#include "internal/qvreport.h"
#include "internal/qvtexts.h"

using qvcheck::argumentGiven;

namespace {

constexpr int kQueueFlags = IPC_CREAT | QV_IPC_MODE;
constexpr std::size_t kReceiveTextSize = 8192;
constexpr useconds_t kReceiveRetryPauseMicros = 100 * 1000;

// A receiver's queue holds a burst of this many records.
constexpr msglen_t kQueueRecords = 1000;
constexpr msglen_t kQueueCapacity = kQueueRecords * sizeof(MSGINFO);

// How long a sender waits for room in a full queue before the record is lost
// for that receiver, and the pauses between its attempts.
constexpr auto kFullQueuePatience = std::chrono::milliseconds(50);
constexpr auto kFirstFullQueuePause = std::chrono::microseconds(100);
constexpr auto kLongestFullQueuePause = std::chrono::microseconds(5000);

// What a sender hands to the kernel: the record is laid over the queue
// message, so its first eight bytes are the type field and the text is the
// record's size; the tail keeps the kernel's read of the text inside the
// buffer.
struct alignas(long) SendBuffer {
    MSGINFO record;
    char tail[sizeof(long)];
};
static_assert(sizeof(SendBuffer) == 1200, "the send buffer is type field plus 1192 bytes");

// The receive buffer: the type field and the largest text a receiver asks for.
struct alignas(long) ReceiveBuffer {
    char bytes[sizeof(long) + kReceiveTextSize];
};
static_assert(sizeof(ReceiveBuffer) == 8200, "the receive buffer is type field plus 8192");

ProcessMsgAssociation* s_pAssociations = nullptr;
int s_count = 0;
int s_ownProcessNo = 0;  // the sender named in the copies of unrouted records
// What the sender keeps per route.
struct RouteState {
    // The receiver's queue, opened at the route's first send and kept (an
    // open per message doubles the cost of a burst); -1 until then. A queue
    // removed meanwhile is opened again when a send finds its id gone.
    std::atomic<int> queueId{-1};
    // The queue stayed full at the last send. The next send then tries once
    // without waiting, so a receiver that stopped reading costs the sender
    // one wait, not one per message.
    std::atomic<bool> stalled{false};
};
std::unique_ptr<RouteState[]> s_routeStates;

// Shared by every receiving loop of the process and read afresh at each
// receive; atomic because a loop re-opens the queue and a later
// subscription replaces the callback while other loops run.
std::atomic<int> s_msgid{0};
std::atomic<funptr> s_fptr{nullptr};
std::atomic<int> s_processNo{0};  // the subscriber's own number, for re-opening its queue
std::atomic<bool> s_capacityReported{false};

key_t queueKeyOf(int processNo) {
    return static_cast<key_t>(static_cast<long long>(processNo) + QV_QUEUE_KEY_OFFSET);
}

// A process that ProcessConfig lacks has no routes and no queue: say which
// name was looked for, since it is taken from the command line.
void reportUnknownProcess(const char* processname) {
    if (zq_lastErrorCode() != QV_ERR_NO_ROW) return;  // the store said why already
    qvreport::failure(QV_ERR_NO_ROUTE,
                      "no process named \"%s\" in ProcessConfig (see zq_setProcessName)\n",
                      processname);
}

// The number of the calling process in the configuration store.
bool ownProcessNo(int* processNo) {
    char processname[kProcessNameSize];
    if (!ownProcessName(processname) || zq_openConfDB() != 0) return false;
    if (zq_getProcessNoByName(processname, processNo) == 0) return true;
    reportUnknownProcess(processname);
    return false;
}

}  // namespace

// ---- Queue capacity -------------------------------------------------------------

namespace {

// The system's limit for a queue's capacity, which is as far as a process
// without CAP_SYS_RESOURCE may raise it; 0 when unknown.
msglen_t systemQueueLimit() {
    struct msginfo limits;
    if (msgctl(0, IPC_INFO, reinterpret_cast<msqid_ds*>(&limits)) < 0) return 0;
    return static_cast<msglen_t>(limits.msgmnb);
}

bool setCapacity(int msgid, msqid_ds& state, msglen_t bytes) {
    state.msg_qbytes = bytes;
    return msgctl(msgid, IPC_SET, &state) == 0;
}

}  // namespace

unsigned long raiseQueueCapacity(int msgid, unsigned long wanted) {
    msqid_ds state;
    if (msgctl(msgid, IPC_STAT, &state) != 0) return 0;
    const msglen_t current = state.msg_qbytes;
    if (current >= wanted || setCapacity(msgid, state, wanted))
        return std::max<msglen_t>(current, wanted);
    const msglen_t limit = systemQueueLimit();
    if (limit > current && setCapacity(msgid, state, std::min<msglen_t>(limit, wanted)))
        return std::min<msglen_t>(limit, wanted);
    return current;
}

namespace {

// Raises a receiver's queue to kQueueCapacity, or else as far as the system
// allows. Returns the capacity it has, 0 when it cannot be read.
msglen_t raiseCapacity(int msgid) { return raiseQueueCapacity(msgid, kQueueCapacity); }

// ---- Sending --------------------------------------------------------------------

// Puts the record on the queue without waiting in the kernel. A full queue
// is first raised to its burst capacity (it may have been created by a sender
// before its subscriber came), then gets short pauses, up to
// kFullQueuePatience in all, for its receiver to make room; the queue of a
// stalled route gets neither. Returns 0, or -1 with errno set.
int putOnQueue(int msgid, SendBuffer& buffer, bool stalled) {
    if (msgsnd(msgid, &buffer, sizeof(MSGINFO), IPC_NOWAIT) == 0) return 0;
    if (errno != EAGAIN || stalled) return -1;
    raiseCapacity(msgid);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + kFullQueuePatience;
    for (std::chrono::microseconds pause = kFirstFullQueuePause;;
         pause = std::min(pause * 2, kLongestFullQueuePause)) {
        if (msgsnd(msgid, &buffer, sizeof(MSGINFO), IPC_NOWAIT) == 0) return 0;
        const Clock::time_point now = Clock::now();
        if (errno != EAGAIN || now >= deadline) return -1;
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
    }
}

void reportLostToFullQueue(int receiver, int kind, bool stalled) {
    char reason[48];
    if (stalled) {
        std::snprintf(reason, sizeof reason, "is still full");
    } else {
        std::snprintf(reason, sizeof reason, "stayed full for %lld ms",
                      static_cast<long long>(kFullQueuePatience.count()));
    }
    qvreport::failure(QV_ERR_FULL,
                      "msgsnd failed: the queue of process %d %s; message of kind %d lost\n",
                      receiver, reason, kind);
}

// A record lost for one receiver for a reason other than a full queue: one
// line, with the call that failed and the system's reason; always -1.
int reportLost(const char* call, int error, int receiver, int kind) {
    qvreport::failure(qvreport::codeOfErrno(error),
                      "%s failed: the queue of process %d: %s; message of kind %d lost\n", call,
                      receiver, std::strerror(error), kind);
    return -1;
}

// The receiver's queue of a route: the one kept, or opened (created when
// absent) when there is none yet or `reopen` says the kept one is gone; -1
// (errno set) after a failed open.
int routeQueue(RouteState& route, int receiver, bool reopen) {
    if (!reopen && route.queueId != -1) return route.queueId;
    const int msgid = msgget(queueKeyOf(receiver), kQueueFlags);
    route.queueId = msgid;
    return msgid;
}

// Sends the record along route i: 0, or -1, with one line saying why, when
// the record is lost for that receiver.
int sendAlongRoute(int i, SendBuffer& buffer) {
    const int receiver = s_pAssociations[i].recvProcessNo;
    const int kind = buffer.record.msgType;
    RouteState& route = s_routeStates[i];
    const bool stalled = route.stalled;
    const bool kept = route.queueId != -1;
    int msgid = routeQueue(route, receiver, false);
    if (msgid == -1) return reportLost("msgget", errno, receiver, kind);
    int error = putOnQueue(msgid, buffer, stalled) == 0 ? 0 : errno;
    // A kept queue that was removed since: open the receiver's queue anew.
    if (kept && (error == EINVAL || error == EIDRM)) {
        msgid = routeQueue(route, receiver, true);
        if (msgid == -1) return reportLost("msgget", errno, receiver, kind);
        error = putOnQueue(msgid, buffer, stalled) == 0 ? 0 : errno;
    }
    route.stalled = error == EAGAIN;
    if (error == 0) return 0;
    if (error != EAGAIN) return reportLost("msgsnd", error, receiver, kind);
    reportLostToFullQueue(receiver, kind, stalled);
    return -1;
}

// The payload field whose first four bytes become the high half of the
// queue's type field, by kind; the three int fields are marked.
struct TypeFieldSource {
    const char* field;
    bool isInt;
};
constexpr TypeFieldSource kTypeFieldSource[] = {
    {"", false},
    {"MSGFILE.iedName", false},     {"SOEINFO.type", true},
    {"PROTECTINFO.strDa", false},   {"SBODOSAVEINFO.minutes", true},
    {"GENERALMSG.type", true},      {"SBOCTRL.strDa", false},
    {"SBOCTRLRET.strDa", false},    {"DIGITALOUT.strDa", false},
    {"DIGITALOUTRET.strDa", false}, {"FAULTINFO.strDa", false},
    {"TOPOINFO.strDa", false},      {"REGISTERINFO.devcieid", false},
    {"UPDATEFILE.iedName", false}};

// The kernel takes only a positive type: a record whose type field comes out
// negative can go to no queue. Says which field makes it so; -1.
int reportNegativeType(const SendBuffer& buffer, const char* operation) {
    const int kind = buffer.record.msgType;
    const TypeFieldSource& source = kTypeFieldSource[kind];
    int leading = 0;
    std::memcpy(&leading, &buffer.record.msgInfo, sizeof leading);
    char why[64];
    if (source.isInt)
        std::snprintf(why, sizeof why, "is %d", leading);
    else
        std::snprintf(why, sizeof why, "has a fourth byte of %d (128 or more)",
                      static_cast<unsigned char>(reinterpret_cast<const char*>(&leading)[3]));
    qvreport::failure(QV_ERR_ARGUMENT,
                      "%s: %s %s, which makes the queue type negative; message of kind %d not "
                      "sent\n",
                      operation, source.field, why, kind);
    return -1;
}

// A send before zq_publisherMsg delivers nothing and succeeds; the first
// one of the process says why, every one sets the code.
std::atomic<bool> s_noRoutesReported{false};

int reportNoRoutes(const char* operation) {
    const char* const format = "%s: no routes loaded (call zq_publisherMsg first); nothing sent\n";
    if (s_noRoutesReported.exchange(true))
        qvreport::silentFailure(QV_ERR_NO_ROUTE, format, operation);
    else
        qvreport::failure(QV_ERR_NO_ROUTE, format, operation);
    return 0;
}

// Sends one payload of the given kind along every route that carries the
// kind's bit: 0, or -1 when a receiver's full queue cost the message (the
// other routes are served all the same).
template <typename Payload>
int sendKind(MsgType kind, const Payload* payload, const char* operation) {
    if (!argumentGiven(payload, operation)) return -1;
    if (s_pAssociations == nullptr) return reportNoRoutes(operation);
    SendBuffer buffer;
    std::memset(&buffer, 0, sizeof buffer);
    buffer.record.msgType = kind;
    std::memcpy(&buffer.record.msgInfo, payload, sizeof(Payload));
    const int kindBit = 1 << (kind - 1);
    long typeField = 0;
    std::memcpy(&typeField, &buffer, sizeof typeField);
    int result = 0;
    bool routed = false;
    for (int i = 0; i < s_count; ++i) {
        const ProcessMsgAssociation& route = s_pAssociations[i];
        if (!(route.msgType & kindBit)) continue;
        if (typeField <= 0) return reportNegativeType(buffer, operation);
        const bool delivered = sendAlongRoute(i, buffer) == 0;
        if (!delivered) result = -1;
        qvmonitor::copyToMonitors(route.sendProcessNo, route.recvProcessNo, delivered,
                                  buffer.record);
        routed = true;
    }
    // A record that no route carries goes to the monitors alone.
    if (!routed)
        qvmonitor::copyToMonitors(s_ownProcessNo, qvmonitor::kNoReceiver, false, buffer.record);
    return result;
}

// ---- Receiving ------------------------------------------------------------------

// Said once per process: later re-openings meet the same limit.
void reportSmallCapacity(msglen_t capacity) {
    if (capacity == 0 || capacity >= kQueueCapacity || s_capacityReported.exchange(true)) return;
    qvreport::notice(QV_ERR_FULL, false,
                     "the queue of process %d holds %lu bytes (%lu records), not the %lu bytes "
                     "of %lu records: raise the system limit (sysctl -w kernel.msgmnb=%lu) or "
                     "give the process CAP_SYS_RESOURCE\n",
                     s_processNo.load(), static_cast<unsigned long>(capacity),
                     static_cast<unsigned long>(capacity / sizeof(MSGINFO)),
                     static_cast<unsigned long>(kQueueCapacity),
                     static_cast<unsigned long>(kQueueRecords),
                     static_cast<unsigned long>(kQueueCapacity));
}

// Opens (or creates) the subscriber's own queue with room for a burst.
int openOwnQueue() {
    const int msgid = msgget(queueKeyOf(s_processNo), kQueueFlags);
    if (msgid != -1) reportSmallCapacity(raiseCapacity(msgid));
    return msgid;
}

// After a failed receive on failedId: a removed queue is re-opened at once;
// the loop pauses only when that fails, or when the failure had another
// cause, so that it never spins.
void recoverFromReceiveFailure(int error, int failedId) {
    if (error == EINTR) return;  // a signal: receive again at once
    if (error == EIDRM || error == EINVAL) {
        const int msgid = openOwnQueue();
        if (msgid == -1) qvreport::systemFailure(qvtext::kQueueOpenFailed);
        if (msgid != -1 && msgid != failedId) {
            s_msgid = msgid;
            return;
        }
    }
    usleep(kReceiveRetryPauseMicros);
}

// Takes the next record off the queue, waiting for one. A record longer
// than the buffer is taken too, cut to the buffer's size, and said so; it
// must not stay at the head of the queue, where it would block every record
// behind it.
ssize_t receive(int msgid, ReceiveBuffer& buffer) {
    const ssize_t received = msgrcv(msgid, &buffer, kReceiveTextSize, 0, 0);
    if (received != -1 || errno != E2BIG) return received;
    const ssize_t cut = msgrcv(msgid, &buffer, kReceiveTextSize, 0, MSG_NOERROR | IPC_NOWAIT);
    if (cut == -1 && errno == ENOMSG) return receive(msgid, buffer);  // another loop took it
    if (cut != -1)
        qvreport::notice(QV_ERR_ARGUMENT, false,
                         "msgrcv: a message longer than %zu bytes was cut to %zu bytes\n",
                         kReceiveTextSize, kReceiveTextSize);
    return cut;
}

[[noreturn]] void receiveLoop() {
    ReceiveBuffer buffer;
    for (;;) {
        std::memset(buffer.bytes, 0, sizeof(MSGINFO));
        const int msgid = s_msgid;
        if (receive(msgid, buffer) == -1) {
            const int error = errno;
            qvreport::systemFailure(qvtext::kReceiveFailed);
            recoverFromReceiveFailure(error, msgid);
            continue;
        }
        s_fptr.load()(reinterpret_cast<LPMSGINFO>(buffer.bytes));
    }
}

void reportSyncQueueFailure() {
    qvreport::failure(qvreport::codeOfErrno(errno), qvtext::kQueueOpenFailedWithCode, errno);
}
void reportAsyncQueueFailure() { qvreport::systemFailure(qvtext::kQueueOpenFailed); }

// Finds the own process number, opens the own queue and installs the
// callback; the two forms report a failed queue open differently.
int subscribe(funptr callback, const char* operation, void (*reportQueueFailure)()) {
    int processNo = 0;
    if (!argumentGiven(callback, operation) || !ownProcessNo(&processNo))
        return -1;
    s_processNo = processNo;
    const int msgid = openOwnQueue();
    if (msgid == -1) {
        reportQueueFailure();
        return -1;
    }
    s_msgid = msgid;
    s_fptr = callback;
    return 0;
}

}  // namespace

void* recv_msg_thread(void* /*arg*/) { receiveLoop(); }

int zq_publisherMsg(void) {
    qvreport::succeeded();
    char processname[kProcessNameSize];
    if (!ownProcessName(processname)) return -1;
    const int opened = zq_openConfDB();
    if (opened != 0) return opened;
    // A reload replaces the table; the old one goes first, so a failed
    // reload leaves an empty table behind.
    std::free(s_pAssociations);
    s_pAssociations = nullptr;
    s_count = 0;
    const int counted = zq_getProcessMsgAssociationsNum(processname, &s_count);
    if (counted != 0) {
        reportUnknownProcess(processname);
        return counted;
    }
    if (zq_getProcessNoByName(processname, &s_ownProcessNo) != 0) {
        s_count = 0;  // the process went from the store since the count
        return -1;
    }
    qvmonitor::attachRegistry();
    // At least one entry, so that an empty table is not taken for a failure.
    const std::size_t entries = s_count > 0 ? static_cast<std::size_t>(s_count) : 1;
    s_pAssociations =
        static_cast<ProcessMsgAssociation*>(std::malloc(entries * sizeof(ProcessMsgAssociation)));
    s_routeStates.reset(new (std::nothrow) RouteState[entries]);
    if (s_pAssociations == nullptr || s_routeStates == nullptr) {
        s_count = 0;
        qvreport::systemFailure(qvtext::kRouteTableAllocFailed);
        return -1;
    }
    // Routes added since the count are left for the next load.
    return listRoutesOf(processname, s_pAssociations, static_cast<int>(entries), &s_count);
}

int zq_subscriberMsg_sync(funptr callback) {
    if (subscribe(callback, "zq_subscriberMsg_sync", reportSyncQueueFailure) != 0) return -1;
    receiveLoop();
}

int zq_subscriberMsg_async(funptr callback) {
    if (subscribe(callback, "zq_subscriberMsg_async", reportAsyncQueueFailure) != 0) return -1;
    pthread_t thread;
    const int created = pthread_create(&thread, nullptr, recv_msg_thread, nullptr);
    if (created != 0) {
        errno = created;
        qvreport::systemFailure(qvtext::kThreadStartFailed);
        return -1;
    }
    return 0;
}

int zq_sendMsg(const MSGINFO* lpMsgInfo) {
    if (!argumentGiven(lpMsgInfo, "zq_sendMsg")) return -1;
    const UNIONMSG* payload = &lpMsgInfo->msgInfo;
    switch (lpMsgInfo->msgType) {
        case MSGFILE_TYPE: return zq_sendFileMsg(&payload->msgFile);
        case SOEINFO_TYPE: return zq_sendSoeMsg(&payload->soeInfo);
        case PROTECTINFO_TYPE: return zq_sendProMsg(&payload->protectInfo);
        case SBODOSAVEINFO_TYPE: return zq_sendSBODOSaveMsg(&payload->sbodoInfo);
        case GENERALMSG_TYPE: return zq_sendGeneralMsg(&payload->generalMsg);
        case SBOCTRL_TYPE: return zq_sendSBOCtrlMsg(&payload->sboCtrlInfo);
        case SBOCTRLRET_TYPE: return zq_sendSBOCtrlRetMsg(&payload->sboCtrlRetInfo);
        case DIGITALOUT_TYPE: return zq_sendDigitalOutMsg(&payload->digitalOutInfo);
        case DIGITALOUTRET_TYPE: return zq_sendDigitalOutRetMsg(&payload->digitalOutRetInfo);
        default: return 0;  // kinds 10 to 13 travel only through their own operations
    }
}

int zq_sendFileMsg(const MSGFILE* msgFile) {
    return sendKind(MSGFILE_TYPE, msgFile, __func__);
}

int zq_sendSoeMsg(const SOEINFO* soeInfo) {
    return sendKind(SOEINFO_TYPE, soeInfo, __func__);
}

int zq_sendDoubSoeMsg(const SOEINFO* soeInfo) { return zq_sendSoeMsg(soeInfo); }

int zq_sendProMsg(const PROTECTINFO* proMsg) {
    return sendKind(PROTECTINFO_TYPE, proMsg, __func__);
}

int zq_sendSBODOSaveMsg(const SBODOSAVEINFO* sbodoInfo) {
    return sendKind(SBODOSAVEINFO_TYPE, sbodoInfo, __func__);
}

int zq_sendGeneralMsg(const GENERALMSG* generalMsg) {
    return sendKind(GENERALMSG_TYPE, generalMsg, __func__);
}

int zq_sendSBOCtrlMsg(const SBOCTRL* sboCtrlMsg) {
    return sendKind(SBOCTRL_TYPE, sboCtrlMsg, __func__);
}

int zq_sendSBOCtrlRetMsg(const SBOCTRLRET* sboCtrlRetMsg) {
    return sendKind(SBOCTRLRET_TYPE, sboCtrlRetMsg, __func__);
}

int zq_sendDigitalOutMsg(const DIGITALOUT* digitalOutMsg) {
    return sendKind(DIGITALOUT_TYPE, digitalOutMsg, __func__);
}

int zq_sendDigitalOutRetMsg(const DIGITALOUTRET* digitalOutRetMsg) {
    return sendKind(DIGITALOUTRET_TYPE, digitalOutRetMsg, __func__);
}

int zq_sendFaultMsg(const FAULTINFO* faultInfo) {
    return sendKind(FAULTINFO_TYPE, faultInfo, __func__);
}

int zq_sendTopoMsg(const TOPOINFO* topoInfo) {
    return sendKind(TOPOINFO_TYPE, topoInfo, __func__);
}

int zq_sendRegisterMsg(const REGISTERINFO* registerInfo) {
    return sendKind(REGISTERINFO_TYPE, registerInfo, __func__);
}

int zq_sendUpdateFileMsg(const UPDATEFILE* updateMsgFile) {
    return sendKind(UPDATEFILE_TYPE, updateMsgFile, __func__);
}
