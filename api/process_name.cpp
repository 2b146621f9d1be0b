// The calling process's name as ProcessConfig knows it: the one given to
// zq_setProcessName, or else the executable's file name and its arguments
// read from /proc/self.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "internal/qvmessage_internal.h"
#include "internal/qvreport.h"
#include "internal/qvtexts.h"
#include "qvmessage.h"

namespace {

constexpr std::size_t kCmdlineSize = 128;

// Appends text to a field of `size` bytes, cutting what does not fit.
void appendCut(char* field, std::size_t size, const char* text) {
    const std::size_t used = std::strlen(field);
    if (used + 1 >= size) return;
    std::size_t n = std::strlen(text);
    if (n > size - 1 - used) n = size - 1 - used;
    std::memcpy(field + used, text, n);
    field[used + n] = '\0';
}

// Appends " <argument>" for each argument after argument zero, up to the
// first empty one. An argument that the buffer cuts off is dropped whole.
void appendArguments(char* processname, const char* cmdline, std::size_t size) {
    const char* end = cmdline + size;
    const char* arg = static_cast<const char*>(std::memchr(cmdline, '\0', size));
    if (arg == nullptr) return;
    for (++arg; arg < end && *arg != '\0';) {
        const char* terminator = static_cast<const char*>(std::memchr(arg, '\0', end - arg));
        if (terminator == nullptr) return;
        appendCut(processname, kProcessNameSize, " ");
        appendCut(processname, kProcessNameSize, arg);
        arg = terminator + 1;
    }
}

// Reads the link to the executable into processdir and splits it into the
// directory (kept in processdir, with its "/") and the file name.
int readExecutablePath(char* processdir, char* processname, int len) {
    ssize_t n = -1;
    if (len > 0) {
        n = readlink("/proc/self/exe", processdir, static_cast<std::size_t>(len));
    } else {
        errno = EINVAL;
    }
    if (n >= len) {  // the path does not fit with its terminator
        n = -1;
        errno = ENAMETOOLONG;
    }
    if (n <= 0) {
        qvreport::systemFailure(qvtext::kReadlinkFailed);
        return -1;
    }
    processdir[n] = '\0';
    char* slash = std::strrchr(processdir, '/');
    if (slash == nullptr) {
        qvreport::systemFailure(qvtext::kNoDirectoryInPath);
        return -1;
    }
    processname[0] = '\0';
    appendCut(processname, kProcessNameSize, slash + 1);
    slash[1] = '\0';
    return 0;
}

// The name given by zq_setProcessName; empty: the name from /proc/self.
char s_givenProcessName[kProcessNameSize] = "";

// The calling process's name in ProcessConfig: the given one, or else the
// one taken from /proc/self.
}  // namespace

bool ownProcessName(char (&processname)[kProcessNameSize]) {
    if (s_givenProcessName[0] != '\0') {
        std::memcpy(processname, s_givenProcessName, sizeof processname);
        return true;
    }
    char processdir[kProcessDirSize];
    return get_executable_path(processdir, processname, kProcessDirSize) == 0;
}


int get_executable_path(char* processdir, char* processname, int len) {
    if (processdir == nullptr || processname == nullptr) {
        errno = EINVAL;
        qvreport::systemFailure(qvtext::kReadlinkFailed);
        return -1;
    }
    if (readExecutablePath(processdir, processname, len) != 0) return -1;
    char cmdline[kCmdlineSize];
    std::memset(cmdline, 0, sizeof cmdline);
    const int fd = open("/proc/self/cmdline", O_RDONLY);
    const ssize_t n = fd == -1 ? -1 : read(fd, cmdline, sizeof cmdline);
    if (n < 0) {
        qvreport::systemFailure(qvtext::kCmdlineReadFailed);
        if (fd != -1) close(fd);
        return -1;
    }
    appendArguments(processname, cmdline, sizeof cmdline);
    close(fd);
    return 0;
}

int zq_setProcessName(const char* name) {
    qvreport::succeeded();
    if (name == nullptr) name = "";
    if (std::strlen(name) >= sizeof s_givenProcessName) {
        qvreport::failure(QV_ERR_ARGUMENT, "zq_setProcessName: a name of at most %d bytes\n",
                          kProcessNameSize - 1);
        return -1;
    }
    std::strcpy(s_givenProcessName, name);
    return 0;
}

