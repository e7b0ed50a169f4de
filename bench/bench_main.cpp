// Runs the benchmarks and prints one table of them; then measures heap growth and the real agent.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_host.h"
#include "captures.h"

namespace {

/// Prints to the console and keeps the times, medians where a benchmark is repeated.
class time_keeper final : public benchmark::ConsoleReporter {
  public:
    time_keeper() : ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name.empty() || run.aggregate_name == "median")
                times_us[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
    }
    std::map<std::string, double> times_us;
};

/// Prints a time; blanks for a benchmark that has not run.
void print_time(const std::map<std::string, double>& times_us, const std::string& name, int width) {
    const auto found = times_us.find(name);
    if (found != times_us.end()) {
        std::printf("%*.1f", width, found->second);
    } else {
        std::printf("%*s", width, "");
    }
}

/// One row for the host and one for each kind of service.
void print_table(const std::map<std::string, double>& times_us) {
    constexpr int narrow = 12;
    constexpr int wide = 20;
    std::printf("\n%-14s%12s%12s%20s\n", "microseconds", "own work", "whole", "bare system calls");
    std::printf("%-14s%12s", "host cycle", "");
    print_time(times_us, "cycle", narrow);
    print_time(times_us, "floor", wide);
    for (const captured_kind& kind : captured_kinds()) {
        std::printf("\n%-14s", kind.name.c_str());
        print_time(times_us, "own/" + kind.name, narrow);
        print_time(times_us, "exchange/" + kind.name, narrow);
        print_time(times_us, "bare/" + kind.name, wide);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    time_keeper reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print_table(reporter.times_us);
    print_heap_growth();
    print_agent_cost();
    print_whole_agent();
    return 0;
}
