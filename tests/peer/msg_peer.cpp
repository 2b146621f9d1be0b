// A process for the messaging tests. Its role comes from QV_MSG_PEER_MODE, so
// that its arguments stay free to form its process name:
//   path   prints the directory and the process name that the library sees;
//   sync   subscribes in this thread, writes every record to stdout; async
//          subscribes with a receiving thread and ends at stdin EOF; a failed
//          subscription prints its result as text instead;
//   pub    runs commands from stdin (one byte and a whole MSGINFO) and writes
//          each int result to stdout: 'P' zq_publisherMsg, 'M' zq_sendMsg,
//          'K' the kind's own operation, 'D' zq_sendDoubSoeMsg; 'B' (at once)
//          and 'T' (one a millisecond) send generalMsg.dataLen general
//          messages numbered 1, 2, ... in generalMsg.type and answer how many
//          sends returned -1.
// QV_MSG_PEER_UNPRIVILEGED=1 first drops CAP_SYS_RESOURCE, so that the peer
// meets the system's queue limit.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "internal/qvmessage_internal.h"
#include "qvmessage.h"

namespace {

void writeOut(const void* data, size_t size) {
    if (std::fwrite(data, size, 1, stdout) != 1 || std::fflush(stdout) != 0) std::_Exit(1);
}

void writeRecord(LPMSGINFO record) { writeOut(record, sizeof(MSGINFO)); }

int sendWithKindOperation(MSGINFO& record) {
    UNIONMSG& p = record.msgInfo;
    switch (record.msgType) {
        case MSGFILE_TYPE: return zq_sendFileMsg(&p.msgFile);
        case SOEINFO_TYPE: return zq_sendSoeMsg(&p.soeInfo);
        case PROTECTINFO_TYPE: return zq_sendProMsg(&p.protectInfo);
        case SBODOSAVEINFO_TYPE: return zq_sendSBODOSaveMsg(&p.sbodoInfo);
        case GENERALMSG_TYPE: return zq_sendGeneralMsg(&p.generalMsg);
        case SBOCTRL_TYPE: return zq_sendSBOCtrlMsg(&p.sboCtrlInfo);
        case SBOCTRLRET_TYPE: return zq_sendSBOCtrlRetMsg(&p.sboCtrlRetInfo);
        case DIGITALOUT_TYPE: return zq_sendDigitalOutMsg(&p.digitalOutInfo);
        case DIGITALOUTRET_TYPE: return zq_sendDigitalOutRetMsg(&p.digitalOutRetInfo);
        case FAULTINFO_TYPE: return zq_sendFaultMsg(&p.faultInfo);
        case TOPOINFO_TYPE: return zq_sendTopoMsg(&p.topoInfo);
        case REGISTERINFO_TYPE: return zq_sendRegisterMsg(&p.registerInfo);
        case UPDATEFILE_TYPE: return zq_sendUpdateFileMsg(&p.updateFile);
        default: return -100;
    }
}

// Sends the numbered burst; paced sends keep to a 1 ms grid.
int sendBurst(MSGINFO& record, bool paced) {
    GENERALMSG message = record.msgInfo.generalMsg;
    int failed = 0;
    timespec due;
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int number = 1; number <= record.msgInfo.generalMsg.dataLen; ++number) {
        message.type = number;
        if (zq_sendGeneralMsg(&message) != 0) ++failed;
        if (!paced) continue;
        due.tv_nsec += 1000000;
        if (due.tv_nsec >= 1000000000) due.tv_sec += 1, due.tv_nsec -= 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
    }
    return failed;
}

int runCommand(char command, MSGINFO& record) {
    switch (command) {
        case 'P': return zq_publisherMsg();
        case 'M': return zq_sendMsg(&record);
        case 'K': return sendWithKindOperation(record);
        case 'D': return zq_sendDoubSoeMsg(&record.msgInfo.soeInfo);
        case 'B': return sendBurst(record, false);
        case 'T': return sendBurst(record, true);
        default: return -100;
    }
}

int publish() {
    char command = 0;
    MSGINFO record;
    while (std::fread(&command, 1, 1, stdin) == 1 &&
           std::fread(&record, sizeof record, 1, stdin) == 1) {
        const int result = runCommand(command, record);
        writeOut(&result, sizeof result);
    }
    return 0;
}

int printPath() {
    char dir[1024], name[128];
    if (get_executable_path(dir, name, sizeof dir) != 0) return 1;
    std::printf("%s\n%s\n", dir, name);
    return 0;
}

// Prints the subscription's result once it returns: at once when it failed,
// for the async form when stdin ends.
int subscribe(bool async) {
    const int result = async ? zq_subscriberMsg_async(writeRecord) : zq_subscriberMsg_sync(writeRecord);
    while (result == 0 && std::getchar() != EOF) continue;
    std::printf("subscription returned %d\n", result);
    return 0;
}

void dropSysResourceCapability() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &header, data) != 0) std::_Exit(2);
    const unsigned bit = 1u << CAP_SYS_RESOURCE;  // below 32: in the first word
    data[0].effective &= ~bit;
    data[0].permitted &= ~bit;
    data[0].inheritable &= ~bit;
    if (syscall(SYS_capset, &header, data) != 0) std::_Exit(2);
}

}  // namespace

int main() {
    const char* unprivileged = std::getenv("QV_MSG_PEER_UNPRIVILEGED");
    if (unprivileged != nullptr && unprivileged[0] == '1') dropSysResourceCapability();
    const std::string role = std::getenv("QV_MSG_PEER_MODE") ? std::getenv("QV_MSG_PEER_MODE") : "";
    if (role == "path") return printPath();
    if (role == "pub") return publish();
    return subscribe(role == "async");
}
