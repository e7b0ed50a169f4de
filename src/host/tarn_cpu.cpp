// Reads /proc/stat (the "cpu" line: nine running totals in jiffies, usually 1/100 s; at init the names of the
// per-CPU lines) and the first number of /proc/loadavg.
#include "host/tarn_cpu.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <unordered_set>

#include "record/tarn_operations.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_cpu = tarn_mycustom_data_cpu;

/// The fields of the "cpu" line in the kernel's order.
constexpr std::uint64_t data_cpu::*jiffies[] = {&data_cpu::user,    &data_cpu::nice,   &data_cpu::system,
                                                &data_cpu::idle,    &data_cpu::iowait, &data_cpu::irq,
                                                &data_cpu::softirq, &data_cpu::steal,  &data_cpu::guest};

constexpr auto figures = tarn::figures_of<data_cpu>({
    tarn::reported<&data_cpu::ok>("ok"),
    tarn::reported<&data_cpu::guest>("guest"),
    tarn::reported<&data_cpu::idle>("idle"),
    tarn::reported<&data_cpu::iowait>("iowait"),
    tarn::reported<&data_cpu::irq>("irq"),
    tarn::reported<&data_cpu::nice>("nice"),
    tarn::reported<&data_cpu::softirq>("softirq"),
    tarn::reported<&data_cpu::steal>("steal"),
    tarn::reported<&data_cpu::system>("system"),
    tarn::reported<&data_cpu::user>("user"),
});

}  // namespace

std::uint32_t cpu_count(std::string_view stat) {
    std::unordered_set<std::string_view> names;
    tarn::line_reader lines(stat);
    for (std::string_view line; lines.next(line);) {
        const std::string_view name = tarn::next_word(line);
        if (name.starts_with("cpu") && name != "cpu") names.insert(name);
    }
    return static_cast<std::uint32_t>(names.size());
}

void cpu_parse_stat(std::string_view stat, tarn_mycustom_data_cpu& data) {
    tarn::line_reader lines(stat);
    for (std::string_view line; lines.next(line);) {
        tarn::scanner fields(line);
        if (fields.word() != "cpu") continue;
        for (const auto field : jiffies) {
            if (!fields.number(data.*field)) break;
        }
        return;
    }
}

namespace {

float load_average() {
    float lavg = 0;
    if (const auto text = tarn::read_kernel_file("/proc/loadavg")) {
        std::from_chars(text->data(), text->data() + text->size(), lavg);
    }
    return lavg;
}

int cpu_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_cpu>(counter, "cpu");
    const auto stat = tarn::read_kernel_file("/proc/stat");
    if (!stat) return 0;
    data.ncpus = cpu_count(*stat);
    data.ok = 1;
    return 1;
}

bool cpu_update(data_cpu& data) {
    const auto stat = tarn::read_kernel_file("/proc/stat");
    if (!stat) return false;
    cpu_parse_stat(*stat, data);
    data.lavg = load_average();
    return true;
}

int cpu_delta(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t iteration) {
    const auto percentages = [](const data_cpu& data, const data_cpu& prev, data_cpu& delta) {
        for (const auto field : jiffies)
            delta.cputot += data.*field - prev.*field;
        const std::uint64_t total = std::max<std::uint64_t>(delta.cputot, 1);
        for (const auto field : jiffies)
            delta.*field = (data.*field - prev.*field) * 100 / total;
    };
    return tarn::delta_scheme<data_cpu>(counter, iteration, percentages);
}

int cpu_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_cpu>(counter);
    tarn::append_double(document, "lavg", delta.lavg);
    tarn::append_int64(document, "ncpu", delta.ncpus);
    tarn::append_section<figures>(document, "cpu", delta);
    return 1;
}

int cpu_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_cpu>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tguest = %" PRIu64 "\n", delta.guest);
    std::printf("\tidle = %" PRIu64 "\n", delta.idle);
    std::printf("\tiowait = %" PRIu64 "\n", delta.iowait);
    std::printf("\tirq = %" PRIu64 "\n", delta.irq);
    std::printf("\tnice = %" PRIu64 "\n", delta.nice);
    std::printf("\tsoftirq = %" PRIu64 "\n", delta.softirq);
    std::printf("\tsteal = %" PRIu64 "\n", delta.steal);
    std::printf("\tsystem = %" PRIu64 "\n", delta.system);
    std::printf("\tuser = %" PRIu64 "\n", delta.user);
    return 1;
}

}  // namespace

const tarn_operations cpu_operations = {
    .init = cpu_init,
    .update = tarn::sampled<cpu_update>,
    .delta = cpu_delta,
    .tobson = cpu_tobson,
    .dump = cpu_dump,
    .free = tarn::free_records<data_cpu>,
};
