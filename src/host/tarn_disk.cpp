// Reads /sys/block (one directory per block device, with a "device" link only for real hardware) and
// /proc/diskstats (one line per device: "major minor name", then the totals since boot).
#include "host/tarn_disk.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "host/tarn_cpu.h"
#include "host/tarn_devices.h"
#include "record/tarn_operations.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_disk = tarn_mycustom_data_disk;
using enum tarn::rule;

/// The fields of a line after the device name, in the kernel's order. Null marks those that are not used:
/// merged reads, merged writes and I/Os in progress.
constexpr std::uint64_t mibdisk::*diskstats_fields[] = {
    &mibdisk::rbytes,   nullptr,          &mibdisk::sRead, &mibdisk::rticks, &mibdisk::wbytes, nullptr,
    &mibdisk::sWritten, &mibdisk::wticks, nullptr,         &mibdisk::tticks};

constexpr auto figures = tarn::figures_of<mibdisk>({
    tarn::reported<&mibdisk::ok>("ok"),
    tarn::reported<&mibdisk::device>("name"),
    tarn::reported<&mibdisk::rbytes, per_second>("rbytes"),
    tarn::reported<&mibdisk::wbytes, per_second>("wbytes"),
    tarn::reported<&mibdisk::rticks, per_second>("rticks"),
    tarn::reported<&mibdisk::wticks, per_second>("wticks"),
    tarn::reported<&mibdisk::tticks, per_second>("tticks"),
    tarn::reported<&mibdisk::sRead, per_second>("sread"),
    tarn::reported<&mibdisk::sWritten, per_second>("swrite"),
    tarn::reported<&mibdisk::avio>("avio"),
    tarn::reported<&mibdisk::busy>("busy"),
});

/// The path of a file in a device's directory, relative to /sys/block.
std::array<char, 300> entry_path(const char* device, const char* leaf) {
    std::array<char, 300> path{};
    std::snprintf(path.data(), path.size(), "%s/%s", device, leaf);
    return path;
}

bool has_hardware(int sys_block, const char* device) {
    char target = '\0';
    return ::readlinkat(sys_block, entry_path(device, "device").data(), &target, 1) >= 0;
}

/// Lists the devices to report: real hardware, and of removable devices only sd* (USB disks, not optical
/// drives). A device whose "removable" cannot be opened has the flag of the previous device.
void list_devices(tarn::directory_reader& sys_block, std::vector<mibdisk>& list) {
    bool removable = false;
    while (const char* const device = sys_block.next()) {
        if (!has_hardware(sys_block.fd(), device)) continue;
        const auto flag = tarn::read_kernel_file(entry_path(device, "removable").data(), {}, sys_block.fd());
        if (flag) removable = flag->starts_with('1');
        if (removable && !std::string_view(device).starts_with("sd")) continue;
        tarn::copy_terminated(list.emplace_back().device, device);
    }
}

/// The share of the interval spent on I/O, percent. `tticks` is in milliseconds per second; the length of the
/// interval is computed from the CPUs' jiffies, in single precision.
float busy_percent(std::uint64_t tticks, const disk_time_base& base) {
    if (base.ncpus == 0 || base.cputot == 0) return 0;
    const float cpu_ms = static_cast<float>(base.cputot) * 1000.0F / static_cast<float>(base.clock_ticks);
    const float elapsed_ms = cpu_ms / static_cast<float>(base.ncpus);
    const std::uint64_t busy_ms = tticks * base.interval;
    return static_cast<float>(static_cast<double>(busy_ms * 100) / static_cast<double>(elapsed_ms));
}

disk_time_base time_base(std::uint32_t interval) {
    const tarn_mycustom_counter& cpu = stats.core_counters[core_cpu];
    const auto& delta = tarn::data_delta_of<tarn_mycustom_data_cpu>(cpu);
    return {delta.cputot, delta.ncpus, ::sysconf(_SC_CLK_TCK), interval};
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
    tarn::copy_terminated(rates.device, now.device);
    tarn::apply_rules(figures, now, before, rates, base.interval);
    const std::uint64_t operations = rates.rbytes + rates.wbytes;
    if (operations != 0) {
        rates.avio = static_cast<float>(static_cast<double>(rates.tticks) / static_cast<double>(operations));
    }
    rates.busy = busy_percent(rates.tticks, base);
    rates.ok = now.ok == 1 && before.ok == 1 ? 1 : 0;
    return rates;
}

namespace {

int disk_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_disk>(counter, "disk");
    return 1;
}

/// Lists the device names of /proc/diskstats, one on each line.
void list_names(std::string_view diskstats, std::string& names) {
    names.clear();
    tarn::line_reader lines(diskstats);
    for (std::string_view line; lines.next(line);) {
        tarn::scanner fields(line);
        if (fields.skip(2)) names.append(fields.word()).append("\n");
    }
}

}  // namespace

bool disk_walk_watch::is_due(std::string_view diskstats) {
    const auto now = std::chrono::steady_clock::now();
    list_names(diskstats, names_);
    const bool has_changed = directory_.has_changed("/sys/block") || names_ != last_names_;
    if (!has_changed && now < next_) return false;
    std::swap(names_, last_names_);
    next_ = now + std::chrono::seconds(30);
    return true;
}

namespace {

bool walk(data_disk& data) {
    tarn::directory_reader sys_block("/sys/block");
    if (!sys_block) return false;
    data.mibdisk_list.clear();
    list_devices(sys_block, data.mibdisk_list);
    return true;
}

bool read_disks(data_disk& data) {
    constexpr const char* path = "/proc/diskstats";
    auto diskstats = tarn::read_file(path);
    if (!diskstats) return false;
    if (data.watch.is_due(*diskstats)) {
        if (!walk(data)) {
            data.watch = {};
            return false;
        }
        // The walk has overwritten the buffer that the text was in.
        diskstats = tarn::read_file(path);
        if (!diskstats) return false;
    }
    disk_parse_diskstats(*diskstats, data);
    return true;
}

bool disk_update(data_disk& data) {
    try {
        return read_disks(data);
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "disk_update", std::strerror(ENOMEM));
        return false;
    }
}

int disk_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    const disk_time_base base = time_base(interval);
    return tarn::delta_by_name<&data_disk::mibdisk_list>(
        counter, iteration,
        [&base](const mibdisk& now, const mibdisk& before) { return disk_rates(now, before, base); });
}

int disk_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_disk>(counter);
    tarn::append_by_name<figures, &mibdisk::device>(document, "disks", delta.ok != 0, delta.mibdisk_list);
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

}  // namespace

const tarn_operations disk_operations = {
    .init = disk_init,
    .update = tarn::sampled<disk_update>,
    .delta = disk_delta,
    .tobson = disk_tobson,
    .dump = disk_dump,
    .free = tarn::free_records<data_disk>,
};
