// The benchmark binary's entry point. Besides the usual console output it can
// write a Markdown report that sets every library benchmark "Lib/X" next to
// its baselines with the ratios of their times: "Bare/X", the same work on
// bare SQLite or bare IPC in the best design, and, where there are ones,
// "Locked/X", the same with the store lock's semaphore operations around
// each statement, and "Old/X", the bare pattern the library followed before:
// qv_bench --report=FILE. With repetitions the medians are reported.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

struct Timing {
    double nanoseconds;
};

// Passes every run on to the console and keeps its time per iteration (the
// median when the runs are repeated).
class KeepingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const std::string name = run.run_name.str();
            if (!median && (run.run_type != Run::RT_Iteration || medians_.count(name) != 0))
                continue;
            if (median) medians_.insert(name);
            const double perUnit = benchmark::GetTimeUnitMultiplier(run.time_unit);
            times_[name] = {run.GetAdjustedRealTime() / perUnit * 1e9};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const std::map<std::string, Timing>& times() const { return times_; }

private:
    std::map<std::string, Timing> times_;
    std::set<std::string> medians_;
};

std::string humanTime(double ns) {
    char text[32];
    if (ns >= 1e6)
        std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
    else if (ns >= 1e3)
        std::snprintf(text, sizeof text, "%.1f µs", ns / 1e3);
    else
        std::snprintf(text, sizeof text, "%.0f ns", ns);
    return text;
}

// "time | ratio" of the baseline named prefix + operation, or dashes.
std::string baselineCells(const std::map<std::string, Timing>& times, const std::string& name,
                          double library) {
    const auto baseline = times.find(name);
    if (baseline == times.end()) return "— | — |";
    char ratio[16];
    std::snprintf(ratio, sizeof ratio, "%.2f", library / baseline->second.nanoseconds);
    return humanTime(baseline->second.nanoseconds) + " | " + ratio + " |";
}

void writeReport(const std::map<std::string, Timing>& times, const std::string& file) {
    std::ofstream out(file);
    out << "| Operation | Library | Best bare | Ratio | Best bare + lock | Ratio | Old pattern | "
           "Ratio |\n"
           "|---|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const auto& [name, lib] : times) {
        if (name.rfind("Lib/", 0) != 0) continue;
        const std::string operation = name.substr(4);
        out << "| " << operation << " | " << humanTime(lib.nanoseconds) << " | "
            << baselineCells(times, "Bare/" + operation, lib.nanoseconds) << " "
            << baselineCells(times, "Locked/" + operation, lib.nanoseconds) << " "
            << baselineCells(times, "Old/" + operation, lib.nanoseconds) << "\n";
    }
}

// Takes --report=FILE out of the arguments, leaving the rest to the library.
std::string takeReportFile(int& argc, char** argv) {
    std::string file;
    int kept = 0;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--report=", 9) == 0)
            file = argv[i] + 9;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    return file;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string reportFile = takeReportFile(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    KeepingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (!reportFile.empty()) writeReport(reporter.times(), reportFile);
    return 0;
}
