// Read from /sys/block: one directory per block device, "device" being a link only where hardware is behind
// it; from /proc/diskstats: one line per device, "major minor name" and then the totals since boot.
#include "host/tarn_disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "host/tarn_cpu.h"
#include "record/tarn_records.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_disk = tarn_mycustom_data_disk;

/// The fields of a line behind the device name, in the kernel's order. Null: merged reads, merged writes and
/// I/Os in progress, which are not used.
constexpr std::uint64_t mibdisk::*diskstats_fields[] = {
    &mibdisk::rbytes,   nullptr,          &mibdisk::sRead, &mibdisk::rticks, &mibdisk::wbytes, nullptr,
    &mibdisk::sWritten, &mibdisk::wticks, nullptr,         &mibdisk::tticks};

constexpr std::uint64_t mibdisk::*rated[] = {&mibdisk::rbytes,  &mibdisk::wbytes, &mibdisk::rticks,
                                             &mibdisk::wticks,  &mibdisk::tticks, &mibdisk::sRead,
                                             &mibdisk::sWritten};

void append_name(bson_t& document, const char* key, const mibdisk& disk) {
    tarn::append_text(document, key, disk.device);
}

constexpr tarn::bson_row<mibdisk> rows[] = {
    {"ok", tarn::as_int64<&mibdisk::ok>},           {"name", append_name},
    {"rbytes", tarn::as_int64<&mibdisk::rbytes>},   {"wbytes", tarn::as_int64<&mibdisk::wbytes>},
    {"rticks", tarn::as_int64<&mibdisk::rticks>},   {"wticks", tarn::as_int64<&mibdisk::wticks>},
    {"tticks", tarn::as_int64<&mibdisk::tticks>},   {"sread", tarn::as_int64<&mibdisk::sRead>},
    {"swrite", tarn::as_int64<&mibdisk::sWritten>}, {"avio", tarn::as_double<&mibdisk::avio>},
    {"busy", tarn::as_double<&mibdisk::busy>}};

/// The path of something in a device's directory under /sys/block, relative to that directory.
std::array<char, 300> entry_path(const char* device, const char* leaf) {
    std::array<char, 300> path{};
    std::snprintf(path.data(), path.size(), "%s/%s", device, leaf);
    return path;
}

bool has_hardware(int sys_block, const char* device) {
    char target = '\0';
    return ::readlinkat(sys_block, entry_path(device, "device").data(), &target, 1) >= 0;
}

/// Lists the devices that are worth watching: those with hardware behind them, and of the removable ones only
/// sd* (USB disks, not optical drives). A device whose "removable" cannot be opened takes the flag of the one
/// before it.
void list_devices(tarn::directory_reader& sys_block, std::vector<mibdisk>& list) {
    bool removable = false;
    while (const char* const device = sys_block.next()) {
        if (!has_hardware(sys_block.fd(), device)) continue;
        const auto flag = tarn::read_file(entry_path(device, "removable").data(), sys_block.fd());
        if (flag) removable = flag->starts_with('1');
        if (removable && !std::string_view(device).starts_with("sd")) continue;
        tarn::copy_text(list.emplace_back().device, device);
    }
}

bool sample(data_disk& data) {
    tarn::directory_reader sys_block("/sys/block");
    if (!sys_block) return false;
    data.mibdisk_list.clear();
    list_devices(sys_block, data.mibdisk_list);
    const auto diskstats = tarn::read_file("/proc/diskstats");
    if (!diskstats) return false;
    disk_parse_diskstats(*diskstats, data);
    return true;
}

/// Percent of the interval that `tticks` milliseconds per second make up, by the CPUs' own clock. The time
/// base is computed in single precision.
float busy_percent(std::uint64_t tticks, const disk_time_base& base) {
    if (base.ncpus == 0 || base.cputot == 0) return 0;
    const float cpu_ms = static_cast<float>(base.cputot) * 1000.0F / static_cast<float>(base.clock_ticks);
    const float elapsed_ms = cpu_ms / static_cast<float>(base.ncpus);
    const std::uint64_t busy_ms = tticks * base.interval;
    return static_cast<float>(static_cast<double>(busy_ms * 100) / static_cast<double>(elapsed_ms));
}

disk_time_base time_base(std::uint32_t interval) {
    const tarn_mycustom_counter& cpu = stats.core_counters[core_cpu];
    const auto& figures = tarn::data_delta_of<tarn_mycustom_data_cpu>(cpu);
    return {figures.cputot, figures.ncpus, ::sysconf(_SC_CLK_TCK), interval};
}

}  // namespace

void disk_parse_diskstats(std::string_view diskstats, tarn_mycustom_data_disk& data) {
    for (mibdisk& disk : data.mibdisk_list)
        disk.ok = 0;
    data.positions.rebuild(data.mibdisk_list);

    tarn::line_reader lines(diskstats);
    for (std::string_view line; lines.next(line);) {
        tarn::scanner fields(line);
        if (!fields.skip(2)) continue;
        const auto position = data.positions.find(fields.word());
        if (!position) continue;
        mibdisk& disk = data.mibdisk_list[*position];
        if (disk.ok != 0) continue;
        disk.ok = 1;
        std::uint64_t unused = 0;
        for (const auto field : diskstats_fields) {
            if (!fields.number(field != nullptr ? disk.*field : unused)) break;
        }
    }
}

mibdisk disk_rates(const mibdisk& now, const mibdisk& before, const disk_time_base& base) {
    mibdisk rates{};
    tarn::copy_text(rates.device, now.device);
    for (const auto field : rated)
        rates.*field = (now.*field - before.*field) / base.interval;
    const std::uint64_t operations = rates.rbytes + rates.wbytes;
    if (operations != 0) {
        rates.avio = static_cast<float>(static_cast<double>(rates.tticks) / static_cast<double>(operations));
    }
    rates.busy = busy_percent(rates.tticks, base);
    rates.ok = now.ok == 1 && before.ok == 1 ? 1 : 0;
    return rates;
}

int disk_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_disk>(counter);
    tarn::copy_text(counter.report, "disk");
    return 1;
}

int disk_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_disk>(counter);
    data.ok = 0;
    try {
        data.ok = sample(data) ? 1 : 0;
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "disk_update", std::strerror(ENOMEM));
    }
    return data.ok;
}

int disk_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    const auto& data = tarn::data_of<data_disk>(counter);
    auto& prev = tarn::data_prev_of<data_disk>(counter);
    auto& delta = tarn::data_delta_of<data_disk>(counter);
    try {
        delta.mibdisk_list.clear();
        delta.ok = iteration != 0 && data.ok != 0 && prev.ok != 0 ? 1 : 0;
        if (delta.ok != 0) {
            const disk_time_base base = time_base(interval);
            for (const mibdisk& now : data.mibdisk_list) {
                const auto before = prev.positions.find(now.device);
                if (!before) continue;
                delta.mibdisk_list.push_back(disk_rates(now, prev.mibdisk_list[*before], base));
            }
        }
        prev.mibdisk_list = data.mibdisk_list;
        prev.positions.rebuild(prev.mibdisk_list);
        prev.ok = data.ok;
    } catch (const std::bad_alloc&) {
        prev.ok = 0;
        return 0;
    }
    return 1;
}

int disk_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_disk>(counter);
    tarn::sub_document disks(document, "disks");
    if (delta.ok == 0) return 1;
    for (const mibdisk& disk : delta.mibdisk_list) {
        if (disk.ok == 0) continue;
        tarn::sub_document element(disks.document(), disk.device);
        tarn::append_rows(element.document(), rows, disk);
    }
    return 1;
}

int disk_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_disk>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    for (const mibdisk& disk : delta.mibdisk_list) {
        std::printf("\tok = %d\n", disk.ok);
        std::printf("\tdev = %s\n", disk.device);
        std::printf("\tops read = %" PRIu64 "\n", disk.rbytes);
        std::printf("\tops write = %" PRIu64 "\n", disk.wbytes);
        std::printf("\tsectors read = %" PRIu64 "\n", disk.sRead);
        std::printf("\tsectors write = %" PRIu64 "\n", disk.sWritten);
        std::printf("\tavio = %f\n", static_cast<double>(disk.avio));
        std::printf("\tbusy = %f\n", static_cast<double>(disk.busy));
    }
    return 1;
}

int disk_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_disk>(counter);
    return 1;
}
