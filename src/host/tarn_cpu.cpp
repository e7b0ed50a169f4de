// Read from /proc/stat: the aggregate "cpu" line, nine running totals in jiffies (1/100 s as a rule), and at
// init the names of the per-CPU lines; from /proc/loadavg: its first number.
#include "host/tarn_cpu.h"

#include <cinttypes>
#include <cstdio>
#include <unordered_set>

#include "record/tarn_rates.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_cpu = tarn_mycustom_data_cpu;

/// The kernel's order of the fields in a "cpu" line.
constexpr std::uint64_t data_cpu::*jiffies[] = {&data_cpu::user,    &data_cpu::nice,   &data_cpu::system,
                                                &data_cpu::idle,    &data_cpu::iowait, &data_cpu::irq,
                                                &data_cpu::softirq, &data_cpu::steal,  &data_cpu::guest};

constexpr tarn::bson_row<data_cpu> rows[] = {
    {"ok", tarn::as_int64<&data_cpu::ok>},           {"guest", tarn::as_int64<&data_cpu::guest>},
    {"idle", tarn::as_int64<&data_cpu::idle>},       {"iowait", tarn::as_int64<&data_cpu::iowait>},
    {"irq", tarn::as_int64<&data_cpu::irq>},         {"nice", tarn::as_int64<&data_cpu::nice>},
    {"softirq", tarn::as_int64<&data_cpu::softirq>}, {"steal", tarn::as_int64<&data_cpu::steal>},
    {"system", tarn::as_int64<&data_cpu::system>},   {"user", tarn::as_int64<&data_cpu::user>}};

float load_average() {
    float lavg = 0;
    if (const auto text = tarn::read_file("/proc/loadavg")) {
        std::from_chars(text->data(), text->data() + text->size(), lavg);
    }
    return lavg;
}

}  // namespace

std::uint32_t cpu_count(std::string_view stat) {
    std::unordered_set<std::string_view> names;
    tarn::line_reader lines(stat);
    for (std::string_view line; lines.next(line);) {
        const std::string_view name = tarn::next_token(line, tarn::blanks);
        if (name.starts_with("cpu") && name != "cpu") names.insert(name);
    }
    return static_cast<std::uint32_t>(names.size());
}

void cpu_parse_stat(std::string_view stat, std::string_view line_name, tarn_mycustom_data_cpu& data) {
    tarn::line_reader lines(stat);
    for (std::string_view line; lines.next(line);) {
        tarn::scanner fields(line);
        if (fields.word() != line_name) continue;
        for (const auto field : jiffies) {
            if (!fields.number(data.*field)) break;
        }
        return;
    }
}

int cpu_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_cpu>(counter);
    tarn::copy_text(counter.report, "cpu");

    auto& data = tarn::data_of<data_cpu>(counter);
    const auto stat = tarn::read_file("/proc/stat");
    if (!stat) return 0;
    data.ncpus = cpu_count(*stat);
    data.ok = 1;
    return 1;
}

int cpu_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_cpu>(counter);
    data.ok = 0;
    const auto stat = tarn::read_file("/proc/stat");
    if (!stat) return 0;
    cpu_parse_stat(*stat, tarn::text_of(counter.report), data);
    data.lavg = load_average();
    data.ok = 1;
    return 1;
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
    static constexpr data_cpu none{};
    const auto& delta = tarn::data_delta_of<data_cpu>(counter);
    tarn::append_double(document, "lavg", delta.lavg);
    tarn::append_int64(document, "ncpu", delta.ncpus);
    tarn::sub_document cpu(document, "cpu");
    tarn::append_rows(cpu.document(), rows, delta.ok != 0 ? delta : none);
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

int cpu_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_cpu>(counter);
    return 1;
}
