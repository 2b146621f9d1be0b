// Test support: a writer outside the library that holds the real-time store.
#ifndef QVTEST_OUTSIDE_WRITER_H
#define QVTEST_OUTSIDE_WRITER_H

#include <sqlite3.h>
#include <unistd.h>

#include <memory>

#include "process.h"
#include "qvtest.h"

namespace qvtest {

// A writer outside the library: a process of its own (a child forked while
// this process held a transaction would inherit SQLite's record of it) that
// holds a write transaction on the store until release().
class OutsideWriter {
public:
    OutsideWriter() {
        if (pipe(held_) != 0 || pipe(release_) != 0) return;
        child_ = std::make_unique<Child>([this] {
            sqlite3* outside = nullptr;
            char c = 'h';
            if (sqlite3_open(realDbPath().c_str(), &outside) != SQLITE_OK ||
                sqlite3_exec(outside, "begin immediate; update DAValue set quality=7 where rowid=1",
                             nullptr, nullptr, nullptr) != SQLITE_OK ||
                write(held_[1], &c, 1) != 1 || read(release_[0], &c, 1) != 1)
                return 1;
            return sqlite3_exec(outside, "commit", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 1;
        });
        char c;
        holding_ = read(held_[0], &c, 1) == 1;
    }
    ~OutsideWriter() {
        for (int fd : {held_[0], held_[1], release_[0], release_[1]}) close(fd);
    }
    bool holding() const { return holding_; }
    // Commits; true once the writer ended well.
    bool release() { return write(release_[1], "r", 1) == 1 && child_->wait(10000) == 0; }

private:
    int held_[2] = {-1, -1}, release_[2] = {-1, -1};
    bool holding_ = false;
    std::unique_ptr<Child> child_;
};

}  // namespace qvtest

#endif  // QVTEST_OUTSIDE_WRITER_H
