#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// The split of the host's CPU time over the last interval in percent, its CPU count and load average.
struct tarn_mycustom_data_cpu {
    int ok;               ///< 1 when the record holds valid values
    float lavg;           ///< one-minute load average, from /proc/loadavg
    std::uint32_t ncpus;  ///< number of CPUs, counted at init; wide enough for hosts with more than 255
    std::uint64_t user;   ///< data: jiffies since boot; data_delta: percent of the interval, 0 to 100
    std::uint64_t nice;
    std::uint64_t system;
    std::uint64_t idle;
    std::uint64_t iowait;
    std::uint64_t irq;
    std::uint64_t softirq;
    std::uint64_t steal;
    std::uint64_t guest;   ///< also counted inside `user` by the kernel
    std::uint64_t cputot;  ///< data_delta: jiffies of all CPUs in the interval, guest included
};

/// Counts the per-CPU lines ("cpu0", "cpu1", ...) of /proc/stat; a repeated name counts once.
std::uint32_t cpu_count(std::string_view stat);

/// Parses the jiffies of the "cpu" line of /proc/stat. A field that is missing from the line keeps its value;
/// without the line all do.
void cpu_parse_stat(std::string_view stat, tarn_mycustom_data_cpu& data);

extern const tarn_operations cpu_operations;
