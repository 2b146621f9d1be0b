// Test support: forked children with a time limit, and polling.
#include "process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace qvtest {

bool eventually(const std::function<bool()>& done, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;; usleep(1000)) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
    }
}

Child::Child(const std::function<int()>& body) {
    std::fflush(nullptr);  // nothing buffered is written twice
    pid_ = fork();
    if (pid_ == 0) _exit(body());
    ended_ = pid_ < 0;
}

Child::~Child() { signal(SIGKILL); }

bool Child::running() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = true;
    return !ended_;
}

int Child::wait(int timeoutMs) {
    if (!eventually([this] { return !running(); }, timeoutMs)) {
        signal(SIGKILL);
        return -1;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

void Child::signal(int signo) {
    if (ended_) return;
    kill(pid_, signo);
    if (signo != SIGKILL) return;
    waitpid(pid_, &status_, 0);
    ended_ = true;
}

bool Child::pause() {
    int status = 0;
    return !ended_ && kill(pid_, SIGSTOP) == 0 && waitpid(pid_, &status, WUNTRACED) == pid_ &&
           WIFSTOPPED(status);
}

int runInChild(const std::function<int()>& body, int timeoutMs) {
    Child child(body);
    return child.wait(timeoutMs);
}

}  // namespace qvtest
