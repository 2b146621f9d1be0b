// Who reaches what the library and qvtool make: the store files, the lock's
// semaphore set and the queues get the build's access mode (QV_IPC_MODE)
// whatever the umask, a second user reaches none of them, and `qvtool init`
// refuses a store path that is a link or that another user owns.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "qvrealapi.h"
#include "qvtool_run.h"

using qvtest::confDbPath;
using qvtest::realDbPath;
using qvtest::tool;

namespace {

constexpr int kReceiverNo = 11;

int fileMode(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

int queueKey() { return kReceiverNo + QV_QUEUE_KEY_OFFSET; }

void removeQueue() { msgctl(msgget(queueKey(), 0), IPC_RMID, nullptr); }

// Stores made by the tool afresh, under the given umask.
void initStores(mode_t mask) {
    const qvtest::ToolRun run = tool({"init", "--fresh"}, [mask] { umask(mask); });
    ASSERT_EQ(run.code, 0) << run.err;
}

// Drops this (child) process to the user nobody and its group.
bool becomeNobody() {
    const passwd* nobody = getpwnam("nobody");
    return nobody != nullptr && setgroups(0, nullptr) == 0 && setgid(nobody->pw_gid) == 0 &&
           setuid(nobody->pw_uid) == 0;
}

// What the second user tries; each bit of the result is one that worked.
int secondUserReaches() {
    zq_closeRealDB();  // the parent's, inherited
    if (!becomeNobody()) return 0x100;
    int reached = 0;
    if (msgget(queueKey(), QV_IPC_MODE) != -1 || errno != EACCES) reached |= 0x1;
    struct {
        long type = 1;
        char text[8] = "select";
    } record;
    if (msgsnd(msgget(queueKey(), 0), &record, sizeof record.text, IPC_NOWAIT) == 0) reached |= 0x2;
    sembuf take{0, -1, IPC_NOWAIT};
    if (semop(semget(QV_SEM_KEY, 1, 0), &take, 1) == 0 || errno != EACCES) reached |= 0x4;
    if (zq_openRealDB() == 0) reached |= 0x8;
    for (const std::string& store : {realDbPath(), confDbPath()})
        if (open(store.c_str(), O_RDWR) != -1) reached |= 0x10;
    return reached;
}

class Access : public testing::Test {
protected:
    void SetUp() override {
        zq_closeRealDB();
        removeQueue();
        qvtest::removeStoreLock();
    }
    void TearDown() override {
        zq_closeRealDB();
        removeQueue();
        qvtest::freshRealStore();
        qvtest::freshConfStore();
    }
};

}  // namespace

TEST_F(Access, StoreFilesGetTheModeWhateverTheUmask) {
    for (mode_t mask : {0000, 0077, 0022}) {
        initStores(mask);
        EXPECT_EQ(fileMode(realDbPath()), QV_IPC_MODE) << "umask " << mask;
        EXPECT_EQ(fileMode(confDbPath()), QV_IPC_MODE) << "umask " << mask;
    }
}

TEST_F(Access, ASecondUserCannotOpenAQueueTakeTheLockOrWriteAStore) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a child as the user nobody";
    initStores(0);
    // The library makes the queue (a send) and the lock's set (an open).
    const std::string name = qvtest::toolName();
    ASSERT_EQ(tool({"process", "add", name, "10", "sender"}).code, 0);
    ASSERT_EQ(tool({"process", "add", "receiver", std::to_string(kReceiverNo), "r"}).code, 0);
    ASSERT_EQ(tool({"route", "add", name, "receiver", "all"}).code, 0);
    ASSERT_EQ(tool({"send", "general", "type=1"}).code, 0);
    ASSERT_EQ(zq_openRealDB(), 0);
    msqid_ds queue{};
    ASSERT_EQ(msgctl(msgget(queueKey(), 0), IPC_STAT, &queue), 0);
    EXPECT_EQ(queue.msg_perm.mode & 0777, QV_IPC_MODE);
    semid_ds set{};
    union {
        semid_ds* buf;
    } arg{&set};
    ASSERT_EQ(semctl(semget(QV_SEM_KEY, 1, 0), 0, IPC_STAT, arg), 0);
    EXPECT_EQ(set.sem_perm.mode & 0777, QV_IPC_MODE);
    if ((QV_IPC_MODE & 0006) != 0) GTEST_SKIP() << "QV_IPC_MODE lets every user in";

    EXPECT_EQ(qvtest::runInChild(secondUserReaches), 0);
    EXPECT_EQ(qvtest::storeLockValue(), 1);
    EXPECT_EQ(queue.msg_qnum, 1u);  // only the tool's record
}

TEST_F(Access, InitRefusesALinkOrAFileOfAnotherUser) {
    const std::string target = qvtest::storeFile("elsewhere.db");
    const struct {
        const char* what;
        std::string path;
        bool needsRoot;
    } cases[] = {{"a link as the store", realDbPath(), false},
                 {"a store of another user", confDbPath(), true},
                 {"a journal of another user", realDbPath() + "-wal", true}};
    for (const auto& c : cases) {
        if (c.needsRoot && geteuid() != 0) continue;
        qvtest::removeStore(realDbPath());
        qvtest::removeStore(confDbPath());
        std::ofstream(target) << "not yours";
        if (c.needsRoot) {
            std::ofstream(c.path) << "";
            const passwd* nobody = getpwnam("nobody");
            ASSERT_TRUE(nobody != nullptr && chown(c.path.c_str(), nobody->pw_uid, 0) == 0);
        } else {
            ASSERT_EQ(symlink(target.c_str(), c.path.c_str()), 0);
        }
        const qvtest::ToolRun run = tool({"init"});
        EXPECT_EQ(run.code, 1) << c.what;
        EXPECT_THAT(run.err, testing::HasSubstr("refused: " + c.path)) << c.what;
        EXPECT_EQ(qvtest::fileText(target), "not yours") << c.what;
        unlink(c.path.c_str());
    }
    unlink(target.c_str());
}
