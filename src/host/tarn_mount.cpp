// Reads /etc/mtab once (device, mount point and type of every mounted filesystem) and, in each cycle, the
// statistics of each mount point.
#include "host/tarn_mount.h"

#include <mntent.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "host/tarn_devices.h"
#include "record/tarn_budget.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_mount = tarn_mycustom_data_mount;
using unique_mount_table = std::unique_ptr<std::FILE, tarn::closer<endmntent>>;

constexpr auto figures = tarn::figures_of<mibmount>({
    tarn::reported<&mibmount::ok>("ok"),
    tarn::reported<&mibmount::name>("name"),
    tarn::reported<&mibmount::free>("free"),
    tarn::reported<&mibmount::total>("total"),
    tarn::reported<&mibmount::space_usage>("space_perc"),
    tarn::reported<&mibmount::inodes_usage>("inodes_perc"),
});

double share(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace

std::uint64_t free_space(const struct statvfs& statistics) {
    return (statistics.f_bavail * statistics.f_bsize) >> 20U;
}

std::uint64_t total_space(const struct statvfs& statistics) {
    return (statistics.f_blocks * statistics.f_bsize) >> 20U;
}

double inodes_percentage_used(const struct statvfs& statistics) {
    return share(statistics.f_ffree, statistics.f_files);
}

double space_percentage_used(const struct statvfs& statistics) {
    return share(statistics.f_bavail, statistics.f_blocks);
}

void mount_parse_table(std::FILE& table, const mount_filter& filter, std::vector<mibmount>& list) {
    mntent entry{};
    std::array<char, 4096> text{};
    while (::getmntent_r(&table, &entry, text.data(), static_cast<int>(text.size())) != nullptr) {
        const std::string_view device = entry.mnt_fsname;
        const bool is_kept = device.starts_with("/dev") || (filter.with_tmpfs && device == "tmpfs");
        if (!is_kept || filter.is_excluded(entry.mnt_dir)) continue;
        mibmount& mount = list.emplace_back();
        mount.ok = 1;
        tarn::copy_terminated(mount.name, entry.mnt_dir);
        if (std::string_view(entry.mnt_type).starts_with("fuse")) mount.probe.emplace();
    }
}

namespace {

bool excluded_mount(std::string_view path) {
    return tarn::in_excludelist(path, config.path_exclude_masks, config.path_exclude_masks_count);
}

int mount_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_data<data_mount>(counter, "Mount");
    const unique_mount_table table(::setmntent("/etc/mtab", "re"));
    if (!table) return 0;
    try {
        mount_parse_table(*table, {config.exclude_tmpfs == 0, excluded_mount}, data.mibmount_list);
        data.ok = 1;
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "mount_init", std::strerror(ENOMEM));
    }
    return data.ok;
}

/// Time limit for a filesystem that another process serves.
constexpr auto probe_timeout = std::chrono::seconds(2);

/// Measures a filesystem with one call. An unreachable mount point yields zeros, not an error.
void measure(mibmount& mount) {
    struct statvfs statistics {};
    const bool is_good =
        mount.probe ? mount.probe->measure(mount.name, statistics, tarn::budget.end_within(probe_timeout))
                    : ::statvfs(mount.name, &statistics) == 0;
    if (!is_good) statistics = {};
    mount.free = free_space(statistics);
    mount.total = total_space(statistics);
    mount.inodes_usage = inodes_percentage_used(statistics);
    mount.space_usage = space_percentage_used(statistics);
    mount.ok = 1;
}

int mount_update(tarn_mycustom_counter& counter) {
    for (mibmount& mount : tarn::data_of<data_mount>(counter).mibmount_list)
        if (stop == 0) measure(mount);
    return 1;
}

int mount_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& data = tarn::data_of<data_mount>(counter);
    tarn::append_by_name<figures, &mibmount::name>(document, "mounts", data.ok != 0, data.mibmount_list);
    return 1;
}

int mount_dump(tarn_mycustom_counter& counter) {
    const auto& data = tarn::data_of<data_mount>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, data.ok);
    for (const mibmount& mount : data.mibmount_list) {
        std::printf("\tMount = %s\n", mount.name);
        std::printf("\t\tok = %d\n", mount.ok);
        std::printf("\t\ttotal = %" PRIu64 "\n", mount.total);
        std::printf("\t\tfree = %" PRIu64 "\n", mount.free);
        std::printf("\t\tfree perc = %f\n", mount.space_usage);
        std::printf("\t\tinodes free perc = %f\n", mount.inodes_usage);
    }
    return 1;
}

}  // namespace

const tarn_operations mount_operations = {
    .init = mount_init,
    .update = mount_update,
    .tobson = mount_tobson,
    .dump = mount_dump,
    .free = tarn::free_records<data_mount>,
};
