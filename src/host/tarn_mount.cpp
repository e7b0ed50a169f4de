// Read from /etc/mtab, once: device, mount point and type of every mounted filesystem; in each cycle: the
// filesystem statistics of each mount point.
#include "host/tarn_mount.h"

#include <mntent.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_mount = tarn_mycustom_data_mount;
using unique_mount_table = std::unique_ptr<std::FILE, tarn::closer<endmntent>>;

void append_name(bson_t& document, const char* key, const mibmount& mount) {
    tarn::append_text(document, key, mount.name);
}

constexpr tarn::bson_row<mibmount> rows[] = {{"ok", tarn::as_int64<&mibmount::ok>},
                                             {"name", append_name},
                                             {"free", tarn::as_int64<&mibmount::free>},
                                             {"total", tarn::as_int64<&mibmount::total>},
                                             {"space_perc", tarn::as_double<&mibmount::space_usage>},
                                             {"inodes_perc", tarn::as_double<&mibmount::inodes_usage>}};

bool is_watched(std::string_view device, std::string_view mount_point) {
    const bool kept = device.starts_with("/dev") || (config.exclude_tmpfs == 0 && device == "tmpfs");
    return kept && excluded_mount(mount_point) == 0;
}

double share(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

/// Measures a filesystem with one call. An unreachable mount point is all zeros, not an error.
void measure(mibmount& mount) {
    struct statvfs figures {};
    if (::statvfs(mount.name, &figures) != 0) figures = {};
    mount.free = free_space(figures);
    mount.total = total_space(figures);
    mount.inodes_usage = inodes_percentage_used(figures);
    mount.space_usage = space_percentage_used(figures);
    mount.ok = 1;
}

}  // namespace

int excluded_mount(std::string_view path) {
    return tarn::in_excludelist(path, config.path_exclude_masks, config.path_exclude_masks_count) ? 1 : 0;
}

std::uint64_t free_space(const struct statvfs& figures) {
    return (figures.f_bavail * figures.f_bsize) >> 20U;
}

std::uint64_t total_space(const struct statvfs& figures) {
    return (figures.f_blocks * figures.f_bsize) >> 20U;
}

double inodes_percentage_used(const struct statvfs& figures) {
    return share(figures.f_ffree, figures.f_files);
}

double space_percentage_used(const struct statvfs& figures) {
    return share(figures.f_bavail, figures.f_blocks);
}

void mount_parse_table(std::FILE& table, std::vector<mibmount>& list) {
    mntent entry{};
    std::array<char, 4096> text{};
    while (::getmntent_r(&table, &entry, text.data(), static_cast<int>(text.size())) != nullptr) {
        if (!is_watched(entry.mnt_fsname, entry.mnt_dir)) continue;
        mibmount& mount = list.emplace_back();
        mount.ok = 1;
        tarn::copy_text(mount.name, entry.mnt_dir);
    }
}

int mount_init(tarn_mycustom_counter& counter) {
    tarn::allocate_data<data_mount>(counter);
    tarn::copy_text(counter.report, "Mount");

    auto& data = tarn::data_of<data_mount>(counter);
    const unique_mount_table table(::setmntent("/etc/mtab", "re"));
    if (!table) return 0;
    try {
        mount_parse_table(*table, data.mibmount_list);
        data.ok = 1;
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "mount_init", std::strerror(ENOMEM));
    }
    return data.ok;
}

int mount_update(tarn_mycustom_counter& counter) {
    for (mibmount& mount : tarn::data_of<data_mount>(counter).mibmount_list)
        measure(mount);
    return 1;
}

int mount_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& data = tarn::data_of<data_mount>(counter);
    tarn::sub_document mounts(document, "mounts");
    if (data.ok == 0) return 1;
    for (const mibmount& mount : data.mibmount_list) {
        if (mount.ok == 0) continue;
        tarn::sub_document element(mounts.document(), mount.name);
        tarn::append_rows(element.document(), rows, mount);
    }
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

int mount_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_mount>(counter);
    return 1;
}
