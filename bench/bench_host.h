#pragma once

#include <cstddef>

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

/// Calls of the C library's allocator since the start of the process.
std::size_t allocations();

/// Runs cycles and prints what became of the heap and of the resident memory.
void print_heap_growth();
