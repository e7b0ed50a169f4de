#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Runs one cycle of the host counters: update, delta, report, signature. Returns the packet size in bytes.
std::size_t one_cycle();

/// Binds and initialises the seven host counters and runs two cycles; frees the counters at the end.
class host_counters final {
  public:
    host_counters();
    ~host_counters();
    host_counters(const host_counters&) = delete;
    host_counters& operator=(const host_counters&) = delete;
};

/// The mount points that the agent measures.
std::vector<std::string> measured_mounts();

/// Opens, reads and closes the files of a cycle, reads the same directory and queries the same filesystems.
void read_same_files(const std::vector<std::string>& mounts);

/// Runs the agent for 24 seconds and prints its CPU time and memory.
void print_agent_cost();

/// Runs the agent with every kind of service and prints its memory, and how long it took from its start to
/// its first sample.
void print_whole_agent();

/// The number of calls of the C library's allocator since the start of the process.
std::size_t allocations();

/// Runs 10000 cycles and prints how the heap and the resident memory have changed.
void print_heap_growth();
