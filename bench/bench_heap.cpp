// Memory over many cycles: calls of the allocator are counted, and the heap is measured before and after.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>

#include "bench_host.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

extern "C" {
// The C library's allocator under its second name, so that malloc() can be replaced by one that counts.
void* __libc_malloc(std::size_t size);                // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* block, std::size_t size);  // NOLINT(bugprone-reserved-identifier)

static std::size_t calls = 0;

void* malloc(std::size_t size) {
    ++calls;
    return __libc_malloc(size);
}

void* realloc(void* block, std::size_t size) {
    ++calls;
    return __libc_realloc(block, size);
}
}

std::size_t allocations() {
    return calls;
}

namespace {

std::size_t resident_kib() {
    const auto statm = tarn::read_file("/proc/self/statm");
    tarn::scanner fields(statm.value_or(""));
    std::size_t pages = 0;
    if (fields.skip(1)) fields.number(pages);
    return pages * 4;
}

}  // namespace

void print_heap_growth() {
    constexpr int cycles = 10000;
    const host_counters counters;
    const std::size_t heap = ::mallinfo2().uordblks;
    const std::size_t resident = resident_kib();
    const std::size_t calls_before = allocations();
    for (int cycle = 0; cycle < cycles; ++cycle)
        one_cycle();
    std::printf("\n%d cycles: heap in use %zu -> %zu bytes, resident %zu -> %zu KiB, %zu calls of malloc\n",
                cycles, heap, ::mallinfo2().uordblks, resident, resident_kib(), allocations() - calls_before);
}
