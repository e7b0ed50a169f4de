#pragma once

#include <cstdint>
#include <string>

#include "support/tarn_files.h"

/// Figures of one statistics message.
struct docker_stats_t {
    int ok = 0;                      ///< 1 when the last text held a message
    int ncpu = 0;                    ///< CPUs at the previous sample
    std::int64_t cpu_usage = 0;      ///< CPU time of the container, nanoseconds
    std::int64_t sys_usage = 0;      ///< CPU time of the host, nanoseconds
    std::int64_t pre_cpu_usage = 0;  ///< the same at the previous sample
    std::int64_t pre_sys_usage = 0;
    double cpu_usage_percent = 0;  ///< percent of one CPU between the two samples
};

/// Parses one statistics message. A text without an object sets `ok` to 0; an object that is not valid JSON
/// reads as zeros.
void parse_response(std::string text, docker_stats_t& stats);

/// CPU usage of the container between the two samples, percent of one CPU. Infinite or not a number when the
/// host's totals are equal.
double docker_cpu_percent(const docker_stats_t& stats);

/// Runs the statistics process: waits for the first container, then follows one stream of statistics per
/// container until the stop flag is set. `parent` is a pipe on which the parent announces containers. The
/// process also ends 30 seconds after the parent has closed the pipe, which happens only when the parent
/// ends.
void dockerThread(tarn::unique_fd parent);
