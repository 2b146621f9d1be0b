// Test support: other processes. A forked child with a time limit, and a
// poll that waits for a condition, so that no test hangs on a lost peer.
#ifndef QVTEST_PROCESS_H
#define QVTEST_PROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <functional>

namespace qvtest {

// Polls every millisecond until done() holds: false once timeoutMs passed.
bool eventually(const std::function<bool()>& done, int timeoutMs = 5000);

// A forked child that runs `body` and exits with its result (0 for "held").
// The child owns nothing of the parent's test: it reports by its exit code,
// pipes or files. A child still running when the object goes is killed.
class Child {
public:
    explicit Child(const std::function<int()>& body);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    // The child's exit code once it ends; -1 when a signal ended it or it was
    // still running after timeoutMs (it is killed then).
    int wait(int timeoutMs = 30000);
    // Sends the signal; SIGKILL also reaps the child.
    void signal(int signo);
    // Stops the child (SIGSTOP) and returns once it is stopped.
    bool pause();
    void resume() { signal(SIGCONT); }

private:
    pid_t pid_ = -1;
    int status_ = 0;
    bool ended_ = false;
};

// Runs body in a child and waits for it: its exit code, or -1 when it was
// killed by a signal or ran over the time limit.
int runInChild(const std::function<int()>& body, int timeoutMs = 30000);

}  // namespace qvtest

#endif  // QVTEST_PROCESS_H
