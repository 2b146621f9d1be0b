// Messaging between real processes: routes from a fresh configuration store,
// publishers and subscribers run by the peer program (tests/peer), records
// compared byte for byte. Every wait on a peer is bounded by kTimeoutMs.
#include <fcntl.h>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <thread>

#include "internal/qvmessage_internal.h"
#include "internal/qvmonitor.h"
#include "qvmessage.h"
#include "qvtool_run.h"

namespace {

constexpr int kTimeoutMs = 30000;  // reaching it fails the test instead of hanging it
constexpr int kHighestProcessNo = 16;  // every queue a test may touch: numbers 0 to this
constexpr int kFenceKind = 99;
constexpr int kBurst = 1000;  // records a subscriber's queue holds
constexpr msglen_t kBurstBytes = kBurst * sizeof(MSGINFO);
constexpr size_t kPayloadSize[] = {0, 260, 272, 272, 280, 1008, 268, 276, 264, 260, 268, 260,
                                   1188, 648};

int queueId(int processNo, int flags = 0) { return msgget(processNo + QV_QUEUE_KEY_OFFSET, flags); }

// The state of a process's queue; all zero when it has none.
msqid_ds queueState(int processNo) {
    msqid_ds state{};
    msgctl(queueId(processNo), IPC_STAT, &state);
    return state;
}

// A record of the kind with every other byte patterned; payload byte 3 keeps
// the queue's type field positive.
MSGINFO patterned(int kind, int seed) {
    MSGINFO record;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&record);
    for (size_t i = 0; i < sizeof record; ++i) bytes[i] = (unsigned char)(seed * 31 + i * 7 + 1);
    record.msgType = kind;
    bytes[7] &= 0x7F;
    return record;
}

// True when a receiver got the sent record: the kind, the payload, zeros after it.
bool arrivedAsSent(const MSGINFO& received, const MSGINFO& sent) {
    MSGINFO expected = qvtest::filledRecord<MSGINFO>(0);
    expected.msgType = sent.msgType;
    std::memcpy(&expected.msgInfo, &sent.msgInfo, kPayloadSize[sent.msgType]);
    return std::memcmp(&received, &expected, sizeof expected) == 0;
}

// The template of a peer's burst of `count` general messages (see msg_peer.cpp).
MSGINFO burstOf(int count) {
    MSGINFO record = patterned(GENERALMSG_TYPE, 7);
    record.msgInfo.generalMsg.dataLen = count;
    return record;
}

// Waits until each process's queue exists and holds at least `bytes`.
bool queuesHold(std::initializer_list<int> processNos, msglen_t bytes) {
    return std::all_of(processNos.begin(), processNos.end(), [&](int no) {
        return qvtest::eventually([&] { return queueState(no).msg_qbytes >= bytes; }, kTimeoutMs);
    });
}

// Sets the process's queue to the usual default capacity of 16384 bytes.
bool shrinkQueue(int processNo) {
    msqid_ds state = queueState(processNo);
    state.msg_qbytes = 16384;
    return msgctl(queueId(processNo), IPC_SET, &state) == 0;
}

struct QueueMessage {
    long type;
    char text[8192];
};

// Puts a record of kFenceKind behind everything sent to the process.
bool sendFence(int processNo) {
    QueueMessage fence{kFenceKind, {}};
    const int queue = queueId(processNo, IPC_CREAT | 0666);
    return qvtest::eventually([&] { return msgsnd(queue, &fence, sizeof(MSGINFO), IPC_NOWAIT) == 0; },
                              kTimeoutMs);
}

// Takes the next message off a process's queue without a subscriber.
bool takeMessage(int processNo, QueueMessage* message) {
    return msgrcv(queueId(processNo), message, sizeof message->text, 0, IPC_NOWAIT) != -1;
}

int occurrences(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// One run of the peer program; its stdin, stdout and stderr are pipes.
class Peer : public qvtest::Spawn {
public:
    // Argument zero is "p": the process name must not come from it.
    Peer(const std::string& mode, const std::vector<std::string>& args, bool unprivileged = false)
        : Spawn(QV_MSG_PEER, args, options(mode, unprivileged)) {}
    static Options options(const std::string& mode, bool unprivileged) {
        Options options;
        options.argv0 = "p";
        options.env = {"QV_MSG_PEER_MODE=" + mode, std::string("QV_MSG_PEER_UNPRIVILEGED=") + (unprivileged ? "1" : "")};
        options.limitMs = kTimeoutMs;
        return options;
    }

    bool nextRecord(MSGINFO* record) { return read(record, sizeof *record) == sizeof *record; }
    // One command to a publisher, started, then its result (INT_MIN when none came).
    bool start(char op, const MSGINFO& record = MSGINFO{}) {
        return write(&op, 1) && write(&record, sizeof record);
    }
    int result() {
        int result = INT_MIN;
        return read(&result, sizeof result) == sizeof result ? result : INT_MIN;
    }
    int command(char op, const MSGINFO& record = MSGINFO{}) { return start(op, record) ? result() : INT_MIN; }
};

// Reads a subscriber's records numbered by a burst until the fence; false at
// the first record that is not the burst's.
bool readBurst(Peer& subscriber, const MSGINFO& burst, std::vector<int>* numbers) {
    MSGINFO received, expected = burst;
    while (subscriber.nextRecord(&received) && received.msgType != kFenceKind) {
        expected.msgInfo.generalMsg.type = received.msgInfo.generalMsg.type;
        if (!arrivedAsSent(received, expected)) return false;
        numbers->push_back(expected.msgInfo.generalMsg.type);
    }
    return received.msgType == kFenceKind;
}

// The subscriber hands on the burst's records 1 to count, whole and in
// order, then the fence.
void expectWholeBurst(Peer& subscriber, const MSGINFO& burst, int count) {
    std::vector<int> numbers, oneToCount(count);
    std::iota(oneToCount.begin(), oneToCount.end(), 1);
    EXPECT_TRUE(readBurst(subscriber, burst, &numbers));
    EXPECT_EQ(numbers, oneToCount);
}

class MessageBus : public ::testing::Test {
protected:
    void SetUp() override {
        removeTestQueues();
        qvtest::freshConfStore();
    }
    void TearDown() override {
        removeTestQueues();
        if (savedIpc_ != -1) {
            EXPECT_EQ(setns(savedIpc_, CLONE_NEWIPC), 0);
            close(savedIpc_);
        }
    }
    static void removeTestQueues() {
        for (int no = 0; no <= kHighestProcessNo; ++no) msgctl(queueId(no), IPC_RMID, nullptr);
    }
    // Runs the rest of the test in an IPC namespace of its own whose queue
    // limit (msgmnb) is `bytes`: the capacity a subscriber gets then depends
    // neither on this machine's limit nor on CAP_SYS_RESOURCE. False when the
    // system does not allow it.
    bool useQueueLimit(msglen_t bytes) {
        savedIpc_ = open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC);
        return savedIpc_ != -1 && unshare(CLONE_NEWIPC) == 0 && setLimit("msgmnb", bytes);
    }
    // Sets a queue limit of the test's IPC namespace (msgmnb, msgmax).
    static bool setLimit(const char* name, unsigned long value) {
        FILE* limit = std::fopen((std::string("/proc/sys/kernel/") + name).c_str(), "w");
        if (limit == nullptr) return false;
        std::fprintf(limit, "%lu\n", value);
        return std::fclose(limit) == 0;
    }
    static void configure(int no, const std::string& name) {
        qvtest::execSql(qvtest::confDbPath(), "insert into ProcessConfig(no,processName) values(" +
                                                  std::to_string(no) + ",'" + name + "')");
    }
    static void route(int from, int to, int mask) {
        qvtest::execSql(qvtest::confDbPath(), "insert into ProcessMsgAssociation values(" + std::to_string(from) +
                                                  "," + std::to_string(to) + "," + std::to_string(mask) + ")");
    }
    // Process 1 sends general messages to processes 2 and 3 ("qv_msg_peer 2", "qv_msg_peer 3").
    static void publisherToProcesses2And3() {
        configure(1, "qv_msg_peer publisher");
        for (int no : {2, 3}) {
            configure(no, "qv_msg_peer " + std::to_string(no));
            route(1, no, 0x10);
        }
    }

    // Process 1 sends the given kinds to process 2 ("qv_msg_peer 2").
    static void publisherToProcess2(int mask) {
        configure(1, "qv_msg_peer publisher");
        configure(2, "qv_msg_peer 2");
        route(1, 2, mask);
    }
    // A burst of kBurst general messages from process 1 reaches process 2's
    // subscriber whole and in order; no send fails or says anything.
    static void burstReachesProcess2() {
        Peer receiver("sync", {"2"});
        Peer sender("pub", {"publisher"});
        ASSERT_EQ(sender.command('P'), 0);
        ASSERT_TRUE(queuesHold({2}, kBurstBytes));
        const MSGINFO burst = burstOf(kBurst);
        ASSERT_EQ(sender.command('B', burst), 0);
        ASSERT_TRUE(sendFence(2));
        expectWholeBurst(receiver, burst, kBurst);
        EXPECT_EQ(sender.stop().err, "");
    }

private:
    int savedIpc_ = -1;
};

#define USE_QUEUE_LIMIT(bytes) \
    if (!useQueueLimit(bytes)) GTEST_SKIP() << "needs an IPC namespace of its own (CAP_SYS_ADMIN)"

TEST_F(MessageBus, EveryKindReachesExactlyTheReceiversWhoseRoutesCarryItsBit) {
    struct Subscriber {
        std::string name, mode;
        std::vector<int> masks;
        std::unique_ptr<Peer> peer;
    } subscribers[] = {
        {"all", "sync", {0x1FFF}, nullptr},            // process 2
        {"odd", "sync", {0x1555, 0x1}, nullptr},       // two routes: kind 1 comes twice
        {"even", "async", {0x0AAA}, nullptr},
        {"none", "async", {0, 0x7FFFE000}, nullptr},  // bits above 0x1000 select nothing
    };
    configure(1, "qv_msg_peer publisher");
    for (int no = 2; no < 6; ++no) {
        configure(no, "qv_msg_peer " + subscribers[no - 2].name);
        for (int mask : subscribers[no - 2].masks) route(1, no, mask);
    }
    // Started once the store is written: the test's writes have no busy retry.
    for (Subscriber& s : subscribers) s.peer.reset(new Peer(s.mode, {s.name}));
    Peer sender("pub", {"publisher"});
    // Until zq_publisherMsg the sender has no routes: a record it sent then
    // would arrive ahead of the expected ones. zq_sendMsg leaves the kinds
    // after DIGITALOUTRET to their own operations.
    int seed = 0;
    for (bool loaded : {false, true}) {
        if (loaded) {
            ASSERT_EQ(sender.command('P'), 0);
        }
        for (int kind = MSGFILE_TYPE; kind <= UPDATEFILE_TYPE; ++kind) {
            for (char op : std::string(kind == SOEINFO_TYPE ? "KMD" : "KM")) {
                const MSGINFO sent = patterned(kind, ++seed);
                ASSERT_EQ(sender.command(op, sent), 0);
                if (!loaded || (op == 'M' && kind > DIGITALOUTRET_TYPE)) continue;
                // Once per route carrying the kind's bit.
                for (Subscriber& s : subscribers) {
                    for (int mask : s.masks) {
                        if (!(mask & (1 << (kind - 1)))) continue;
                        MSGINFO received;
                        ASSERT_TRUE(s.peer->nextRecord(&received)) << s.name << " kind " << kind;
                        EXPECT_TRUE(arrivedAsSent(received, sent)) << s.name << " sent by " << op;
                    }
                }
            }
        }
    }
    // A fence behind everything sent: each subscriber must hand it on next.
    for (int no = 2; no < 6; ++no) {
        MSGINFO received;
        ASSERT_TRUE(sendFence(no) && subscribers[no - 2].peer->nextRecord(&received)) << no;
        EXPECT_EQ(received.msgType, kFenceKind) << no << " received more than was sent to it";
    }
}

TEST_F(MessageBus, TypeFieldHoldsTheKindAndFourPayloadBytesAndUnknownKindsAndStrangersGetNothing) {
    configure(1, "qv_msg_peer publisher");
    configure(2, "qv_msg_peer all");
    route(1, 6, -1);  // every bit, also those of no kind
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    // zq_sendMsg passes on kinds 1 to 9 only: these go nowhere, and no send is
    // even tried (the kernel would take them: their type fields are positive).
    for (int kind : {0, 14, -1, INT_MIN}) EXPECT_EQ(sender.command('M', patterned(kind, 3)), 0) << kind;
    MSGINFO sent{};
    sent.msgType = SOEINFO_TYPE;
    sent.msgInfo.soeInfo.type = 1;
    ASSERT_EQ(sender.command('K', sent), 0);
    QueueMessage message;
    ASSERT_TRUE(takeMessage(6, &message));  // the first on the queue
    EXPECT_EQ(message.type, 4294967298L);
    EXPECT_EQ(std::memcmp(&message, &sent, sizeof sent), 0);
    // A negative type field: no queue takes the record; -1 and the field named.
    MSGINFO negative[3] = {sent, sent, {}};
    negative[0].msgInfo.soeInfo.type = -1;
    negative[1].msgInfo.soeInfo.type = INT_MIN;
    negative[2].msgType = MSGFILE_TYPE;
    std::strcpy(negative[2].msgInfo.msgFile.iedName, "变电站1");
    for (const MSGINFO& record : negative) {
        EXPECT_EQ(sender.command('K', record), -1);
        EXPECT_EQ(sender.command('M', record), -1);
    }
    EXPECT_FALSE(takeMessage(6, &message));
    // A process no longer configured loads no routes and sends nothing.
    qvtest::execSql(qvtest::confDbPath(), "delete from ProcessConfig where no=1");
    EXPECT_EQ(sender.command('P'), -1);
    sent.msgInfo.soeInfo.type = 1;
    EXPECT_EQ(sender.command('K', sent), 0);
    EXPECT_FALSE(takeMessage(6, &message));
    const std::string negativeSoe = "SOEINFO.type is -1, which makes the queue type negative; "
                                    "message of kind 2 not sent\n",
                      lowestSoe = "SOEINFO.type is -2147483648, which makes the queue type "
                                  "negative; message of kind 2 not sent\n",
                      file = "zq_sendFileMsg: MSGFILE.iedName has a fourth byte of 231 (128 or "
                             "more), which makes the queue type negative; message of kind 1 not "
                             "sent\n";
    EXPECT_EQ(sender.stop().err,
              "zq_sendSoeMsg: " + negativeSoe + "zq_sendSoeMsg: " + negativeSoe +
              "zq_sendSoeMsg: " + lowestSoe + "zq_sendSoeMsg: " + lowestSoe + file + file +
              "no process named \"qv_msg_peer publisher\" in ProcessConfig (see zq_setProcessName)\n"
              "zq_sendSoeMsg: no routes loaded (call zq_publisherMsg first); nothing sent\n");
    // A subscriber the store does not know fails without creating a queue.
    for (const char* mode : {"sync", "async"}) {
        EXPECT_EQ(Peer(mode, {"stranger"}).finish().out, "subscription returned -1\n") << mode;
    }
    for (int no = 0; no <= kHighestProcessNo; ++no) EXPECT_TRUE(no == 6 || queueId(no) == -1) << no;
}

TEST_F(MessageBus, BurstOf1000ReachesSyncAndAsyncSubscribersWholeAndInOrder) {
    publisherToProcesses2And3();
    USE_QUEUE_LIMIT(kBurstBytes);
    Peer syncSubscriber("sync", {"2"}), asyncSubscriber("async", {"3"});
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    ASSERT_TRUE(queuesHold({2, 3}, kBurstBytes));
    const MSGINFO burst = burstOf(kBurst);
    ASSERT_EQ(sender.command('B', burst), 0);  // no send lost its record
    for (int no : {2, 3}) ASSERT_TRUE(sendFence(no));
    for (Peer* subscriber : {&syncSubscriber, &asyncSubscriber})
        expectWholeBurst(*subscriber, burst, kBurst);
    EXPECT_EQ(sender.stop().err, "");
}

// Where the system allows longer messages, one of 9000 bytes reaches the
// callback cut to the receive buffer, said in one line; the next one follows.
TEST_F(MessageBus, ARecordLongerThanTheReceiveBufferIsCutAndDoesNotBlockTheQueue) {
    configure(2, "qv_msg_peer 2");
    USE_QUEUE_LIMIT(kBurstBytes);
    ASSERT_TRUE(setLimit("msgmax", 16384));
    struct {
        long type;
        char text[9000];
    } big;
    big.type = GENERALMSG_TYPE;
    std::memset(big.text, 'b', sizeof big.text);
    ASSERT_EQ(msgsnd(queueId(2, IPC_CREAT | 0666), &big, sizeof big.text, IPC_NOWAIT), 0);
    ASSERT_TRUE(sendFence(2));
    Peer subscriber("sync", {"2"});
    MSGINFO received, fence;
    ASSERT_TRUE(subscriber.nextRecord(&received) && subscriber.nextRecord(&fence));
    EXPECT_EQ(received.msgType, GENERALMSG_TYPE);
    EXPECT_EQ(std::string(received.msgInfo.generalMsg.buf, 4), "bbbb");
    EXPECT_EQ(fence.msgType, kFenceKind);
    EXPECT_EQ(subscriber.stop().err,
              "msgrcv: a message longer than 8192 bytes was cut to 8192 bytes\n");
}

// The subscriber is stopped (SIGSTOP) once subscribed: its queue keeps the
// first 1000 records of a burst; each further send reports the lost record
// and returns -1, and only the first one waits for room. The tool's send
// fails the same way.
TEST_F(MessageBus, BurstToAStoppedSubscriberKeepsTheFirst1000AndReportsTheRest) {
    configure(1, "qv_msg_peer publisher");
    configure(6, "qv_msg_peer late");
    configure(7, qvtest::toolName());
    route(1, 6, 0x10);
    route(7, 6, 0x10);
    USE_QUEUE_LIMIT(kBurstBytes);
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    // Sent before the subscriber exists: waits in the queue that the send
    // created, made as small as the usual default.
    const MSGINFO early = patterned(GENERALMSG_TYPE, 0), later = patterned(GENERALMSG_TYPE, 1);
    ASSERT_EQ(sender.command('K', early), 0);
    ASSERT_TRUE(shrinkQueue(6));
    Peer subscriber("sync", {"late"});
    MSGINFO received;
    ASSERT_TRUE(subscriber.nextRecord(&received));
    EXPECT_TRUE(arrivedAsSent(received, early));
    ASSERT_TRUE(queuesHold({6}, kBurstBytes));  // the subscriber raised it
    ASSERT_TRUE(subscriber.pause());
    // Small again, as when a sender created it before any subscriber: the
    // sender raises it when it finds it full.
    ASSERT_TRUE(shrinkQueue(6));
    const int lost = 200;
    const MSGINFO burst = burstOf(kBurst + lost);
    EXPECT_EQ(sender.command('B', burst), lost);
    const qvtest::ToolRun toolSend = qvtest::tool({"send", "general", "buf=x"});
    EXPECT_EQ(toolSend.code, 1);
    EXPECT_THAT(toolSend.err, testing::HasSubstr("the queue of process 6 stayed full"));

    subscriber.resume();
    ASSERT_TRUE(sendFence(6));
    expectWholeBurst(subscriber, burst, kBurst);
    // Once the queue has room again, sends go through.
    EXPECT_EQ(sender.command('K', later), 0);
    ASSERT_TRUE(subscriber.nextRecord(&received));
    EXPECT_TRUE(arrivedAsSent(received, later));
    // Only the first lost record waited for room.
    const std::string errors = sender.stop().err, full = "msgsnd failed: the queue of process 6 ";
    EXPECT_EQ(occurrences(errors, full + "stayed full for 50 ms; message of kind 5 lost\n"), 1);
    EXPECT_EQ(occurrences(errors, full + "is still full; message of kind 5 lost\n"), lost - 1);
}

// Records come at one a millisecond while the test removes both subscribers'
// queues three times: each re-opens at once, so only records that sat in a
// removed queue can be lost. The system's limit is the usual default of
// 16384 bytes (13 records), and the async subscriber runs without
// CAP_SYS_RESOURCE: it says once what capacity it got and goes on.
TEST_F(MessageBus, QueueRemovedUnderARunningSubscriberCostsAtMostTheRecordsInIt) {
    publisherToProcesses2And3();
    const msglen_t limit = 16384;
    USE_QUEUE_LIMIT(limit);
    Peer subscribers[] = {{"sync", {"2"}}, {"async", {"3"}, true}};
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    ASSERT_TRUE(queuesHold({2, 3}, limit));

    const MSGINFO burst = burstOf(kBurst);
    std::vector<int> numbers[2];
    bool whole[2] = {false, false};
    std::thread readers[] = {
        std::thread([&] { whole[0] = readBurst(subscribers[0], burst, &numbers[0]); }),
        std::thread([&] { whole[1] = readBurst(subscribers[1], burst, &numbers[1]); })};
    EXPECT_TRUE(sender.start('T', burst));  // no ASSERT while the readers run
    // What a removal may cost: the records in the queue, and one that the
    // sender opened the queue for just before.
    const int removals = 3;
    int bound[2] = {0, 0};
    for (int i = 0; i < removals; ++i) {
        usleep(250 * 1000);
        for (int s = 0; s < 2; ++s) {
            bound[s] += static_cast<int>(queueState(2 + s).msg_qnum) + 1;
            EXPECT_EQ(msgctl(queueId(2 + s), IPC_RMID, nullptr), 0);
        }
    }
    EXPECT_EQ(sender.result(), 0);
    for (int no : {2, 3}) EXPECT_TRUE(sendFence(no));
    for (std::thread& reader : readers) reader.join();

    const std::string errors[] = {subscribers[0].stop().err, subscribers[1].stop().err};
    EXPECT_EQ(occurrences(errors[1], "the queue of process 3 holds 16384 bytes (13 records), "
                                     "not the 1192000 bytes of 1000 records: raise the system "
                                     "limit (sysctl -w kernel.msgmnb=1192000)"),
              1)
        << errors[1];
    std::printf("records lost to %d queue removals: sync %d, async %d of %d each\n", removals,
                kBurst - int(numbers[0].size()), kBurst - int(numbers[1].size()), kBurst);
    for (int s = 0; s < 2; ++s) {
        SCOPED_TRACE(s == 0 ? "sync" : "async");
        EXPECT_TRUE(whole[s]);
        EXPECT_TRUE(std::is_sorted(numbers[s].begin(), numbers[s].end()) &&
                    std::adjacent_find(numbers[s].begin(), numbers[s].end()) == numbers[s].end());
        EXPECT_LE(kBurst - int(numbers[s].size()), bound[s]);
        EXPECT_EQ(occurrences(errors[s], "msgrcv err\n: "), removals) << errors[s];
    }
}

// ---- Bus monitors (qvtool watch --all) -----------------------------------------

// What a full monitor queue holds: the system limit that lets a monitor
// have it without CAP_SYS_RESOURCE.
constexpr msglen_t kMonitorBytes = qvmonitor::kMonitorRecords * qvmonitor::kCopyText;

// "qvtool watch --all" with more options, returned once it watches; the id of
// its queue goes to *queue.
std::unique_ptr<qvtest::Spawn> startMonitor(const std::vector<std::string>& options, int* queue = nullptr) {
    std::vector<std::string> args = {"watch", "--all"};
    args.insert(args.end(), options.begin(), options.end());
    qvtest::Spawn::Options limit;
    limit.limitMs = kTimeoutMs;
    std::unique_ptr<qvtest::Spawn> monitor(new qvtest::Spawn(QV_TOOL, args, limit));
    const std::string line = monitor->readLine(2);
    EXPECT_THAT(line, testing::StartsWith("qvtool: watching every record on the bus"));
    const size_t at = line.find("queue id ");
    if (queue != nullptr && at != std::string::npos) *queue = std::atoi(line.c_str() + at + 9);
    return monitor;
}

// The burst numbers that a monitor printed (JSON lines), each checked to be
// a copy of the burst from process 1 delivered to process 2.
std::vector<int> monitoredBurst(const std::string& out, int count) {
    std::vector<int> numbers;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json copy = nlohmann::json::parse(line, nullptr, false);
        const bool ofBurst = copy.is_object() && copy["kind"] == "general" && copy["msgType"] == 5 &&
                             copy["sendProcessNo"] == 1 && copy["sendProcessName"] == "qv_msg_peer publisher" &&
                             copy["recvProcessNo"] == 2 && copy["recvProcessName"] == "qv_msg_peer 2" &&
                             copy["delivered"] == true && copy["dataLen"] == count;
        EXPECT_TRUE(ofBurst) << line;
        numbers.push_back(ofBurst ? copy["type"].get<int>() : 0);
    }
    return numbers;
}

std::vector<int> oneTo(int count) {
    std::vector<int> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

TEST_F(MessageBus, TwoMonitorsAndTheReceiverEachSeeABurstOf1000WholeAndInOrder) {
    publisherToProcess2(0x10);
    USE_QUEUE_LIMIT(kMonitorBytes);
    const std::string count = std::to_string(kBurst);
    std::unique_ptr<qvtest::Spawn> monitors[] = {startMonitor({"--json", "--count", count}),
                                                 startMonitor({"--json", "--count", count})};
    burstReachesProcess2();
    for (auto& monitor : monitors) {
        const qvtest::ToolRun run = monitor->finish();
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(monitoredBurst(run.out, kBurst), oneTo(kBurst));
        EXPECT_EQ(run.err, "");
    }
}

// One monitor is killed, one stopped, both queues shrunk to 13 copies: the
// burst still reaches the receiver whole, every send returns 0, the dead
// monitor's queue is removed and the stopped one keeps its first 13 copies
// and says how many passed it by.
TEST_F(MessageBus, AMonitorKilledOrStoppedCostsThePublisherNothing) {
    publisherToProcess2(0x10);
    USE_QUEUE_LIMIT(kMonitorBytes);
    int killedQueue = -1, stoppedQueue = -1;
    std::unique_ptr<qvtest::Spawn> killed = startMonitor({}, &killedQueue),
                                   stopped = startMonitor({"--json", "--count", "13"}, &stoppedQueue);
    msqid_ds state{};
    ASSERT_EQ(msgctl(stoppedQueue, IPC_STAT, &state), 0);
    EXPECT_EQ(state.msg_perm.mode & 0777, QV_IPC_MODE);
    EXPECT_EQ(state.msg_qbytes, kMonitorBytes);
    killed->stop();
    ASSERT_TRUE(stopped->pause());
    for (int queue : {killedQueue, stoppedQueue}) {
        ASSERT_EQ(msgctl(queue, IPC_STAT, &state), 0);
        state.msg_qbytes = 13 * qvmonitor::kCopyText;
        ASSERT_EQ(msgctl(queue, IPC_SET, &state), 0);
    }
    burstReachesProcess2();
    EXPECT_EQ(msgctl(killedQueue, IPC_STAT, &state), -1);
    ASSERT_EQ(msgctl(stoppedQueue, IPC_STAT, &state), 0);
    EXPECT_EQ(state.msg_qnum, 13u);
    stopped->resume();
    const qvtest::ToolRun run = stopped->finish();
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(monitoredBurst(run.out, kBurst), oneTo(13));
    EXPECT_EQ(run.err, "qvtool: " + std::to_string(kBurst - 13) +
                           " records passed while this monitor's queue was full (their receivers "
                           "got them)\n");
    EXPECT_EQ(msgctl(stoppedQueue, IPC_STAT, &state), -1);  // removed as the monitor ended
}

// A plain line names sender and receiver; a record that no route carries is
// shown with no receiver; --kind leaves kinds out.
TEST_F(MessageBus, AMonitorShowsWhoSentWhatToWhomAndWhatNoRouteCarried) {
    publisherToProcess2(0x12);
    std::unique_ptr<qvtest::Spawn> monitor = startMonitor({"--kind", "soe,topo", "--count", "2"});
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    MSGINFO soe{}, general{}, topo{};
    soe.msgType = SOEINFO_TYPE;
    soe.msgInfo.soeInfo.type = 1;
    std::strcpy(soe.msgInfo.soeInfo.strDa, "IED1LD0/GGIO1$ST$Ind1$stVal");
    general.msgType = GENERALMSG_TYPE;
    topo.msgType = TOPOINFO_TYPE;
    topo.msgInfo.topoInfo.value = 3;
    for (const MSGINFO& record : {soe, general, topo}) ASSERT_EQ(sender.command('K', record), 0);
    const qvtest::ToolRun run = monitor->finish();
    EXPECT_EQ(run.code, 0) << run.err;
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ",
                      from = "sendProcessNo=1 sendProcessName=\"qv_msg_peer publisher\" ";
    std::vector<std::string> shown;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) shown.push_back(line);
    EXPECT_THAT(shown, testing::ElementsAre(
        testing::MatchesRegex(stamp + "soe " + from + "recvProcessNo=2 recvProcessName=\"qv_msg_peer 2\" "
                              "delivered=true type=1 strDa=\"IED1LD0/GGIO1\\$ST\\$Ind1\\$stVal\" value=0 "
                              "minutes=0 msec=0"),
        testing::MatchesRegex(stamp + "topo " + from + "recvProcessNo=-1 recvProcessName=null "
                              "delivered=false strDa=\"\" value=3")));
    sender.stop();
}

// Eight monitors at once; a ninth is refused until one of them dies, even by
// SIGKILL, and its queue goes when the slot is taken again.
TEST_F(MessageBus, EightMonitorsWatchAtOnceAndADeadOnesPlaceIsTakenAgain) {
    std::vector<std::unique_ptr<qvtest::Spawn>> monitors;
    int lastQueue = -1;
    for (int i = 0; i < qvmonitor::kSlots; ++i) monitors.push_back(startMonitor({}, &lastQueue));
    qvtest::ToolRun refused = qvtest::tool({"watch", "--all"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, testing::HasSubstr("8 monitors watch the bus already; none can be added"));
    monitors.back()->stop();
    msqid_ds state{};
    EXPECT_EQ(msgctl(lastQueue, IPC_STAT, &state), 0);  // left behind by the dead monitor
    int queue = -1;
    monitors.back() = startMonitor({}, &queue);
    EXPECT_NE(queue, -1);
    EXPECT_EQ(msgctl(lastQueue, IPC_STAT, &state), -1);
}

TEST(ProcessName, IsTheExecutablesFileNameAndArgumentsCutToTheBuffer) {
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(QV_MSG_PEER, resolved), nullptr);
    const std::string file(resolved), dir = file.substr(0, file.rfind('/') + 1);
    const std::string a(60, 'A'), b(60, 'B');
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "qv_msg_peer"},
        {{"a", "b"}, "qv_msg_peer a b"},
        {{"", "b"}, "qv_msg_peer"},                       // an empty argument ends the list
        {{"a", std::string(200, 'x')}, "qv_msg_peer a"},  // the buffer ends inside the x's
        {{a, b}, ("qv_msg_peer " + a + " " + b).substr(0, 127)},
    };
    for (const auto& c : cases) EXPECT_EQ(Peer("path", c.first).finish().out, dir + "\n" + c.second + "\n");

    // A path as long as the directory buffer is refused; nothing lands after it.
    char shortDir[24], name[128];
    std::memset(shortDir, '#', sizeof shortDir);
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_executable_path(shortDir, name, 16), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("readlink  err\n: "));
    EXPECT_EQ(std::string(shortDir + 16, 8), std::string(8, '#'));
}

}  // namespace
