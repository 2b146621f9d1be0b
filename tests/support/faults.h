// Test support: faults under the stores. A small file system of their own
// that can be filled, and store files that are garbage, empty or read-only.
// Mounting needs root: mounted() and done() say whether it worked.
#ifndef QVTEST_FAULTS_H
#define QVTEST_FAULTS_H

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "qvtest.h"

namespace qvtest {

// A tmpfs of `size` over the store directory for the object's life.
class SmallStoreDir {
public:
    explicit SmallStoreDir(const std::string& size = "1m") {
        mkdir(QV_TEST_STORE_DIR, 0755);
        mounted_ = geteuid() == 0 &&
                   mount("tmpfs", QV_TEST_STORE_DIR, "tmpfs", 0, ("size=" + size).c_str()) == 0;
    }
    ~SmallStoreDir() {
        if (mounted_) umount2(QV_TEST_STORE_DIR, MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    bool resize(const std::string& size) {
        return mount("tmpfs", QV_TEST_STORE_DIR, "tmpfs", MS_REMOUNT, ("size=" + size).c_str()) == 0;
    }
    // A filler file takes all the room (the file system is full).
    void fill() {
        static const char zeros[1 << 16] = {};
        const int fd = open(filler().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        while (write(fd, zeros, sizeof zeros) > 0) {
        }
        close(fd);
    }
    void makeRoom() { unlink(filler().c_str()); }

private:
    static std::string filler() { return std::string(QV_TEST_STORE_DIR) + "/filler"; }
    bool mounted_ = false;
};

enum class Damage { Garbage, Empty, ReadOnly };

// Damages a store file whose connections are closed: its journals go and it
// holds bytes that are no database, or none; or it stays as it is but is
// read-only for the object's life (a read-only bind mount: root ignores modes).
class DamagedStore {
public:
    DamagedStore(const std::string& path, Damage damage) : path_(path) {
        if (damage == Damage::ReadOnly) {
            mounted_ = mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
            done_ = mounted_ && mount(path.c_str(), path.c_str(), nullptr,
                                      MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
            return;
        }
        removeStore(path);
        std::string bytes;
        for (int i = 0; damage == Damage::Garbage && i < 8192; ++i) bytes += char(i * 37 + 11);
        done_ = bool(std::ofstream(path, std::ios::binary) << bytes);
    }
    ~DamagedStore() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    }
    bool done() const { return done_; }

private:
    std::string path_;
    bool mounted_ = false, done_ = false;
};

}  // namespace qvtest

#endif  // QVTEST_FAULTS_H
