// Runs the benchmarks and compares the cycle with its floor; then measures heap growth and the real agent.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_host.h"

namespace {

/// Prints to the console and keeps the medians.
class median_reporter final : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median")
                medians[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
    }
    std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    median_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto cycle = reporter.medians.find("cycle");
    const auto floor = reporter.medians.find("floor");
    if (cycle != reporter.medians.end() && floor != reporter.medians.end()) {
        std::printf("\ncycle / floor = %.2f (wanted: at most 1)\n", cycle->second / floor->second);
    }
    print_heap_growth();
    print_agent_cost();
    return 0;
}
