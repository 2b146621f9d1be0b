// Who may reach the store files that `init` makes: a path that is a link or
// that another user owns is refused, and a new file gets the build's access
// mode (QV_IPC_MODE) whatever the umask.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qvtool.h"

namespace qvtool {

namespace {

// SQLite makes its journals beside the store with the store's own mode;
// ones that a stranger left there would be used as they are.
const char* const kStoreFileSuffixes[] = {"", "-journal", "-wal", "-shm"};

}  // namespace

bool storePathAllowed(const std::string& path) {
    for (const char* suffix : kStoreFileSuffixes) {
        const std::string file = path + suffix;
        struct stat info;
        if (lstat(file.c_str(), &info) != 0) continue;
        if (S_ISLNK(info.st_mode)) {
            complain("refused: %s is a symbolic link; remove it and run init again", file.c_str());
            return false;
        }
        if (info.st_uid != geteuid()) {
            complain("refused: %s belongs to another user (uid %u); remove it and run init again",
                     file.c_str(), static_cast<unsigned>(info.st_uid));
            return false;
        }
    }
    return true;
}

bool createStoreFile(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        QV_IPC_MODE);
    if (fd == -1 && errno == EEXIST) return true;
    // The umask may have taken bits off the mode that open was given.
    const bool made = fd != -1 && fchmod(fd, QV_IPC_MODE) == 0;
    if (!made) complain("cannot create %s: %s", path.c_str(), std::strerror(errno));
    if (fd != -1) close(fd);
    return made;
}

unsigned directoryMode() {
    // Whoever may read the files may also enter the directory.
    return QV_IPC_MODE | ((QV_IPC_MODE & 0444) >> 2);
}

}  // namespace qvtool
