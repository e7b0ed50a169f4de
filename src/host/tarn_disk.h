#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "record/tarn_counter.h"
#include "support/tarn_files.h"
#include "support/tarn_name_index.h"

/// One block device. The figures are totals since boot in data and data_prev, rates per second in data_delta.
struct mibdisk {
    int ok;                  ///< the device is in /proc/diskstats; data_delta: in both samples
    char device[256];        ///< name as in /sys/block
    std::uint64_t rbytes;    ///< reads completed (operations, despite the name)
    std::uint64_t wbytes;    ///< writes completed (operations)
    std::uint64_t rticks;    ///< milliseconds spent reading
    std::uint64_t wticks;    ///< milliseconds spent writing
    std::uint64_t tticks;    ///< milliseconds spent doing I/O
    std::uint64_t sRead;     ///< sectors of 512 bytes read
    std::uint64_t sWritten;  ///< sectors of 512 bytes written
    float busy;              ///< data_delta: percent of the interval that the device was busy
    float avio;              ///< data_delta: milliseconds of I/O per operation
};

/// Decides when the walk through /sys/block, the most expensive part of a sample, must be repeated: when a
/// device was added or removed, and after 30 seconds, because the flags of a device may have changed.
class disk_walk_watch final {
  public:
    /// `diskstats` is the text of /proc/diskstats, where a disk appears together with its entry in
    /// /sys/block.
    bool is_due(std::string_view diskstats);

  private:
    std::string names_, last_names_;
    tarn::file_watch directory_;
    std::chrono::steady_clock::time_point next_;
};

/// I/O rates of the host's physical block devices.
struct tarn_mycustom_data_disk {
    int ok;                             ///< 1 when the record holds valid values
    std::vector<mibdisk> mibdisk_list;  ///< in the order of the directory /sys/block
    tarn::name_index positions;         ///< index of a device name in the list
    disk_walk_watch watch;              ///< data: decides when the list is rebuilt
};

/// The time base of the busy percentage: the CPU counter's figures of the same cycle.
struct disk_time_base {
    std::uint64_t cputot;        ///< jiffies of all CPUs in the interval
    std::uint32_t ncpus;         ///< number of CPUs; 0 makes `busy` 0
    long clock_ticks = 100;      ///< jiffies per second
    std::uint32_t interval = 1;  ///< seconds between the two samples
};

/// Fills the devices of the list from /proc/diskstats in one pass. A device without a line is not ok.
void disk_parse_diskstats(std::string_view diskstats, tarn_mycustom_data_disk& data);

/// The rates of one device between two samples.
mibdisk disk_rates(const mibdisk& now, const mibdisk& before, const disk_time_base& base);

extern const tarn_operations disk_operations;
