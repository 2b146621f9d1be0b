// Test support: forked children with a time limit, programs run with pipes,
// and polling.
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>

extern char** environ;

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

namespace {

// The texts as an argv-style array, ended by a null pointer.
std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(&text[0]);
    result.push_back(nullptr);
    return result;
}

}  // namespace

Spawn::Spawn(const std::string& program, const std::vector<std::string>& arguments, Options options)
    : limitMs_(options.limitMs) {
    std::signal(SIGPIPE, SIG_IGN);  // a program that died fails the test, not the binary
    int childEnds[3] = {-1, -1, -1};
    for (int fd = 0; fd < 3; ++fd) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) == 0) {
            childEnds[fd] = ends[fd == 0 ? 0 : 1];
            fds_[fd] = ends[fd == 0 ? 1 : 0];
        }
    }
    std::vector<std::string> args{options.argv0.empty() ? program : options.argv0}, env = options.env;
    args.insert(args.end(), arguments.begin(), arguments.end());
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry, name = text.substr(0, text.find('=') + 1);
        if (std::none_of(options.env.begin(), options.env.end(),
                         [&](const std::string& given) { return given.rfind(name, 0) == 0; }))
            env.push_back(text);
    }
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    child_.reset(new Child([&] {
        std::signal(SIGPIPE, SIG_DFL);
        for (int fd = 0; fd < 3; ++fd) dup2(childEnds[fd], fd);
        if (options.beforeExec) options.beforeExec();
        execve(program.c_str(), argv.data(), envp.data());
        return 127;
    }));
    for (int fd : childEnds) close(fd);
}

Spawn::~Spawn() {
    child_.reset();
    for (int fd : fds_) close(fd);
}

bool Spawn::write(const void* data, size_t size) {
    return ::write(fds_[0], data, size) == static_cast<ssize_t>(size);
}

size_t Spawn::read(void* buffer, size_t size, int stream) {
    size_t done = 0;
    pollfd ready{fds_[stream], POLLIN, 0};
    while (ready.fd >= 0 && done < size && poll(&ready, 1, limitMs_) > 0) {
        const ssize_t n = ::read(ready.fd, static_cast<char*>(buffer) + done, size - done);
        if (n <= 0) break;
        done += size_t(n);
    }
    return done;
}

std::string Spawn::readLine(int stream) {
    std::string line;
    for (char c = 0; c != '\n' && read(&c, 1, stream) == 1;) line += c;
    return line;
}

// Reads both output pipes to their ends, or until they stay silent for the limit.
Spawn::Result Spawn::collect() {
    Result result;
    std::string* texts[] = {&result.out, &result.err};
    pollfd ready[] = {{fds_[1], POLLIN, 0}, {fds_[2], POLLIN, 0}};
    while ((ready[0].fd >= 0 || ready[1].fd >= 0) && poll(ready, 2, limitMs_) > 0) {
        for (int i = 0; i < 2; ++i) {
            char chunk[4096];
            const ssize_t n = ready[i].revents != 0 ? ::read(ready[i].fd, chunk, sizeof chunk) : -2;
            if (n > 0) texts[i]->append(chunk, size_t(n));
            if (n == 0 || n == -1) ready[i].fd = -1;
        }
    }
    result.code = child_->wait(limitMs_);
    return result;
}

Spawn::Result Spawn::finish() {
    close(fds_[0]);
    fds_[0] = -1;
    return collect();
}

Spawn::Result Spawn::stop() {
    child_->signal(SIGKILL);
    return collect();
}

}  // namespace qvtest
