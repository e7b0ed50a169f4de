// Read from /proc/meminfo: lines of a name and a size in kB; from /proc/vmstat: lines of a name and a total,
// of which the two counts of swapped pages.
#include "host/tarn_mem.h"

#include <cinttypes>
#include <cstdio>
#include <span>

#include "record/tarn_rates.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_mem = tarn_mycustom_data_mem;

struct source_field {
    std::string_view name;
    std::uint64_t data_mem::*member;
};

constexpr source_field meminfo_fields[] = {
    {"MemTotal:", &data_mem::memtotal},   {"MemFree:", &data_mem::memfree},
    {"Cached:", &data_mem::memcached},    {"Buffers:", &data_mem::membuffers},
    {"SwapTotal:", &data_mem::swaptotal}, {"SwapFree:", &data_mem::swapfree}};

constexpr source_field vmstat_fields[] = {{"pswpin", &data_mem::swapin}, {"pswpout", &data_mem::swapout}};

constexpr tarn::bson_row<data_mem> rows[] = {{"ok", tarn::as_int64<&data_mem::ok>},
                                             {"free", tarn::as_int64<&data_mem::memfree>},
                                             {"used", tarn::as_int64<&data_mem::memused>},
                                             {"buffers", tarn::as_int64<&data_mem::membuffers>},
                                             {"cached", tarn::as_int64<&data_mem::memcached>},
                                             {"swapfree", tarn::as_int64<&data_mem::swapfree>},
                                             {"swapused", tarn::as_int64<&data_mem::swapused>},
                                             {"swapin", tarn::as_int64<&data_mem::swapin>},
                                             {"swapout", tarn::as_int64<&data_mem::swapout>}};

/// Reads pairs of a word and a number. The unit behind a number is a word without one and so drops out.
void parse_pairs(std::string_view text, std::span<const source_field> fields, data_mem& data) {
    tarn::scanner pairs(text);
    for (std::string_view name = pairs.word(); !name.empty(); name = pairs.word()) {
        std::uint64_t value = 0;
        if (!pairs.number(value)) continue;
        for (const source_field& field : fields) {
            if (name == field.name) data.*field.member = value;
        }
    }
}

}  // namespace

void mem_parse_meminfo(std::string_view meminfo, tarn_mycustom_data_mem& data) {
    parse_pairs(meminfo, meminfo_fields, data);
    data.memused = data.memtotal - data.memfree - data.memcached - data.membuffers;
    data.swapused = data.swaptotal - data.swapfree;
}

void mem_parse_vmstat(std::string_view vmstat, tarn_mycustom_data_mem& data) {
    parse_pairs(vmstat, vmstat_fields, data);
}

int mem_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_mem>(counter);
    tarn::copy_text(counter.report, "mem");
    return 1;
}

int mem_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_mem>(counter);
    data.ok = 0;
    const auto meminfo = tarn::read_file("/proc/meminfo");
    if (!meminfo) return 0;
    mem_parse_meminfo(*meminfo, data);

    const auto vmstat = tarn::read_file("/proc/vmstat");
    if (!vmstat) return 0;
    mem_parse_vmstat(*vmstat, data);
    data.ok = 1;
    return 1;
}

int mem_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    const auto rates = [interval](const data_mem& data, const data_mem& prev, data_mem& delta) {
        delta.swapin = (data.swapin - prev.swapin) / interval;
        delta.swapout = (data.swapout - prev.swapout) / interval;
    };
    return tarn::delta_scheme<data_mem>(counter, iteration, rates);
}

int mem_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    static constexpr data_mem none{};
    const auto& delta = tarn::data_delta_of<data_mem>(counter);
    tarn::sub_document mem(document, "mem");
    tarn::append_rows(mem.document(), rows, delta.ok != 0 ? delta : none);
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

int mem_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_mem>(counter);
    return 1;
}
