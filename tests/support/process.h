// Test support: other processes. A forked child with a time limit, a program
// run with pipes, and a poll that waits for a condition, so that no test hangs
// on a lost peer.
#ifndef QVTEST_PROCESS_H
#define QVTEST_PROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

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

// How a program is run: see Spawn.
struct SpawnOptions {
    std::string argv0;                 // the program's path when empty
    std::vector<std::string> env;      // NAME=value, over this process's environment
    int limitMs = 30000;
    std::function<void()> beforeExec;  // runs in the child just before exec
};

// A program run in a child process. Each standard stream is a pipe to this
// process. Every wait on the program (a read, its
// end) gives up after limitMs, and a program still running then is killed,
// as it is when the object goes.
class Spawn {
public:
    using Options = SpawnOptions;
    // Its exit code (-1 when a signal or the time limit ended it) and what
    // its stdout and stderr pipes still held.
    struct Result {
        int code = -1;
        std::string out, err;
    };

    Spawn(const std::string& program, const std::vector<std::string>& args, Options options = {});
    ~Spawn();
    Spawn(const Spawn&) = delete;
    Spawn& operator=(const Spawn&) = delete;

    bool write(const void* data, size_t size);
    // Reads from the stdout (1) or stderr (2) pipe until size bytes came, the
    // pipe ended or stayed silent for the time limit: the bytes read.
    size_t read(void* buffer, size_t size, int stream = 1);
    std::string readLine(int stream = 1);  // the newline included
    // Closes stdin and waits for the program to end by itself.
    Result finish();
    // Kills the program.
    Result stop();
    bool pause() { return child_->pause(); }
    void resume() { child_->resume(); }

private:
    Result collect();
    int limitMs_;
    int fds_[3] = {-1, -1, -1};  // this process's ends of the pipes
    std::unique_ptr<Child> child_;
};

}  // namespace qvtest

#endif  // QVTEST_PROCESS_H
