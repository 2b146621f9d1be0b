// Test support: qvtool of the test build run as a subprocess, with what it
// printed on stdout and stderr. Header-only: QV_TOOL is the test binary's.
#ifndef QVTOOL_RUN_H
#define QVTOOL_RUN_H

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "process.h"
#include "qvtest.h"

namespace qvtest {

using Words = std::vector<std::string>;
using ToolRun = Spawn::Result;

// The tool's file name: the process name it sends under.
inline std::string toolName() {
    const std::string path = QV_TOOL;
    return path.substr(path.rfind('/') + 1);
}

// One run of the tool, its streams pipes; beforeExec runs in the child (to
// point stdout elsewhere).
inline ToolRun tool(const Words& args, const std::function<void()>& beforeExec = nullptr) {
    Spawn::Options options;
    options.beforeExec = beforeExec;
    const ToolRun run = Spawn(QV_TOOL, args, options).finish();
    EXPECT_NE(run.code, -1) << "the tool hung or crashed";
    return run;
}

// The lines of a tool's output, without their newlines.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// A tool's JSON output; a discarded value when it is no JSON.
inline nlohmann::ordered_json parsed(const std::string& text) {
    return nlohmann::ordered_json::parse(text, nullptr, false);
}

}  // namespace qvtest

#endif  // QVTOOL_RUN_H
