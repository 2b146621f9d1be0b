// Messaging between real processes: routes from a fresh configuration store,
// publishers and subscribers run by the peer program (tests/peer), records
// compared byte for byte. Every wait on a peer is bounded by kTimeoutMs.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "qvmessage.h"
#include "qvtest.h"

extern char** environ;

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr int kTimeoutMs = 30000;  // reaching it fails the test instead of hanging it
constexpr int kHighestProcessNo = 16;  // every queue a test may touch: numbers 0 to this
constexpr int kFenceKind = 99;
constexpr size_t kPayloadSize[] = {0, 260, 272, 272, 280, 1008, 268, 276, 264, 260, 268, 260,
                                   1188, 648};

key_t queueKey(int processNo) { return processNo + QV_QUEUE_KEY_OFFSET; }

bool queueExists(int processNo) { return msgget(queueKey(processNo), 0) != -1; }

void removeTestQueues() {
    for (int no = 0; no <= kHighestProcessNo; ++no) {
        const int id = msgget(queueKey(no), 0);
        if (id != -1) msgctl(id, IPC_RMID, nullptr);
    }
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

// What a receiver gets for a sent record: the kind, the payload, zeros after it.
MSGINFO onTheQueue(const MSGINFO& sent) {
    MSGINFO record;
    std::memset(&record, 0, sizeof record);
    record.msgType = sent.msgType;
    std::memcpy(&record.msgInfo, &sent.msgInfo, kPayloadSize[sent.msgType]);
    return record;
}

bool sameBytes(const MSGINFO& a, const MSGINFO& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

struct QueueMessage {
    long type;
    char text[8192];
};

// Takes the next message off a process's queue without a subscriber.
bool takeMessage(int processNo, QueueMessage* message) {
    const int id = msgget(queueKey(processNo), 0);
    return id != -1 && msgrcv(id, message, sizeof message->text, 0, IPC_NOWAIT) != -1;
}

// Puts a record of kind kFenceKind on a queue: everything sent before it
// is in front of it.
void sendFence(int processNo) {
    QueueMessage message{};
    message.type = kFenceKind;
    const int id = msgget(queueKey(processNo), IPC_CREAT | 0666);
    ASSERT_EQ(msgsnd(id, &message, sizeof(MSGINFO), IPC_NOWAIT), 0);
}

int occurrences(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

bool readFully(int fd, void* buffer, size_t size) {
    char* at = static_cast<char*>(buffer);
    while (size > 0) {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, kTimeoutMs) <= 0) return false;
        const ssize_t n = read(fd, at, size);
        if (n <= 0) return false;
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Everything up to the end of the pipe (or until it stays silent too long).
std::string readToEnd(int fd) {
    std::string text;
    char chunk[4096];
    pollfd ready{fd, POLLIN, 0};
    while (poll(&ready, 1, kTimeoutMs) > 0) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, static_cast<size_t>(n));
    }
    return text;
}

// One run of the peer program; its stdin, stdout and stderr are pipes.
class Peer {
public:
    Peer(const std::string& mode, const std::vector<std::string>& args,
         const std::string& argv0 = QV_MSG_PEER, const std::string& executable = QV_MSG_PEER) {
        std::vector<std::string> env{"QV_MSG_PEER_MODE=" + mode};
        for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
        std::vector<std::string> argvText{argv0};
        argvText.insert(argvText.end(), args.begin(), args.end());
        std::vector<char*> argv = pointers(argvText), envp = pointers(env);
        signal(SIGPIPE, SIG_IGN);  // a peer that died fails the test, not the binary
        int in[2], out[2], err[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            std::abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            execve(executable.c_str(), argv.data(), envp.data());
            _exit(127);
        }
        close(in[0]), close(out[1]), close(err[1]);
        in_ = in[1], out_ = out[0], err_ = err[0];
    }
    ~Peer() { stop(); }

    bool nextRecord(MSGINFO* record) { return readFully(out_, record, sizeof *record); }

    // One command to a publisher; its result, or INT_MIN when none came.
    int command(char op, const MSGINFO& record = MSGINFO{}) {
        int result = INT_MIN;
        if (write(in_, &op, 1) != 1 || write(in_, &record, sizeof record) != sizeof record ||
            !readFully(out_, &result, sizeof result))
            return INT_MIN;
        return result;
    }

    // Waits for the peer to end by itself: its output and exit status.
    std::string output() { return readToEnd(out_); }
    int exitStatus() {
        readToEnd(out_);
        const int status = reap();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Ends the peer and returns what it wrote to stderr.
    std::string stop() {
        if (in_ == -1) return "";
        reap();
        const std::string errors = readToEnd(err_);
        for (int fd : {in_, out_, err_}) close(fd);
        in_ = -1;
        return errors;
    }

private:
    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (std::string& text : texts) result.push_back(&text[0]);
        result.push_back(nullptr);
        return result;
    }
    // Kills the peer unless it has ended; its wait status.
    int reap() {
        if (pid_ <= 0) return status_;
        if (waitpid(pid_, &status_, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status_, 0);
        }
        pid_ = -1;
        return status_;
    }

    pid_t pid_ = -1;
    int status_ = 0;
    int in_ = -1, out_ = -1, err_ = -1;
};

// The name under which the library knows the test binary itself.
std::string ownProcessName() {
    char dir[1024];
    char name[128];
    EXPECT_EQ(get_executable_path(dir, name, sizeof dir), 0);
    return name;
}

class MessageBus : public ::testing::Test {
protected:
    void SetUp() override {
        zq_closeConfDB();
        removeTestQueues();
        qvtest::freshConfStore();
    }
    void TearDown() override {
        peers_.clear();
        removeTestQueues();
        zq_closeConfDB();
    }
    void configure(int no, const std::string& name) {
        qvtest::execSql(qvtest::confDbPath(),
                        "insert into ProcessConfig(no,processName) values(" + std::to_string(no) +
                            ",'" + name + "')");
    }
    void route(int from, int to, int mask) {
        qvtest::execSql(qvtest::confDbPath(),
                        "insert into ProcessMsgAssociation values(" + std::to_string(from) + "," +
                            std::to_string(to) + "," + std::to_string(mask) + ")");
    }
    Peer& start(const std::string& mode, const std::string& name) {
        peers_.push_back(std::make_unique<Peer>(mode, std::vector<std::string>{name}));
        return *peers_.back();
    }
    // The publisher peer, "qv_msg_peer publisher", process 1.
    Peer& publisher() { return start("pub", "publisher"); }

    std::vector<std::unique_ptr<Peer>> peers_;
};

TEST_F(MessageBus, EveryKindReachesExactlyTheReceiversWhoseRoutesCarryItsBit) {
    struct Subscriber {
        int no;
        const char* name;
        const char* mode;
        std::vector<int> masks;
        Peer* peer;
    } subscribers[] = {
        {2, "all", "sync", {0x1FFF}, nullptr},
        {3, "odd", "sync", {0x1555, 0x1}, nullptr},  // two routes: kind 1 comes twice
        {4, "even", "async", {0x0AAA}, nullptr},
        {5, "none", "async", {0, 0x7FFFE000}, nullptr},  // bits above 0x1000 select nothing
    };
    configure(1, "qv_msg_peer publisher");
    for (Subscriber& s : subscribers) {
        configure(s.no, std::string("qv_msg_peer ") + s.name);
        for (int mask : s.masks) route(1, s.no, mask);
    }
    // Started once the store is written: the test's writes have no busy retry.
    for (Subscriber& s : subscribers) s.peer = &start(s.mode, s.name);
    Peer& sender = publisher();
    ASSERT_EQ(sender.command('P'), 0);

    int seed = 0;
    for (int kind = MSGFILE_TYPE; kind <= UPDATEFILE_TYPE; ++kind) {
        const std::string operations = kind == SOEINFO_TYPE ? "KMD" : "KM";
        for (char op : operations) {
            const MSGINFO sent = patterned(kind, ++seed);
            ASSERT_EQ(sender.command(op, sent), 0);
            const bool sendable = op != 'M' || kind <= DIGITALOUTRET_TYPE;
            for (Subscriber& s : subscribers) {
                for (int mask : s.masks) {
                    if (!sendable || !(mask & (1 << (kind - 1)))) continue;
                    MSGINFO received;
                    ASSERT_TRUE(s.peer->nextRecord(&received))
                        << s.name << " missed kind " << kind << " sent by " << op;
                    EXPECT_TRUE(sameBytes(received, onTheQueue(sent)))
                        << s.name << ": kind " << kind << " sent by " << op;
                }
            }
        }
    }
    for (Subscriber& s : subscribers) {
        sendFence(s.no);
        MSGINFO received;
        ASSERT_TRUE(s.peer->nextRecord(&received)) << s.name;
        EXPECT_EQ(received.msgType, kFenceKind) << s.name << " received more than its routes carry";
    }
}

TEST_F(MessageBus, TypeFieldHoldsTheKindAndThePayloadsFirstFourBytes) {
    configure(1, ownProcessName());
    route(1, 6, 0x1FFF);
    ASSERT_EQ(zq_publisherMsg(), 0);
    SOEINFO soe{};
    std::strcpy(soe.strDa, "IED1LD0/GGIO1$ST$Ind1$stVal");
    soe.type = 1;
    zq_sendSoeMsg(&soe);
    MSGINFO sent{};
    sent.msgType = SOEINFO_TYPE;
    sent.msgInfo.soeInfo = soe;
    soe.type = 0;
    zq_sendDoubSoeMsg(&soe);
    QueueMessage message;
    ASSERT_TRUE(takeMessage(6, &message));
    EXPECT_EQ(message.type, 4294967298L);
    EXPECT_EQ(std::memcmp(&message, &sent, sizeof sent), 0);
    ASSERT_TRUE(takeMessage(6, &message));
    EXPECT_EQ(message.type, 2);

    // A negative type field: the kernel refuses every send of the record.
    soe.type = -1;
    PROTECTINFO protect{};
    protect.strDa[3] = static_cast<char>(0x80);
    CaptureStderr();
    EXPECT_EQ(zq_sendSoeMsg(&soe), 0);
    EXPECT_EQ(zq_sendProMsg(&protect), 0);
    EXPECT_EQ(GetCapturedStderr(), "msgsnd failed\n: Invalid argument\n"
                                   "msgsnd failed\n: Invalid argument\n");
    EXPECT_FALSE(takeMessage(6, &message));
}

TEST_F(MessageBus, MessageWaitsInTheQueueUntilItsReceiverSubscribes) {
    configure(1, ownProcessName());
    configure(6, "qv_msg_peer late");
    route(1, 6, 0x4);
    ASSERT_EQ(zq_publisherMsg(), 0);
    MSGINFO sent = patterned(PROTECTINFO_TYPE, 7);
    EXPECT_EQ(zq_sendMsg(&sent), 0);
    EXPECT_EQ(zq_sendProMsg(&sent.msgInfo.protectInfo), 0);
    Peer& receiver = start("sync", "late");
    for (const char* form : {"zq_sendMsg", "zq_sendProMsg"}) {
        MSGINFO received;
        ASSERT_TRUE(receiver.nextRecord(&received)) << form;
        EXPECT_TRUE(sameBytes(received, onTheQueue(sent))) << form;
    }
}

TEST_F(MessageBus, RoutesStayAsLoadedUntilTheNextLoad) {
    configure(1, ownProcessName());
    route(1, 6, 0x2);
    SOEINFO soe{};
    PROTECTINFO protect{};
    QueueMessage message;
    ASSERT_EQ(zq_publisherMsg(), 0);
    qvtest::execSql(qvtest::confDbPath(), "update ProcessMsgAssociation set msgType=4");
    zq_sendSoeMsg(&soe);
    EXPECT_TRUE(takeMessage(6, &message));

    ASSERT_EQ(zq_publisherMsg(), 0);
    zq_sendSoeMsg(&soe);
    EXPECT_FALSE(takeMessage(6, &message));
    zq_sendProMsg(&protect);
    EXPECT_TRUE(takeMessage(6, &message));

    // A process that is no longer configured loads no routes and sends nothing.
    qvtest::execSql(qvtest::confDbPath(), "delete from ProcessConfig");
    EXPECT_EQ(zq_publisherMsg(), -1);
    zq_sendProMsg(&protect);
    EXPECT_FALSE(takeMessage(6, &message));
}

TEST_F(MessageBus, SenderWithoutLoadedRoutesSendsNothing) {
    configure(1, "qv_msg_peer publisher");
    configure(2, "qv_msg_peer all");
    route(1, 2, 0x1FFF);
    Peer& sender = publisher();
    for (int kind = MSGFILE_TYPE; kind <= UPDATEFILE_TYPE; ++kind) {
        EXPECT_EQ(sender.command('K', patterned(kind, kind)), 0) << kind;
        EXPECT_EQ(sender.command('M', patterned(kind, kind)), 0) << kind;
    }
    EXPECT_FALSE(queueExists(2));
}

TEST_F(MessageBus, UnconfiguredSubscriberFailsWithoutCreatingAQueue) {
    configure(2, "qv_msg_peer all");
    for (const char* mode : {"sync", "async"}) {
        Peer subscriber(mode, {"stranger"});
        EXPECT_EQ(subscriber.exitStatus(), 3) << mode;  // the subscription returned -1
    }
    for (int no = 0; no <= kHighestProcessNo; ++no) EXPECT_FALSE(queueExists(no)) << no;
}

TEST_F(MessageBus, SubscriberReopensItsQueueAfterItWasRemoved) {
    configure(1, ownProcessName());
    configure(6, "qv_msg_peer late");
    route(1, 6, 0x100);
    ASSERT_EQ(zq_publisherMsg(), 0);
    Peer& receiver = start("sync", "late");
    MSGINFO received;
    for (int round = 0; round < 2; ++round) {
        MSGINFO sent = patterned(DIGITALOUTRET_TYPE, round);
        zq_sendDigitalOutRetMsg(&sent.msgInfo.digitalOutRetInfo);
        ASSERT_TRUE(receiver.nextRecord(&received)) << round;
        EXPECT_TRUE(sameBytes(received, onTheQueue(sent))) << round;
        if (round == 0) {
            ASSERT_EQ(msgctl(msgget(queueKey(6), 0), IPC_RMID, nullptr), 0);
        }
    }
    // One failed receive per removal, then the loop waits on the new queue.
    const int failures = occurrences(receiver.stop(), "msgrcv err\n: ");
    EXPECT_GE(failures, 1);
    EXPECT_LE(failures, 3);
}

TEST_F(MessageBus, FullQueueCostsTheMessageNotTheSender) {
    configure(1, "qv_msg_peer publisher");
    configure(6, "qv_msg_peer late");
    route(1, 6, 0x10);
    Peer& sender = publisher();
    ASSERT_EQ(sender.command('P'), 0);
    int queueBytes = 0;
    std::ifstream("/proc/sys/kernel/msgmnb") >> queueBytes;
    const int capacity = queueBytes / static_cast<int>(sizeof(MSGINFO));
    const int lost = 3;
    std::vector<MSGINFO> sent;
    for (int i = 0; i < capacity + lost; ++i) {
        sent.push_back(patterned(GENERALMSG_TYPE, i));
        ASSERT_EQ(sender.command('K', sent.back()), 0) << i;  // returns although the queue is full
    }
    sent.push_back(patterned(GENERALMSG_TYPE, 1000));
    Peer& receiver = start("sync", "late");
    MSGINFO received;
    for (int i = 0; i < capacity; ++i) {
        ASSERT_TRUE(receiver.nextRecord(&received)) << i;
        EXPECT_TRUE(sameBytes(received, onTheQueue(sent[i]))) << i;
    }
    ASSERT_EQ(sender.command('K', sent.back()), 0);
    ASSERT_TRUE(receiver.nextRecord(&received));
    EXPECT_TRUE(sameBytes(received, onTheQueue(sent.back())));
    EXPECT_EQ(occurrences(sender.stop(), "msgsnd failed\n: Resource temporarily unavailable\n"),
              lost);
}

// ---- Process names --------------------------------------------------------------

std::string nameSeenBy(const std::vector<std::string>& args, const std::string& argv0 = "p",
                       const std::string& executable = QV_MSG_PEER) {
    Peer peer("path", args, argv0, executable);
    const std::string output = peer.output();
    const size_t end = output.find('\n');
    return end == std::string::npos ? "" : output.substr(end + 1, output.size() - end - 2);
}

TEST(ProcessName, IsTheExecutablesFileNameFollowedByItsArguments) {
    EXPECT_EQ(nameSeenBy({"a", "b"}), "qv_msg_peer a b");
    EXPECT_EQ(nameSeenBy({"", "b"}), "qv_msg_peer");  // an empty argument ends the list

    // The file name comes from the executable, not from a link or argument zero.
    const std::string link = std::string(QV_TEST_STORE_DIR) + "/other-name";
    mkdir(QV_TEST_STORE_DIR, 0755);
    unlink(link.c_str());
    ASSERT_EQ(symlink(QV_MSG_PEER, link.c_str()), 0);
    EXPECT_EQ(nameSeenBy({"a"}, "other-name", link), "qv_msg_peer a");
    unlink(link.c_str());

    char resolved[PATH_MAX];
    ASSERT_NE(realpath(QV_MSG_PEER, resolved), nullptr);
    Peer peer("path", {});
    const std::string file(resolved);
    EXPECT_EQ(peer.output(), file.substr(0, file.rfind('/') + 1) + "\nqv_msg_peer\n");
}

TEST(ProcessName, LongCommandLinesAreCutInsideTheBuffers) {
    // The command line buffer ends inside the x's: that argument is dropped.
    EXPECT_EQ(nameSeenBy({"a", std::string(200, 'x')}), "qv_msg_peer a");
    const std::string a(60, 'A'), b(60, 'B');
    EXPECT_EQ(nameSeenBy({a, b}), ("qv_msg_peer " + a + " " + b).substr(0, 127));

    // A path as long as the directory buffer is refused; nothing lands after it.
    char dir[24];
    char name[128];
    std::memset(dir, '#', sizeof dir);
    CaptureStderr();
    EXPECT_EQ(get_executable_path(dir, name, 16), -1);
    EXPECT_THAT(GetCapturedStderr(), testing::StartsWith("readlink  err\n: "));
    EXPECT_EQ(std::string(dir + 16, 8), std::string(8, '#'));
}

}  // namespace
