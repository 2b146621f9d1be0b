// The last error of each thread, the message handler, the process name given
// by the caller and the version, on real stores and queues.
#include <sqlite3.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "process.h"
#include "qvaddied.h"
#include "qvmessage.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "qvversion.h"

using namespace qvtest;
using testing::HasSubstr;

namespace {

const char* const kRef = "ERRLD0/MMXU1$MX$TotW$mag$f";
const char* const kMissing = "ERRLD0/MMXU1$MX$None$mag$f";

// A fresh real-time store with the one value row, and the error tests' configuration.
void freshStores() {
    zq_closeRealDB();
    zq_closeConfDB();
    freshRealStore();
    execSql(realDbPath(), std::string("insert into DAValue(hashID,type,value,quality,timestamp) "
                                      "values(rowkey('") + kRef + "'),1,2.5,0,0)");
    freshConfStore();
    execSqlFile(confDbPath(), dataPath("errors.sql"));
}

// Runs op while another connection holds the real-time store exclusively.
int whileStoreHeld(const std::function<int()>& op) {
    sqlite3* holder = nullptr;
    sqlite3_open(realDbPath().c_str(), &holder);
    sqlite3_exec(holder, "begin exclusive", nullptr, nullptr, nullptr);
    const int result = op();
    sqlite3_close(holder);
    return result;
}

struct Case {
    const char* fault;
    std::function<int()> run;  // sets the fault up and runs the operation last
    int result, code;
    const char* text;  // a part of zq_lastErrorText()
    bool printed;      // whether a line went out
};

double v;
int q;
SOEINFO soe;

const Case kCases[] = {
    {"null argument", [] { return zq_getDoubDAValue1(nullptr, &v, &q); }, -1, QV_ERR_ARGUMENT,
     "zq_getDoubDAValue1: a required argument is null", true},
    {"store closed", [] { zq_closeRealDB(); return zq_saveDoubDAValue1(kRef, 1, 0); }, -1,
     QV_ERR_NOT_OPEN, "zq_saveDoubDAValue1: the real-time store is not open", true},
    {"success", [] { zq_openRealDB(); return zq_getDoubDAValue1(kRef, &v, &q); }, 0, QV_OK, "",
     false},
    {"no value row", [] { return zq_getDoubDAValue1(kMissing, &v, &q); }, -1, QV_ERR_NO_ROW,
     "zq_getDoubDAValue1: no value row for ERRLD0/MMXU1$MX$None$mag$f", false},
    {"save without row", [] { return zq_saveDoubDAValue1(kMissing, 1, 0); }, 0, QV_ERR_NO_ROW,
     "zq_saveDoubDAValue1: no value row", false},
    {"unknown process", [] { int no; zq_openConfDB(); return zq_getProcessNoByName("x", &no); },
     -1, QV_ERR_NO_ROW, "zq_getProcessNoByName: no row matches", false},
    {"store held", [] { return whileStoreHeld([] {
         return zq_addIEDRealDB(dataPath("valid_model.scd").c_str()); }); },
     -1, QV_ERR_BUSY, "database is locked", true},
    {"no model file", [] { return zq_addIEDRealDB("/nonexistent.scd"); }, -2, QV_ERR_MODEL,
     "cid 解析出错.", true},
    {"send before publish", [] { return zq_sendSoeMsg(&soe); }, 0, QV_ERR_NO_ROUTE,
     "zq_sendSoeMsg: no routes loaded (call zq_publisherMsg first)", true},
    {"second send before publish", [] { return zq_sendSoeMsg(&soe); }, 0, QV_ERR_NO_ROUTE,
     "no routes loaded", false},
    {"name too long", [] { return zq_setProcessName(std::string(128, 'a').c_str()); }, -1,
     QV_ERR_ARGUMENT, "zq_setProcessName: a name of at most 127 bytes", true},
    {"name not configured", [] { zq_setProcessName("nobody"); return zq_publisherMsg(); }, -1,
     QV_ERR_NO_ROUTE, "no process named \"nobody\" in ProcessConfig", true},
    {"store missing", [] { zq_closeRealDB(); removeStore(realDbPath()); return zq_openRealDB(); },
     -1, QV_ERR_IO, "realtime.db does not exist: create it with qvtool init", true},
};

}  // namespace

// Each failure sets its code and text; the handler gets every line and
// standard error none, until NULL gives the lines back to standard error.
TEST(Errors, EachFailureSetsItsCodeAndTheHandlerGetsEveryLine) {
    freshStores();
    ASSERT_EQ(zq_openRealDB(), 0);
    std::vector<std::pair<int, std::string>> lines;
    zq_setMessageHandler([](int code, const char* text, void* context) {
        static_cast<decltype(lines)*>(context)->emplace_back(code, text);
    }, &lines);
    CaptureStderr();
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.fault);
        const size_t before = lines.size();
        EXPECT_EQ(c.run(), c.result);
        EXPECT_EQ(zq_lastErrorCode(), c.code);
        EXPECT_THAT(zq_lastErrorText(), HasSubstr(c.text));
        ASSERT_EQ(lines.size() > before, c.printed);
        if (c.printed) {
            EXPECT_EQ(lines.back(), std::make_pair(c.code, std::string(zq_lastErrorText())));
        }
    }
    EXPECT_EQ(access(realDbPath().c_str(), F_OK), -1);  // the failed open made no file
    zq_setMessageHandler(nullptr, nullptr);
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    zq_setProcessName(std::string(128, 'a').c_str());
    EXPECT_EQ(GetCapturedStderr(), "zq_setProcessName: a name of at most 127 bytes\n");
    zq_setProcessName(nullptr);
}

// Two threads failing differently at once each see their own failure.
TEST(Errors, EachThreadSeesItsOwnLastError) {
    freshStores();
    ASSERT_EQ(zq_openRealDB(), 0);
    zq_setMessageHandler([](int, const char*, void*) {}, nullptr);
    std::atomic<int> wrong{0};
    auto repeat = [&wrong](const char* ref, int code) {
        for (int i = 0; i < 2000; ++i) {
            zq_getDoubDAValue1(ref, &v, &q);
            if (zq_lastErrorCode() != code) ++wrong;
        }
    };
    std::thread nullArguments(repeat, nullptr, QV_ERR_ARGUMENT);
    std::thread missingRows(repeat, kMissing, QV_ERR_NO_ROW);
    repeat(kRef, QV_OK);
    nullArguments.join();
    missingRows.join();
    zq_setMessageHandler(nullptr, nullptr);
    EXPECT_EQ(wrong, 0);
    zq_closeRealDB();
}

// A store file without the model tables is refused and left as it was.
TEST(Errors, ATableLessStoreIsRefusedUnchanged) {
    zq_closeRealDB();
    removeStore(realDbPath());
    execSql(realDbPath(), "create table Other(x)");
    EXPECT_EQ(zq_openRealDB(), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_CORRUPT);
    EXPECT_EQ(zq_lastErrorText(), "zq_openRealDB: " + realDbPath() +
                                      " has no model tables: create it with qvtool init");
    EXPECT_EQ(query(realDbPath(), "pragma journal_mode"), Rows{{"delete"}});
    EXPECT_EQ(zq_saveDoubDAValue(kRef, 1), -1);  // and nothing stays open
}

// A process whose command line is not its configured name publishes under
// the name it gives itself.
TEST(Errors, AGivenProcessNameRoutesTheProcess) {
    freshStores();
    const int queue = msgget(6 + QV_QUEUE_KEY_OFFSET, IPC_CREAT | 0666);
    EXPECT_EQ(runInChild([] {
        SOEINFO sent{};
        sent.type = 7;
        return zq_setProcessName("acq given name") | zq_publisherMsg() | zq_sendSoeMsg(&sent);
    }), 0);
    struct { long type; MSGINFO rest; } received{};
    EXPECT_NE(msgrcv(queue, &received, sizeof(MSGINFO), 0, IPC_NOWAIT), -1);
    EXPECT_EQ(received.type & 0xFFFFFFFF, SOEINFO_TYPE);
    msgctl(queue, IPC_RMID, nullptr);
}

TEST(Errors, TheVersionAtRunTimeIsTheHeadersVersion) {
    EXPECT_STREQ(zq_version(), QV_VERSION);
    EXPECT_EQ(zq_lastErrorCode(), QV_OK);
}
