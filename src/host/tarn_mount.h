#pragma once

#include <sys/statvfs.h>

#include <cstdio>
#include <optional>
#include <string_view>
#include <vector>

#include "host/tarn_mount_probe.h"
#include "record/tarn_counter.h"

/// One mounted filesystem. The two shares are free shares, despite their names: receivers rely on that.
struct mibmount {
    int ok;                                    ///< measured
    char name[256];                            ///< mount point
    std::uint64_t free;                        ///< space available to unprivileged users, MiB
    std::uint64_t total;                       ///< size, MiB
    double inodes_usage;                       ///< free inodes divided by all inodes, 0 to 1
    double space_usage;                        ///< available blocks divided by all blocks, 0 to 1
    std::optional<tarn::mount_probe> probe{};  ///< for a filesystem that another process serves (FUSE)
};

/// The mounted block-device filesystems and, unless excluded, the tmpfs ones. Listed once, at init.
struct tarn_mycustom_data_mount {
    int ok;                               ///< the mount table was read
    std::vector<mibmount> mibmount_list;  ///< in the order of the mount table
};

/// MiB, rounded down; the unit of the block counts is f_bsize (not f_frsize).
std::uint64_t free_space(const struct statvfs& statistics);
std::uint64_t total_space(const struct statvfs& statistics);
/// Shares from 0 to 1; 0 when the total is 0.
double inodes_percentage_used(const struct statvfs& statistics);
double space_percentage_used(const struct statvfs& statistics);

/// Selects filesystems: whether tmpfs is added to those on block devices, and which are excluded.
struct mount_filter {
    bool with_tmpfs;
    bool (*is_excluded)(std::string_view mount_point);
};

/// Appends the selected filesystems of a mount table to the list, in the order of the table.
void mount_parse_table(std::FILE& table, const mount_filter& filter, std::vector<mibmount>& list);

extern const tarn_operations mount_operations;
