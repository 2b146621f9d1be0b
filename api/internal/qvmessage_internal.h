// Internal operations of the messaging unit: not exported from the shared
// library and not installed; declared here for the tests and benchmarks.
#ifndef QV_INTERNAL_QVMESSAGE_INTERNAL_H
#define QV_INTERNAL_QVMESSAGE_INTERNAL_H

// Fills processdir (len bytes) with the executable's directory, ending in
// "/", and processname (128 bytes) with the process name: the executable's
// file name and each argument after one blank, at most 127 bytes.
int get_executable_path(char* processdir, char* processname, int len);

// The sizes of a process name and of the executable's directory.
constexpr int kProcessNameSize = 128;
constexpr int kProcessDirSize = 1024;

// The calling process's name in ProcessConfig: the one given to
// zq_setProcessName, or else the one taken from /proc/self (false, after a
// line, when that cannot be read).
bool ownProcessName(char (&processname)[kProcessNameSize]);

// Raises a queue's capacity to `wanted` bytes, or else as far as the system
// lets this process; the capacity it has then, 0 when it cannot be read.
unsigned long raiseQueueCapacity(int msgid, unsigned long wanted);

// The receiving thread of zq_subscriberMsg_async; never returns.
void* recv_msg_thread(void* arg);

#endif  // QV_INTERNAL_QVMESSAGE_INTERNAL_H
