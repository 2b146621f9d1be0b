// Messages per second from a publisher to a subscriber through the library,
// next to a bare msgsnd/msgrcv pair moving records of the same 1192 bytes.
//
// The benchmark process is the sender; a forked child receives (the library's
// synchronous subscriber, or a bare msgrcv loop) and reports every batch on a
// pipe. Batches stay below a queue's capacity, so no send is lost.
#include <benchmark/benchmark.h>
#include <poll.h>
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
#include <string>

#include "bench_support.h"
#include "internal/qvmessage_internal.h"
#include "qvmessage.h"

namespace {

constexpr int kBatch = 8;  // a default queue (16384 bytes) holds 13 records
constexpr int kSelfNo = 1;  // this process: sender, and (forked) its own receiver
constexpr int kBareNo = 2;  // the queue of the bare pair
constexpr int kSilenceMs = 10000;

int g_batchPipe[2] = {-1, -1};
int g_received = 0;

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
    if (++g_received % kBatch == 0 && write(g_batchPipe[1], "b", 1) != 1) _exit(1);
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
    explicit Receiver(void (*receive)()) {
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

template <typename Payload>
Payload samplePayload() {
    Payload payload;
    std::memset(&payload, 0, sizeof payload);
    std::memcpy(&payload, "IED1LD0/GGIO1$ST$Ind1$stVal", 28);
    return payload;
}

template <typename Payload>
void runBatches(benchmark::State& state, const Receiver& receiver, int (*send)(Payload*),
                Payload* payload) {
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) send(payload);
        if (!receiver.batchTaken()) {
            state.SkipWithError("the receiver fell silent");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

template <typename Payload, int (*Send)(Payload*)>
void LibraryMessages(benchmark::State& state) {
    removeQueue(kSelfNo);
    if (!configureSelfRoute()) {
        state.SkipWithError("cannot write the configuration store");
        return;
    }
    {
        const Receiver receiver(libraryReceiver);
        Payload payload = samplePayload<Payload>();
        if (zq_publisherMsg() != 0) {
            state.SkipWithError("zq_publisherMsg failed");
        } else {
            runBatches(state, receiver, Send, &payload);
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

int bareSend(BareRecord* buffer) {
    return msgsnd(g_bareQueue, buffer, sizeof(MSGINFO), IPC_NOWAIT);
}

// The same 1192-byte queue message, without routes, zeroing or copying.
void BareMsgsndMsgrcv(benchmark::State& state) {
    removeQueue(kBareNo);
    {
        const Receiver receiver(bareReceiver);
        g_bareQueue = msgget(queueKey(kBareNo), IPC_CREAT | 0666);
        BareRecord buffer{};
        buffer.record.msgType = DIGITALOUTRET_TYPE;
        buffer.record.msgInfo.digitalOutRetInfo = samplePayload<DIGITALOUTRET>();
        runBatches(state, receiver, bareSend, &buffer);
    }
    removeQueue(kBareNo);
}

}  // namespace

BENCHMARK_TEMPLATE(LibraryMessages, DIGITALOUTRET, zq_sendDigitalOutRetMsg)
    ->Name("Lib/MessageDigitalOutRet")->UseRealTime();
BENCHMARK_TEMPLATE(LibraryMessages, REGISTERINFO, zq_sendRegisterMsg)
    ->Name("Lib/MessageRegisterInfo")->UseRealTime();
// Both payloads travel as the same 1192-byte record, so one bare pair is the
// baseline of both; it runs under each name for the report.
BENCHMARK(BareMsgsndMsgrcv)->Name("Bare/MessageDigitalOutRet")->UseRealTime();
BENCHMARK(BareMsgsndMsgrcv)->Name("Bare/MessageRegisterInfo")->UseRealTime();
