// Records from a publisher to a subscriber through the library, next to a
// bare msgsnd/msgrcv pair moving records of the same 1192 bytes: per record
// (smallest and largest payload), and the delivered time of a burst of 1000.
//
// The benchmark process is the sender; a forked child receives (the library's
// synchronous subscriber, or a bare msgrcv loop) and acknowledges on a pipe
// every kBatch records, or every whole burst. The runs take an IPC namespace
// of their own whose queue limit holds a burst, as a gateway configured for
// it would; the label gives the capacity that the receiver's queue had. The
// "Monitored" runs have a bus monitor (qvtool watch --all) taking a copy of
// every record beside the receiver.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "bench_support.h"
#include "internal/qvmessage_internal.h"
#include "internal/qvmonitor.h"
#include "qvmessage.h"

namespace {

constexpr int kBatch = 8;  // records between acknowledgements; a default queue holds 13
constexpr int kBurst = 1000;
constexpr int kSelfNo = 1;  // this process: sender, and (forked) its own receiver
constexpr int kBareNo = 2;  // the queue of the bare pair
constexpr int kSilenceMs = 10000;

int g_batchPipe[2] = {-1, -1};
int g_received = 0;
int g_ackEvery = kBatch;  // set before the receiver is forked

key_t queueKey(int processNo) { return processNo + QV_QUEUE_KEY_OFFSET; }

void removeQueue(int processNo) {
    const int id = msgget(queueKey(processNo), 0);
    if (id != -1) msgctl(id, IPC_RMID, nullptr);
}

bool execSql(sqlite3* db, const std::string& sql) {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// A fresh configuration store in which this process sends every kind to itself.
bool configureSelfRoute() {
    zq_closeConfDB();
    char dir[1024];
    char name[128];
    if (get_executable_path(dir, name, sizeof dir) != 0) return false;
    sqlite3* db = qvbench::freshStore(QV_CONF_DB_PATH, "conf.sql");
    sqlite3_stmt* insert = nullptr;
    bool ok = sqlite3_prepare_v2(db, "insert into ProcessConfig(no,processName) values(?,?)", -1,
                                 &insert, nullptr) == SQLITE_OK;
    if (ok) {
        sqlite3_bind_int(insert, 1, kSelfNo);
        sqlite3_bind_text(insert, 2, name, -1, SQLITE_STATIC);
        ok = sqlite3_step(insert) == SQLITE_DONE &&
             execSql(db, "insert into ProcessMsgAssociation values(1,1,8191)");
    }
    sqlite3_finalize(insert);
    sqlite3_close(db);
    return ok;
}

void countReceived() {
    if (++g_received % g_ackEvery == 0 && write(g_batchPipe[1], "b", 1) != 1) _exit(1);
}

// Moves this thread into an IPC namespace of its own whose queue limit
// (msgmnb) holds a burst, and back at the end. Without the privilege for it
// the runs use the system's namespace.
class BurstQueueLimit {
public:
    BurstQueueLimit() {
        saved_ = open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC);
        if (saved_ == -1 || unshare(CLONE_NEWIPC) != 0) return;
        std::ofstream("/proc/sys/kernel/msgmnb") << kBurst * sizeof(MSGINFO);
    }
    ~BurstQueueLimit() {
        if (saved_ == -1) return;
        if (setns(saved_, CLONE_NEWIPC) != 0) std::perror("setns");
        close(saved_);
    }

private:
    int saved_ = -1;
};

std::string capacityLabel(int processNo) {
    msqid_ds state;
    const int id = msgget(queueKey(processNo), 0);
    if (id == -1 || msgctl(id, IPC_STAT, &state) != 0) return "";
    return "queue of " + std::to_string(state.msg_qbytes / sizeof(MSGINFO)) + " records";
}

void onMessage(LPMSGINFO) { countReceived(); }

[[noreturn]] void libraryReceiver() {
    zq_subscriberMsg_sync(onMessage);
    _exit(3);
}

[[noreturn]] void bareReceiver() {
    struct {
        long type;
        char text[8192];
    } message;
    const int id = msgget(queueKey(kBareNo), IPC_CREAT | 0666);
    for (;;) {
        std::memset(&message, 0, sizeof(MSGINFO));
        if (msgrcv(id, &message, sizeof message.text, 0, 0) != -1) countReceived();
    }
}

class Receiver {
public:
    Receiver(void (*receive)(), int ackEvery) {
        g_ackEvery = ackEvery;
        if (pipe(g_batchPipe) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(g_batchPipe[0]);
            receive();
        }
        close(g_batchPipe[1]);
    }
    ~Receiver() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(g_batchPipe[0]);
    }
    // Waits until the receiver has taken one more batch.
    bool batchTaken() const {
        pollfd ready{g_batchPipe[0], POLLIN, 0};
        char byte;
        return poll(&ready, 1, kSilenceMs) == 1 && read(g_batchPipe[0], &byte, 1) == 1;
    }

private:
    pid_t pid_ = -1;
};

// A forked bus monitor that takes every copy off its queue; registered once
// the constructor returns.
class Monitor {
public:
    Monitor() {
        int ready[2];
        if (pipe(ready) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            qvmonitor::Monitor monitor;
            const char opened = qvmonitor::openMonitor(&monitor) == 0 ? 'y' : 'n';
            if (write(ready[1], &opened, 1) != 1 || opened != 'y') _exit(1);
            qvmonitor::Copy copy;
            for (;;) qvmonitor::receiveCopy(monitor, &copy);
        }
        close(ready[1]);
        char opened = 'n';
        watching_ = pid_ > 0 && read(ready[0], &opened, 1) == 1 && opened == 'y';
        close(ready[0]);
    }
    // Killed: the publisher removes the queue it leaves once it finds it full,
    // and the run's IPC namespace goes with everything in it.
    ~Monitor() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    bool watching() const { return watching_; }

private:
    pid_t pid_ = -1;
    bool watching_ = false;
};

template <typename Payload>
Payload samplePayload() {
    Payload payload;
    std::memset(&payload, 0, sizeof payload);
    std::memcpy(&payload, "IED1LD0/GGIO1$ST$Ind1$stVal", 28);
    return payload;
}

// Each iteration sends `perIteration` records; the sender waits for the
// receiver's acknowledgement whenever one is due, so every record counted
// was delivered.
template <typename Payload>
void sendDelivered(benchmark::State& state, const Receiver& receiver, int (*send)(const Payload*),
                   Payload* payload, int perIteration) {
    int unacknowledged = 0;
    for (auto _ : state) {
        for (int i = 0; i < perIteration; ++i) send(payload);
        unacknowledged += perIteration;
        if (unacknowledged < g_ackEvery) continue;
        unacknowledged -= g_ackEvery;
        if (!receiver.batchTaken()) {
            state.SkipWithError("the receiver fell silent");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * perIteration);
}

template <typename Payload, int (*Send)(const Payload*)>
void LibraryMessages(benchmark::State& state, int perIteration, int ackEvery,
                     bool monitored = false) {
    const BurstQueueLimit limit;
    removeQueue(kSelfNo);
    if (!configureSelfRoute()) {
        state.SkipWithError("cannot write the configuration store");
        return;
    }
    {
        std::unique_ptr<Monitor> monitor(monitored ? new Monitor : nullptr);
        if (monitor && !monitor->watching()) {
            state.SkipWithError("cannot start a bus monitor");
            return;
        }
        const Receiver receiver(libraryReceiver, ackEvery);
        Payload payload = samplePayload<Payload>();
        if (zq_publisherMsg() != 0) {
            state.SkipWithError("zq_publisherMsg failed");
        } else {
            sendDelivered(state, receiver, Send, &payload, perIteration);
            state.SetLabel(capacityLabel(kSelfNo));
        }
    }
    zq_closeConfDB();
    removeQueue(kSelfNo);
}

struct alignas(long) BareRecord {
    MSGINFO record;
    char tail[sizeof(long)];
};

int g_bareQueue = -1;

// Waits in the kernel when the queue is full, so that no record is lost.
int bareSend(const BareRecord* buffer) { return msgsnd(g_bareQueue, buffer, sizeof(MSGINFO), 0); }

// The same 1192-byte queue message, without routes, zeroing or copying.
void BareMessages(benchmark::State& state, int perIteration, int ackEvery) {
    const BurstQueueLimit limit;
    removeQueue(kBareNo);
    {
        const Receiver receiver(bareReceiver, ackEvery);
        g_bareQueue = msgget(queueKey(kBareNo), IPC_CREAT | 0666);
        BareRecord buffer{};
        buffer.record.msgType = SOEINFO_TYPE;
        buffer.record.msgInfo.soeInfo = samplePayload<SOEINFO>();
        sendDelivered(state, receiver, bareSend, &buffer, perIteration);
        state.SetLabel(capacityLabel(kBareNo));
    }
    removeQueue(kBareNo);
}

// Per record: one iteration is one record, acknowledged in batches. A burst
// of sequence-of-events records: one iteration is 1000 records sent as fast
// as they go, until the subscriber has taken the last one. Every payload
// travels as the same 1192-byte record, so one bare pair is the baseline of
// both record sizes; it runs under each name for the report.
const bool g_registered = [] {
    using benchmark::RegisterBenchmark;
    using benchmark::State;
    RegisterBenchmark("Lib/MessageDigitalOutRet", [](State& state) {
        LibraryMessages<DIGITALOUTRET, zq_sendDigitalOutRetMsg>(state, 1, kBatch);
    })->UseRealTime();
    RegisterBenchmark("Lib/MessageRegisterInfo", [](State& state) {
        LibraryMessages<REGISTERINFO, zq_sendRegisterMsg>(state, 1, kBatch);
    })->UseRealTime();
    RegisterBenchmark("Lib/MessageBurst1000", [](State& state) {
        LibraryMessages<SOEINFO, zq_sendSoeMsg>(state, kBurst, kBurst);
    })->UseRealTime();
    RegisterBenchmark("Lib/MessageDigitalOutRetMonitored", [](State& state) {
        LibraryMessages<DIGITALOUTRET, zq_sendDigitalOutRetMsg>(state, 1, kBatch, true);
    })->UseRealTime();
    RegisterBenchmark("Lib/MessageBurst1000Monitored", [](State& state) {
        LibraryMessages<SOEINFO, zq_sendSoeMsg>(state, kBurst, kBurst, true);
    })->UseRealTime();
    for (const char* name : {"Bare/MessageDigitalOutRet", "Bare/MessageRegisterInfo"})
        RegisterBenchmark(name, [](State& state) { BareMessages(state, 1, kBatch); })->UseRealTime();
    RegisterBenchmark("Bare/MessageBurst1000", [](State& state) {
        BareMessages(state, kBurst, kBurst);
    })->UseRealTime();
    return true;
}();

}  // namespace
