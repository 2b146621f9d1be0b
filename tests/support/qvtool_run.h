// Test support: qvtool of the test build run as a subprocess, with what it
// printed on stdout and stderr. Header-only: QV_TOOL is the test binary's.
#ifndef QVTOOL_RUN_H
#define QVTOOL_RUN_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "qvtest.h"

namespace qvtest {

using Words = std::vector<std::string>;

struct ToolRun {
    int code = -1;
    std::string out, err;
};

inline std::string storeFile(const std::string& name) {
    return std::string(QV_TEST_STORE_DIR) + "/" + name;
}

// The tool's file name: the process name it sends under.
inline std::string toolName() {
    const std::string path = QV_TOOL;
    return path.substr(path.rfind('/') + 1);
}

inline std::string fileText(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Starts the tool with stdout and stderr going to the given files; inChild
// runs in the child just before exec (to point stdout elsewhere). The alarm
// outlives exec: a tool that hangs ends after 30 s instead of hanging the test.
inline pid_t startTool(const Words& args, const std::string& out, const std::string& err,
                       const std::function<void()>& inChild = nullptr) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
        if (inChild) inChild();
        std::vector<char*> argv{const_cast<char*>(QV_TOOL)};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        alarm(30);
        execv(QV_TOOL, argv.data());
        _exit(127);
    }
    return pid;
}

inline ToolRun finishTool(pid_t pid, const std::string& out, const std::string& err) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "the tool hung or crashed";
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileText(out), fileText(err)};
}

inline ToolRun tool(const Words& args, const std::function<void()>& inChild = nullptr) {
    const std::string out = storeFile("tool.out"), err = storeFile("tool.err");
    return finishTool(startTool(args, out, err, inChild), out, err);
}

}  // namespace qvtest

#endif  // QVTOOL_RUN_H
