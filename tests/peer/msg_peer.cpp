// A process for the messaging tests. Its role comes from the environment
// (QV_MSG_PEER_MODE), so that its arguments stay free to form the process
// name under which the configuration store knows it:
//   path   prints the directory and the process name that the library sees;
//   sync   subscribes in this thread, writes every record to stdout;
//   async  subscribes with a receiving thread, same output, ends at stdin EOF;
//          a failed subscription prints its result as text instead;
//   pub    sends what stdin asks for and answers each command with the int
//          result on stdout. A command is one byte and a whole MSGINFO:
//          'P' zq_publisherMsg, 'M' zq_sendMsg, 'K' the kind's own operation,
//          'D' zq_sendDoubSoeMsg.
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

int runCommand(char command, MSGINFO& record) {
    switch (command) {
        case 'P': return zq_publisherMsg();
        case 'M': return zq_sendMsg(&record);
        case 'K': return sendWithKindOperation(record);
        case 'D': return zq_sendDoubSoeMsg(&record.msgInfo.soeInfo);
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
    char dir[1024];
    char name[128];
    if (get_executable_path(dir, name, sizeof dir) != 0) return 1;
    std::printf("%s\n%s\n", dir, name);
    return 0;
}

// Prints the subscription's result once it returns: at once when it failed,
// for the async form when stdin ends.
int subscribe(bool async) {
    const int result =
        async ? zq_subscriberMsg_async(writeRecord) : zq_subscriberMsg_sync(writeRecord);
    while (result == 0 && std::getchar() != EOF) {
    }
    std::printf("subscription returned %d\n", result);
    return 0;
}

}  // namespace

int main() {
    const char* mode = std::getenv("QV_MSG_PEER_MODE");
    const std::string role = mode ? mode : "";
    if (role == "path") return printPath();
    if (role == "pub") return publish();
    return subscribe(role == "async");
}
