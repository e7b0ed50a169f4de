#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "docker/tarn_docker_core.h"

/// Figures of one statistics message.
struct docker_stats_t {
    int ok = 0;                  ///< 1 when the last message was found
    int ncpu = 0;                ///< processors, as of the sample before
    std::int64_t cpu_usage = 0;  ///< CPU time of the container, nanoseconds
    std::int64_t sys_usage = 0;  ///< CPU time of the host, nanoseconds
    std::int64_t pre_cpu_usage = 0;
    std::int64_t pre_sys_usage = 0;
    double cpu_usage_percent = 0;  ///< percent of one CPU between the two samples of the message
};

/// Reads one statistics message, in place. A text without an object sets `ok` to 0; one that does not parse
/// reads as zeros.
void parse_response(std::string text, docker_stats_t& stats);

/// The container's share of the time between the two samples, in percent of one CPU. Equal host totals give
/// what the division by zero gives.
double docker_cpu_percent(const docker_stats_t& stats);

/// The life of the statistics process: waits for the first container, then follows one stream of statistics
/// per container until the stop flag is set. `parent` is the pipe on which the parent tells of new
/// containers; 30 seconds after its end, which only the parent's own end brings, the process ends by itself.
void dockerThread(tarn::unique_fd parent);
