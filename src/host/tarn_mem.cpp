// Reads /proc/meminfo (lines of a name and a size in kB) and the two counts of swapped pages in /proc/vmstat
// (lines of a name and a total).
#include "host/tarn_mem.h"

#include <cinttypes>
#include <cstdio>

#include "record/tarn_operations.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_mem = tarn_mycustom_data_mem;
using enum tarn::rule;

constexpr auto figures = tarn::figures_of<data_mem>({
    tarn::reported<&data_mem::ok>("ok"),
    tarn::number<&data_mem::memfree>("MemFree:", "free"),
    tarn::reported<&data_mem::memused>("used"),
    tarn::number<&data_mem::membuffers>("Buffers:", "buffers"),
    tarn::number<&data_mem::memcached>("Cached:", "cached"),
    tarn::number<&data_mem::swapfree>("SwapFree:", "swapfree"),
    tarn::reported<&data_mem::swapused>("swapused"),
    tarn::number<&data_mem::swapin, per_second>("pswpin", "swapin"),
    tarn::number<&data_mem::swapout, per_second>("pswpout", "swapout"),
    // Not reported.
    tarn::number<&data_mem::memtotal>("MemTotal:"),
    tarn::number<&data_mem::swaptotal>("SwapTotal:"),
});

/// Reads pairs of a word and a number. The unit "kB" is a word without a number, which is skipped.
void parse_pairs(std::string_view text, data_mem& data) {
    tarn::scanner pairs(text);
    for (std::string_view name = pairs.word(); !name.empty(); name = pairs.word()) {
        const std::string_view value = pairs.rest();
        std::uint64_t number = 0;
        if (pairs.number(number)) tarn::store_by_name(name, value, figures, data);
    }
}

void parse_meminfo(std::string_view meminfo, data_mem& data) {
    parse_pairs(meminfo, data);
    data.memused = data.memtotal - data.memfree - data.memcached - data.membuffers;
    data.swapused = data.swaptotal - data.swapfree;
}

int mem_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_mem>(counter, "mem");
    return 1;
}

bool mem_update(data_mem& data) {
    const auto meminfo = tarn::read_kernel_file("/proc/meminfo");
    if (!meminfo) return false;
    parse_meminfo(*meminfo, data);
    const auto vmstat = tarn::read_kernel_file("/proc/vmstat", "\npswpout ");
    if (!vmstat) return false;
    parse_pairs(*vmstat, data);
    return true;
}

int mem_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    tarn::append_section<figures>(document, "mem", tarn::data_delta_of<data_mem>(counter));
    return 1;
}

int mem_dump(tarn_mycustom_counter& counter) {
    const auto& data = tarn::data_of<data_mem>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, data.ok);
    std::printf("\tMEM total = %" PRIu64 "\n", data.memtotal);
    std::printf("\tMEM free = %" PRIu64 "\n", data.memfree);
    std::printf("\tMEM used = %" PRIu64 "\n", data.memused);
    std::printf("\tMEM buffers = %" PRIu64 "\n", data.membuffers);
    std::printf("\tMEM cached = %" PRIu64 "\n", data.memcached);
    std::printf("\tSwap total = %" PRIu64 "\n", data.swaptotal);
    std::printf("\tSwap free = %" PRIu64 "\n", data.swapfree);
    std::printf("\tSwap used = %" PRIu64 "\n", data.swapused);
    std::printf("\tSwap in = %" PRIu64 "\n", data.swapin);
    std::printf("\tSwap out = %" PRIu64 "\n", data.swapout);
    return 1;
}

}  // namespace

const tarn_operations mem_operations = {
    .init = mem_init,
    .update = tarn::sampled<mem_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = mem_tobson,
    .dump = mem_dump,
    .free = tarn::free_records<data_mem>,
};
