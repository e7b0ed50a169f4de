#include <gtest/gtest.h>

#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mem.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_socket.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "support/tarn_text.h"

namespace {

/// A counter with three blocks of its kind, as init leaves it.
template <typename Record>
struct with_records {
    tarn_mycustom_counter counter{};
    with_records() { tarn::allocate_records<Record>(counter); }
    with_records(const with_records&) = delete;
    with_records& operator=(const with_records&) = delete;
    ~with_records() { tarn::release_records<Record>(counter); }
    Record& data() { return tarn::data_of<Record>(counter); }
    Record& delta() { return tarn::data_delta_of<Record>(counter); }
};

/// The names of a delta list with their figures, for comparison.
std::string rates_text(const tarn_mycustom_data_net& delta) {
    std::string text = std::to_string(delta.ok) + ":";
    for (const mibnet& interface : delta.mibnet_list) {
        text += std::string(" ") + interface.device + (interface.ok != 0 ? "+" : "-") +
                std::to_string(interface.rbytes) + "/" + std::to_string(interface.sbytes);
    }
    return text;
}

}  // namespace

TEST(Cpu, StatLinesAreCountedAndRead) {
    EXPECT_EQ(cpu_count("cpu  1 2\ncpu0 1\ncpu1 1\ncpu1 9\ncpux\nintr 5\n"), 3U);
    EXPECT_EQ(cpu_count(""), 0U);
    tarn_mycustom_data_cpu data{};
    cpu_parse_stat("cpu0 9 9\ncpu  10 20 30 40 50 60 70 80 90 100\n", "cpu", data);
    EXPECT_EQ(data.user, 10U);
    EXPECT_EQ(data.guest, 90U);
    cpu_parse_stat("cpu 11 12", "cpu", data);
    EXPECT_EQ(data.user, 11U);
    EXPECT_EQ(data.system, 30U);  // cut line: what is missing keeps its value
    cpu_parse_stat("intr 1\n", "cpu", data);
    EXPECT_EQ(data.user, 11U);
}

TEST(Cpu, PercentagesAreSharesOfAllNineTruncated) {
    with_records<tarn_mycustom_data_cpu> cpu;
    auto& data = cpu.data();
    data.ok = 1;
    data.user = 100;
    data.idle = 1000;
    cpu_delta(cpu.counter, 60, 0);
    EXPECT_EQ(cpu.delta().ok, 0);

    data.user += 20;
    data.guest += 20;  // counted inside user too, and again
    data.idle += 20;
    cpu_delta(cpu.counter, 60, 1);
    EXPECT_EQ(cpu.delta().ok, 1);
    EXPECT_EQ(cpu.delta().cputot, 60U);
    EXPECT_EQ(cpu.delta().user, 33U);
    EXPECT_EQ(cpu.delta().guest, 33U);

    cpu_delta(cpu.counter, 60, 2);  // no jiffy elapsed
    EXPECT_EQ(cpu.delta().ok, 1);
    EXPECT_EQ(cpu.delta().idle, 0U);

    data.ok = 0;
    cpu_delta(cpu.counter, 60, 3);
    EXPECT_EQ(cpu.delta().ok, 0);
    data.ok = 1;
    cpu_delta(cpu.counter, 60, 4);  // the sample before is not ok
    EXPECT_EQ(cpu.delta().ok, 0);
    cpu_delta(cpu.counter, 60, 5);
    EXPECT_EQ(cpu.delta().ok, 1);
}

TEST(Mem, OnlyTheExactNamesCount) {
    tarn_mycustom_data_mem data{};
    mem_parse_meminfo(
        "MemTotal: 1000 kB\nMemFree: 300 kB\nBuffers: 50 kB\nCached: 150 kB\nSwapCached: 9 kB\n"
        "SwapTotal: 80 kB\nSwapFree: 30 kB\nHugePages_Total: 0\nCommitLimit:\n",
        data);
    EXPECT_EQ(data.memused, 500U);
    EXPECT_EQ(data.memcached, 150U);
    EXPECT_EQ(data.swapused, 50U);
    mem_parse_vmstat("pswpinx 4\npswpin 7\npswpout 99999999999999999999\n", data);
    EXPECT_EQ(data.swapin, 7U);
    EXPECT_EQ(data.swapout, ~0ULL);
}

TEST(Mem, SwappingIsPagesPerSecond) {
    with_records<tarn_mycustom_data_mem> mem;
    mem.data().ok = 1;
    mem.data().memfree = 5;
    mem.data().swapin = 1000;
    mem_delta(mem.counter, 60, 0);
    EXPECT_EQ(mem.delta().ok, 0);
    mem.data().swapin += 600;
    mem_delta(mem.counter, 60, 1);
    EXPECT_EQ(mem.delta().ok, 1);
    EXPECT_EQ(mem.delta().memfree, 5U);
    EXPECT_EQ(mem.delta().swapin, 10U);
    EXPECT_EQ(mem.delta().swapout, 0U);
    mem.data().ok = 0;
    mem_delta(mem.counter, 60, 2);
    EXPECT_EQ(mem.delta().ok, 0);
}

TEST(Disk, LinesGoToTheirDevicesWhateverTheOrder) {
    tarn_mycustom_data_disk data{};
    for (const auto name : {"vda", "sdb", "gone"})
        tarn::copy_text(data.mibdisk_list.emplace_back().device, name);
    disk_parse_diskstats(
        "   8  16 sdb 11 1 12 13 14 2 15 16 3 17 4 0\n"
        " 254   0 vda 21 1 22 23 24 2 25 26 3 27 4\n"
        " 254   1 vda1 9 9 9 9 9 9 9 9 9 9 9\n"
        "   8  16 sdb 99 1 99\n254",
        data);
    const mibdisk& sdb = data.mibdisk_list[1];
    EXPECT_EQ(sdb.ok, 1);
    EXPECT_EQ(sdb.rbytes, 11U);
    EXPECT_EQ(sdb.sRead, 12U);
    EXPECT_EQ(sdb.rticks, 13U);
    EXPECT_EQ(sdb.wbytes, 14U);
    EXPECT_EQ(sdb.sWritten, 15U);
    EXPECT_EQ(sdb.wticks, 16U);
    EXPECT_EQ(sdb.tticks, 17U);
    EXPECT_EQ(data.mibdisk_list[0].tticks, 27U);
    EXPECT_EQ(data.mibdisk_list[2].ok, 0);
}

TEST(Disk, RatesAndShares) {
    mibdisk before{};
    before.ok = 1;
    before.rbytes = 100;
    before.tticks = 1000;
    mibdisk now = before;
    now.rbytes += 600;
    now.wbytes += 60;
    now.tticks += 30000;  // ms of I/O in 60 s: 500 per second
    disk_time_base base{.cputot = 12000, .ncpus = 2, .clock_ticks = 100, .interval = 60};
    const mibdisk rates = disk_rates(now, before, base);
    EXPECT_EQ(rates.ok, 1);
    EXPECT_EQ(rates.rbytes, 10U);
    EXPECT_EQ(rates.wbytes, 1U);
    EXPECT_EQ(rates.tticks, 500U);
    EXPECT_FLOAT_EQ(rates.avio, 500.0F / 11);
    EXPECT_FLOAT_EQ(rates.busy, 50.0F);  // 30 s of the 60 s that 12000 jiffies of two CPUs make

    EXPECT_EQ(disk_rates(before, before, base).avio, 0.0F);
    base.ncpus = 0;
    EXPECT_EQ(disk_rates(now, before, base).busy, 0.0F);
    now.ok = 0;
    EXPECT_EQ(disk_rates(now, before, base).ok, 0);
    EXPECT_EQ(disk_rates(before, now, base).rbytes, (0ULL - 600) / 60);  // a counter that went back wraps
}

TEST(Disk, DevicesThatComeAndGo) {
    with_records<tarn_mycustom_data_cpu> cpu;
    stats.core_counters[core_cpu].data_delta = cpu.counter.data_delta;
    with_records<tarn_mycustom_data_disk> disk;
    const auto cycle = [&](std::initializer_list<const char*> names, std::uint64_t iteration) {
        disk.data().ok = 1;
        disk.data().mibdisk_list.clear();
        for (const auto name : names) {
            tarn::copy_text(disk.data().mibdisk_list.emplace_back().device, name);
        }
        disk_delta(disk.counter, 1, iteration);
        std::string found = std::to_string(disk.delta().ok) + ":";
        for (const mibdisk& rates : disk.delta().mibdisk_list)
            found += std::string(" ") + rates.device;
        return found;
    };
    EXPECT_EQ(cycle({"sda"}, 0), "0:");
    EXPECT_EQ(cycle({"sda", "sdb"}, 1), "1: sda");
    EXPECT_EQ(cycle({"sdb", "sda"}, 2), "1: sdb sda");
    EXPECT_EQ(cycle({"sdb"}, 3), "1: sdb");
    stats.core_counters[core_cpu] = {};
}

TEST(Net, AnInterfaceCountsFromTheThirdSample) {
    init_config();
    config.interval = 15;
    tarn::copy_text(config.interface_exclude_masks[0], "veth*");
    config.interface_exclude_masks_count = 1;
    with_records<tarn_mycustom_data_net> net;
    const auto cycle = [&](const std::string& lines, std::uint64_t iteration) {
        net_parse_dev("Inter-| h\n face |h\n" + lines, net.data());
        net.data().ok = 1;
        net_delta(net.counter, 999, iteration);
        return rates_text(net.delta());
    };
    const auto line = [](const char* name, int received, int sent) {
        return std::string(name) + ":" + std::to_string(received) + " 1 2 3 4 5 6 7 " + std::to_string(sent) +
               " 1\n";
    };
    EXPECT_EQ(cycle(line("  eth0", 0, 0) + line("veth1", 5, 5), 0), "0:");
    EXPECT_EQ(cycle(line("  eth0", 15000, 150), 1), "1: eth0-1000/10");
    EXPECT_EQ(cycle(line("  eth0", 30000, 300) + line("wg0", 0, 0), 2), "1: eth0+1000/10");
    EXPECT_EQ(cycle(line("eth0", 30015, 300) + line("eth0", 9, 9) + line("wg0", 30, 0), 3),
              "1: eth0+1/0 wg0+2/0");
    EXPECT_EQ(cycle(line("wg0", 0, 0) + "cut: 12 3", 4), "1: wg0+1229782938247303439/0");  // (2^64 - 30) / 15
    EXPECT_EQ(cycle("", 5), "1:");
}

TEST(Mount, TableIsFilteredAndMeasured) {
    init_config();
    char table[] =
        "/dev/sda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\ntmpfs /tmp tmpfs rw 0 0\ntmpfs /run/user/7 tmpfs "
        "rw 0 0\n"
        "/dev/sdb1 /mnt/a\\040b xfs rw 0 0\n/dev/sda1 /srv ext4 rw 0 0\n/dev/sdc1 /boot ext2 rw 0 0\n";
    const auto watched = [&table] {
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(fmemopen(table, sizeof table - 1, "r"),
                                                                   std::fclose);
        std::vector<mibmount> list;
        mount_parse_table(*file, list);
        std::string names;
        for (const mibmount& mount : list)
            names += std::string(mount.name) + ",";
        return names;
    };
    EXPECT_EQ(watched(), "/,/tmp,/mnt/a b,/srv,");
    config.exclude_tmpfs = 1;
    EXPECT_EQ(watched(), "/,/mnt/a b,/srv,");

    struct statvfs figures {};
    EXPECT_EQ(inodes_percentage_used(figures), 0.0);
    figures = {};
    figures.f_bsize = 4096;
    figures.f_frsize = 1;
    figures.f_blocks = 1000000;
    figures.f_bavail = 250000;
    figures.f_files = 1000;
    figures.f_ffree = 250;
    EXPECT_EQ(total_space(figures), 3906U);
    EXPECT_EQ(free_space(figures), 976U);
    EXPECT_EQ(space_percentage_used(figures), 0.25);
    EXPECT_EQ(inodes_percentage_used(figures), 0.25);
}

TEST(Socket, TheKernelsOrderIsInuseOrphanTw) {
    tarn_mycustom_data_socket data{};
    data.udp_inuse = 8;
    socket_parse_sockstat("sockets: used 9\nTCP: inuse 12 orphan 3 tw 40 alloc 20 mem 5\nUDPLITE: inuse 7\n",
                          data);
    EXPECT_EQ(data.tcp_inuse, 12U);
    EXPECT_EQ(data.tcp_orphan, 3U);
    EXPECT_EQ(data.tcp_tw, 40U);
    EXPECT_EQ(data.udp_inuse, 8U);
    socket_parse_sockstat("UDP: inuse 5 mem 1\nTCP: inuse", data);
    EXPECT_EQ(data.udp_inuse, 5U);
    EXPECT_EQ(data.tcp_inuse, 12U);
}
