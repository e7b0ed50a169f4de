#pragma once

#include "record/tarn_counter.h"

/// The host's memory and swap use and its swapping rates.
struct tarn_mycustom_data_mem {
    int ok;                    ///< 1 when the record holds valid values
    std::uint64_t memtotal;    ///< kB, "MemTotal:" of /proc/meminfo
    std::uint64_t memfree;     ///< kB, "MemFree:"
    std::uint64_t memused;     ///< kB: total minus free, cached and buffers
    std::uint64_t membuffers;  ///< kB, "Buffers:"
    std::uint64_t memcached;   ///< kB, "Cached:"
    std::uint64_t swaptotal;   ///< kB, "SwapTotal:"
    std::uint64_t swapfree;    ///< kB, "SwapFree:"
    std::uint64_t swapused;    ///< kB: total minus free
    std::uint64_t swapin;  ///< data: pages since boot, "pswpin" of /proc/vmstat; data_delta: pages per second
    std::uint64_t swapout;  ///< as swapin, "pswpout"
};

extern const tarn_operations mem_operations;
