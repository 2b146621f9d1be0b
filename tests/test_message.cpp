// Messaging between real processes: routes from a fresh configuration store,
// publishers and subscribers run by the peer program (tests/peer), records
// compared byte for byte. Every wait on a peer is bounded by kTimeoutMs.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "internal/qvmessage_internal.h"
#include "qvmessage.h"
#include "qvtest.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr int kTimeoutMs = 30000;  // reaching it fails the test instead of hanging it
constexpr int kHighestProcessNo = 16;  // every queue a test may touch: numbers 0 to this
constexpr int kFenceKind = 99;
constexpr size_t kPayloadSize[] = {0, 260, 272, 272, 280, 1008, 268, 276, 264, 260, 268, 260,
                                   1188, 648};

key_t queueKey(int processNo) { return processNo + QV_QUEUE_KEY_OFFSET; }

void removeTestQueues() {
    for (int no = 0; no <= kHighestProcessNo; ++no)
        msgctl(msgget(queueKey(no), 0), IPC_RMID, nullptr);
}

// A record of the kind with every other byte patterned; payload byte 3 keeps
// the queue's type field positive.
MSGINFO patterned(int kind, int seed) {
    MSGINFO record;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&record);
    for (size_t i = 0; i < sizeof record; ++i)
        bytes[i] = static_cast<unsigned char>(seed * 31 + i * 7 + 1);
    record.msgType = kind;
    bytes[7] &= 0x7F;
    return record;
}

// True when a receiver got the sent record: the kind, the payload, zeros after it.
bool arrivedAsSent(const MSGINFO& received, const MSGINFO& sent) {
    MSGINFO expected;
    std::memset(&expected, 0, sizeof expected);
    expected.msgType = sent.msgType;
    std::memcpy(&expected.msgInfo, &sent.msgInfo, kPayloadSize[sent.msgType]);
    return std::memcmp(&received, &expected, sizeof expected) == 0;
}

struct QueueMessage {
    long type;
    char text[8192];
};

// Takes the next message off a process's queue without a subscriber.
bool takeMessage(int processNo, QueueMessage* message) {
    const int id = msgget(queueKey(processNo), 0);
    return id != -1 && msgrcv(id, message, sizeof message->text, 0, IPC_NOWAIT) != -1;
}

int occurrences(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// Reads until size bytes came, the pipe ended or stayed silent for
// kTimeoutMs; the number of bytes read.
size_t readPipe(int fd, void* buffer, size_t size) {
    size_t done = 0;
    pollfd ready{fd, POLLIN, 0};
    for (ssize_t n = 0; done < size && poll(&ready, 1, kTimeoutMs) > 0; done += size_t(n)) {
        if ((n = read(fd, static_cast<char*>(buffer) + done, size - done)) <= 0) break;
    }
    return done;
}

std::string readToEnd(int fd) {
    std::string text(1 << 20, '\0');
    text.resize(readPipe(fd, &text[0], text.size()));
    return text;
}

// One run of the peer program; its stdin, stdout and stderr are pipes.
class Peer {
public:
    // Argument zero is "p": the process name must not come from it.
    Peer(const std::string& mode, std::vector<std::string> args) {
        args.insert(args.begin(), "p");
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        setenv("QV_MSG_PEER_MODE", mode.c_str(), 1);
        signal(SIGPIPE, SIG_IGN);  // a peer that died fails the test, not the binary
        int in[2], out[2], err[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            std::abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0), dup2(out[1], 1), dup2(err[1], 2);
            execv(QV_MSG_PEER, argv.data());
            _exit(127);
        }
        close(in[0]), close(out[1]), close(err[1]);
        in_ = in[1], out_ = out[0], err_ = err[0];
    }
    Peer(const Peer&) = delete;
    ~Peer() { stop(); }

    bool nextRecord(MSGINFO* record) {
        return readPipe(out_, record, sizeof *record) == sizeof *record;
    }

    // One command to a publisher; its result, or INT_MIN when none came.
    int command(char op, const MSGINFO& record = MSGINFO{}) {
        int result = INT_MIN;
        const bool sent =
            write(in_, &op, 1) == 1 && write(in_, &record, sizeof record) == sizeof record;
        return sent && readPipe(out_, &result, sizeof result) == sizeof result ? result : INT_MIN;
    }

    // What the peer writes to stdout until it ends by itself.
    std::string output() { return readToEnd(out_); }

    // Ends the peer (a kill does nothing to one that has ended); what it wrote to stderr.
    std::string stop() {
        if (pid_ <= 0) return "";
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        const std::string errors = readToEnd(err_);
        for (int fd : {in_, out_, err_}) close(fd);
        return errors;
    }

private:
    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
};

class MessageBus : public ::testing::Test {
protected:
    void SetUp() override {
        removeTestQueues();
        qvtest::freshConfStore();
    }
    void TearDown() override { removeTestQueues(); }
    static void configure(int no, const std::string& name) {
        qvtest::execSql(qvtest::confDbPath(), "insert into ProcessConfig(no,processName) values(" +
                                                  std::to_string(no) + ",'" + name + "')");
    }
    static void route(int from, int to, int mask) {
        qvtest::execSql(qvtest::confDbPath(), "insert into ProcessMsgAssociation values(" +
                                                  std::to_string(from) + "," + std::to_string(to) +
                                                  "," + std::to_string(mask) + ")");
    }
};

TEST_F(MessageBus, EveryKindReachesExactlyTheReceiversWhoseRoutesCarryItsBit) {
    struct Subscriber {
        int no;
        std::string name, mode;
        std::vector<int> masks;
        std::unique_ptr<Peer> peer;
    } subscribers[] = {
        {2, "all", "sync", {0x1FFF}, nullptr},
        {3, "odd", "sync", {0x1555, 0x1}, nullptr},  // two routes: kind 1 comes twice
        {4, "even", "async", {0x0AAA}, nullptr},
        {5, "none", "async", {0, 0x7FFFE000}, nullptr},  // bits above 0x1000 select nothing
    };
    configure(1, "qv_msg_peer publisher");
    for (Subscriber& s : subscribers) {
        configure(s.no, "qv_msg_peer " + s.name);
        for (int mask : s.masks) route(1, s.no, mask);
    }
    // Started once the store is written: the test's writes have no busy retry.
    for (Subscriber& s : subscribers) s.peer.reset(new Peer(s.mode, {s.name}));
    Peer sender("pub", {"publisher"});

    // Each subscriber gets a sent record once per route carrying its kind's bit.
    auto expectDelivered = [&](const MSGINFO& sent, char op) {
        for (Subscriber& s : subscribers) {
            for (int mask : s.masks) {
                if (!(mask & (1 << (sent.msgType - 1)))) continue;
                MSGINFO received;
                ASSERT_TRUE(s.peer->nextRecord(&received)) << s.name << " kind " << sent.msgType;
                EXPECT_TRUE(arrivedAsSent(received, sent)) << s.name << " sent by " << op;
            }
        }
    };
    // Until zq_publisherMsg the sender has no routes: a record it sent then
    // would arrive ahead of the expected ones.
    int seed = 0;
    for (bool loaded : {false, true}) {
        if (loaded) {
            ASSERT_EQ(sender.command('P'), 0);
        }
        for (int kind = MSGFILE_TYPE; kind <= UPDATEFILE_TYPE; ++kind) {
            for (char op : std::string(kind == SOEINFO_TYPE ? "KMD" : "KM")) {
                const MSGINFO sent = patterned(kind, ++seed);
                ASSERT_EQ(sender.command(op, sent), 0);
                // zq_sendMsg leaves the kinds after DIGITALOUTRET to their own operations.
                if (loaded && (op != 'M' || kind <= DIGITALOUTRET_TYPE)) expectDelivered(sent, op);
            }
        }
    }
    // A fence behind everything sent: nothing else may come before it.
    for (Subscriber& s : subscribers) {
        QueueMessage fence{kFenceKind, {}};
        const int queue = msgget(queueKey(s.no), IPC_CREAT | 0666);  // "none" may not have it yet
        ASSERT_EQ(msgsnd(queue, &fence, sizeof(MSGINFO), IPC_NOWAIT), 0);
        MSGINFO received;
        ASSERT_TRUE(s.peer->nextRecord(&received)) << s.name;
        EXPECT_EQ(received.msgType, kFenceKind) << s.name << " received more than its routes carry";
    }
}

TEST_F(MessageBus, TypeFieldHoldsTheKindAndThePayloadsFirstFourBytes) {
    configure(1, "qv_msg_peer publisher");
    route(1, 6, 0x1FFF);
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    MSGINFO sent{};
    sent.msgType = SOEINFO_TYPE;
    sent.msgInfo.soeInfo.type = 1;
    ASSERT_EQ(sender.command('K', sent), 0);
    QueueMessage message;
    ASSERT_TRUE(takeMessage(6, &message));
    EXPECT_EQ(message.type, 4294967298L);
    EXPECT_EQ(std::memcmp(&message, &sent, sizeof sent), 0);

    // A negative type field: the kernel refuses every send of the record.
    sent.msgInfo.soeInfo.type = -1;
    EXPECT_EQ(sender.command('K', sent), 0);
    EXPECT_EQ(sender.command('M', sent), 0);
    EXPECT_FALSE(takeMessage(6, &message));

    // A process no longer configured loads no routes and sends nothing.
    qvtest::execSql(qvtest::confDbPath(), "delete from ProcessConfig");
    EXPECT_EQ(sender.command('P'), -1);
    sent.msgInfo.soeInfo.type = 1;
    EXPECT_EQ(sender.command('K', sent), 0);
    EXPECT_FALSE(takeMessage(6, &message));
    EXPECT_EQ(sender.stop(),
              "msgsnd failed\n: Invalid argument\nmsgsnd failed\n: Invalid argument\n");
}

TEST_F(MessageBus, UnconfiguredSubscriberFailsWithoutCreatingAQueue) {
    configure(2, "qv_msg_peer all");
    for (const char* mode : {"sync", "async"}) {
        EXPECT_EQ(Peer(mode, {"stranger"}).output(), "subscription returned -1\n") << mode;
    }
    for (int no = 0; no <= kHighestProcessNo; ++no) EXPECT_EQ(msgget(queueKey(no), 0), -1) << no;
}

// Messages sent before their receiver subscribes wait in its queue. Once the
// queue is full a send drops its message and returns; once it is removed the
// receiver fails one receive and goes on with a new queue.
TEST_F(MessageBus, QueuedMessagesWaitAndAFullOrRemovedQueueCostsOnlyMessages) {
    configure(1, "qv_msg_peer publisher");
    configure(6, "qv_msg_peer late");
    route(1, 6, 0x10);
    Peer sender("pub", {"publisher"});
    ASSERT_EQ(sender.command('P'), 0);
    int queueBytes = 0;
    std::ifstream("/proc/sys/kernel/msgmnb") >> queueBytes;
    const int capacity = queueBytes / static_cast<int>(sizeof(MSGINFO));
    const int lost = 3;
    for (int i = 0; i < capacity + lost; ++i) {
        ASSERT_EQ(sender.command('K', patterned(GENERALMSG_TYPE, i)), 0) << i;  // even when full
    }
    Peer receiver("sync", {"late"});
    MSGINFO received;
    for (int i = 0; i < capacity; ++i) {
        ASSERT_TRUE(receiver.nextRecord(&received)) << i;
        EXPECT_TRUE(arrivedAsSent(received, patterned(GENERALMSG_TYPE, i))) << i;
    }
    for (int round = 1000; round < 1002; ++round) {
        if (round == 1001) {
            ASSERT_EQ(msgctl(msgget(queueKey(6), 0), IPC_RMID, nullptr), 0);
        }
        ASSERT_EQ(sender.command('K', patterned(GENERALMSG_TYPE, round)), 0);
        ASSERT_TRUE(receiver.nextRecord(&received)) << round;
        EXPECT_TRUE(arrivedAsSent(received, patterned(GENERALMSG_TYPE, round))) << round;
    }
    const std::string full = "msgsnd failed\n: Resource temporarily unavailable\n";
    EXPECT_EQ(occurrences(sender.stop(), full), lost);
    const int failures = occurrences(receiver.stop(), "msgrcv err\n: ");
    EXPECT_GE(failures, 1);
    EXPECT_LE(failures, 3);
}

TEST(ProcessName, IsTheExecutablesFileNameAndArgumentsCutToTheBuffer) {
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(QV_MSG_PEER, resolved), nullptr);
    const std::string file(resolved), dir = file.substr(0, file.rfind('/') + 1);
    const std::string a(60, 'A'), b(60, 'B');
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "qv_msg_peer"},
        {{"a", "b"}, "qv_msg_peer a b"},
        {{"", "b"}, "qv_msg_peer"},  // an empty argument ends the list
        {{"a", std::string(200, 'x')}, "qv_msg_peer a"},  // the buffer ends inside the x's
        {{a, b}, ("qv_msg_peer " + a + " " + b).substr(0, 127)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Peer("path", c.first).output(), dir + "\n" + c.second + "\n");
    }

    // A path as long as the directory buffer is refused; nothing lands after it.
    char shortDir[24];
    char name[128];
    std::memset(shortDir, '#', sizeof shortDir);
    CaptureStderr();
    EXPECT_EQ(get_executable_path(shortDir, name, 16), -1);
    EXPECT_THAT(GetCapturedStderr(), testing::StartsWith("readlink  err\n: "));
    EXPECT_EQ(std::string(shortDir + 16, 8), std::string(8, '#'));
}

}  // namespace
