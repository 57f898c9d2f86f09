// What the benchmark programs share: their own shared-memory prefix, and the medians of the runs
// for the ratios printed at the end (CPU time, so that a busy machine moves both sides alike).
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace Tracing::Bench {

// So that a benchmark never meets the registry or the buffers of a real installation.
inline void UseOwnPrefix() {
    const std::string prefix = "paxlbench" + std::to_string(getpid());
    setenv("TRACE_PREFIX", prefix.c_str(), 1);
}

// The whole main of a benchmark program that prints no ratios.
inline int RunAll(int argc, char** argv) {
    UseOwnPrefix();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// Keeps the median CPU time per call of every benchmark, by "name/threads".
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // A single repetition has no aggregates: its one run stands for the median.
            const std::string key = run.run_name.function_name + "/" + std::to_string(run.threads);
            if (run.aggregate_name == "median" || (run.aggregate_name.empty() && !medians.contains(key)))
                medians[key] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double Median(const std::string& name, int threads = 1) {
        return medians[name + "/" + std::to_string(threads)];
    }
    std::map<std::string, double> medians;
};

}  // namespace Tracing::Bench
