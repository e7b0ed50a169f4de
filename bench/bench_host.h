#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// What one cycle of the host counters is: update, delta, document, signature. Returns the packet's size.
std::size_t one_cycle();

/// Binds and initialises the seven host counters and takes the baseline sample; frees them at the end.
class host_counters final {
  public:
    host_counters();
    ~host_counters();
    host_counters(const host_counters&) = delete;
    host_counters& operator=(const host_counters&) = delete;
};

/// The mount points that the agent measures.
std::vector<std::string> measured_mounts();

/// Opens, reads and closes the files of a cycle, walks the same directory and asks the same filesystems.
void read_same_files(const std::vector<std::string>& mounts);

/// Runs the agent for some seconds and prints what it costs.
void print_agent_cost();

/// Calls of the C library's allocator since the start of the process.
std::size_t allocations();

/// Runs cycles and prints what became of the heap and of the resident memory.
void print_heap_growth();
