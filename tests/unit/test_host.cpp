// The host counters: parsing of kernel and release files, and rates between samples.
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>

#include "captures.h"
#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "test_helpers.h"

TEST(Cpu, PercentagesAreTruncatedSharesOfAllNineFields) {
    EXPECT_EQ(cpu_count("cpu  1 2\ncpu0 1\ncpu1 1\ncpu1 9\ncpux\nintr 5\n"), 3U);
    counter_of<tarn_mycustom_data_cpu> cpu;
    const auto cycle = [&cpu](int ok, const char* stat, std::uint64_t iteration) {
        cpu_parse_stat(stat, cpu.data());
        cpu.data().ok = ok;
        cpu_operations.delta(cpu.counter, 60, iteration);
        const auto& d = cpu.delta();
        return fields(d.ok, d.user, d.nice, d.system, d.idle, d.iowait, d.irq, d.softirq, d.steal, d.guest) +
               " of " + std::to_string(d.cputot);
    };
    const std::string totals = "101|202|303|404|505|606|707|808|909 of 0";
    EXPECT_EQ(cycle(1, "cpu0 9 9\ncpu  100 200 300 400 500 600 700 800 900 7\n", 0),
              "0|100|200|300|400|500|600|700|800|900 of 0");
    // The kernel counts guest in user, too; the sum contains both.
    EXPECT_EQ(cycle(1, "cpu 101 202 303 404 505 606 707 808 909 8\n", 1), "1|2|4|6|8|11|13|15|17|20 of 45");
    EXPECT_EQ(cycle(1, "intr 1\n", 2), "1|0|0|0|0|0|0|0|0|0 of 0");  // a missing field keeps its value
    EXPECT_EQ(cycle(0, "", 3), "0|" + totals);
    EXPECT_EQ(cycle(1, "", 4), "0|" + totals);  // the previous sample is not ok
    EXPECT_EQ(cycle(1, "cpu 101 203", 5), "1|0|100|0|0|0|0|0|0|0 of 1");
}

TEST(Disk, RatesAndShares) {
    const auto totals = [](int ok, std::uint64_t reads, std::uint64_t writes, std::uint64_t ms) {
        return mibdisk{ok, "sda", reads, writes, 0, 0, ms, 0, 0, 0, 0};
    };
    const auto rates = [](const mibdisk& now, const mibdisk& before, std::uint32_t cpus) {
        const mibdisk result = disk_rates(now, before, {12000, cpus, 100, 60});
        return fields(result.ok, result.rbytes, result.wbytes, result.tticks, result.avio, result.busy);
    };
    const mibdisk before = totals(1, 100, 0, 1000);
    // Busy for 30 s of an interval of 12000 jiffies on two CPUs, which is 60 s.
    EXPECT_EQ(rates(totals(1, 690, 70, 31000), before, 2), "1|9|1|500|50|50");
    EXPECT_EQ(rates(totals(0, 690, 70, 31000), before, 0), "0|9|1|500|50|0");
    EXPECT_EQ(rates(before, before, 2), "1|0|0|0|0|0");
    EXPECT_EQ(rates(totals(1, 40, 0, 1000), before, 2), "1|307445734561825859|0|0|0|0");  // (2^64 - 60) / 60
}

TEST(Disk, LinesAreMatchedToDevicesThatComeAndGo) {
    counter_of<tarn_mycustom_data_cpu> cpu;
    stats.core_counters[core_cpu].data_delta = cpu.counter.data_delta;
    counter_of<tarn_mycustom_data_disk> disk;
    const auto cycle = [&](std::initializer_list<const char*> names, const char* lines,
                           std::uint64_t iteration) {
        disk.data().ok = 1;
        disk.data().mibdisk_list.clear();
        for (const auto name : names)
            tarn::copy_terminated(disk.data().mibdisk_list.emplace_back().device, name);
        disk_parse_diskstats(lines, disk.data());
        disk_operations.delta(disk.counter, 1, iteration);
        std::string found = std::to_string(disk.delta().ok) + ":";
        for (const mibdisk& rates : disk.delta().mibdisk_list) {
            found += fields(" ", rates.device, rates.ok, "");
            if (rates.ok == 0) continue;
            found += fields(rates.rbytes, rates.sRead, rates.rticks, rates.wbytes, rates.sWritten,
                            rates.wticks, rates.tticks);
        }
        return found;
    };
    EXPECT_EQ(cycle({"sda"}, "8 0 sda 1 0 2 3 4 0 5 6 0 7 0\n", 0), "0:");
    const char* const second = " 8 16 sdb 1 1\n 8 0 sda 12 1 14 16 18 1 20 22 1 24 1\n 8 0 sda 99\n8";
    EXPECT_EQ(cycle({"sda", "sdb"}, second, 1), "1: |sda|1|11|12|13|14|15|16|17");
    EXPECT_EQ(cycle({"sdb", "sda"}, "8 16 sdb 4 1\n8 1 sda1 1 1\n", 2), "1: |sdb|1|3|0|0|0|0|0|0 |sda|0|");
    EXPECT_EQ(cycle({"sda", "sdb"}, "8 0 sda 9\n8 16 sdb 5\n", 3), "1: |sda|0| |sdb|1|1|0|0|0|0|0|0");
    EXPECT_EQ(cycle({"sdb"}, "8 16 sdb 7\n", 4), "1: |sdb|1|2|0|0|0|0|0|0");
    stats.core_counters[core_cpu] = {};
}

TEST(Net, AnInterfaceIsReportedFromTheThirdSample) {
    init_config();
    counter_of<tarn_mycustom_data_net> net;
    const auto cycle = [&](const std::string& lines, std::uint64_t iteration) {
        net_parse_dev(
            "Inter-| h\n face |h\n" + lines, [](auto name) { return name == "veth1"; }, net.data());
        net.data().ok = 1;
        net_operations.delta(net.counter, 999, iteration);
        std::string text = std::to_string(net.delta().ok) + ":";
        for (const mibnet& rates : net.delta().mibnet_list)
            text.append(" ").append(fields(rates.device, rates.ok, rates.rbytes, rates.sbytes));
        return text;
    };
    EXPECT_EQ(cycle("  eth0:0 1 2 3 4 5 6 7 0 1\nveth1:5 1 2 3 4 5 6 7 5 1\n", 0), "0:");
    EXPECT_EQ(cycle("  eth0:15000 1 2 3 4 5 6 7 150 1\n", 1), "1: eth0|0|1000|10");
    EXPECT_EQ(cycle("  eth0: 30000 1 2 3 4 5 6 7 300 1\nwg0:0 1 2 3 4 5 6 7 0 1\n", 2), "1: eth0|1|1000|10");
    EXPECT_EQ(cycle("eth0:30015 1 2 3 4 5 6 7 300\neth0:9 1 2 3 4 5 6 7 9\nwg0:30 1 2 3 4 5 6 7 0\n", 3),
              "1: eth0|1|1|0 wg0|1|2|0");
    // The total wraps: (2^64 - 30) / 15.
    EXPECT_EQ(cycle("wg0:0 1 2 3 4 5 6 7 0 1\ncut: 12 3", 4), "1: wg0|1|1229782938247303439|0");
}

TEST(Mount, TableIsFilteredAndMeasured) {
    std::string table =
        "/dev/sda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n"
        "tmpfs /run/user/7 tmpfs rw 0 0\n/dev/sdb1 /mnt/a\\040b xfs rw 0 0\n/dev/sda1 /srv ext4 rw 0 0\n"
        "/dev/sdc1 /boot ext2 rw 0 0\n";
    std::FILE* const file = fmemopen(table.data(), table.size(), "r");
    std::vector<mibmount> list;
    mount_parse_table(
        *file, {true, [](auto path) { return path == "/boot" || path.starts_with("/run/user/"); }}, list);
    std::fclose(file);
    ASSERT_EQ(list.size(), 4U);
    EXPECT_EQ(fields(list[0].name, list[1].name, list[2].name, list[3].name), "/|/tmp|/mnt/a b|/srv");

    struct statvfs figures {};
    EXPECT_EQ(fields(inodes_percentage_used(figures), space_percentage_used(figures)), "0|0");
    figures.f_bsize = 4096;
    figures.f_frsize = figures.f_bfree = figures.f_favail = 1;
    figures.f_blocks = 1000000;
    figures.f_bavail = 250000;
    figures.f_files = 1000;
    figures.f_ffree = 300;
    EXPECT_EQ(fields(total_space(figures), free_space(figures), space_percentage_used(figures),
                     inodes_percentage_used(figures)),
              "3906|976|0.25|0.3");
}

TEST(Os, ReleaseFilesAreReadInTurnByTheirRules) {
    // An /etc that only this process sees.
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("none", "/etc", "tmpfs", 0, nullptr), 0);
    counter_of<tarn_mycustom_data_os> os;
    // "> NAME" begins a file, "= NAME|VERSION" is what the files say, and "---" removes them.
    std::istringstream script(captured("releases.txt"));
    std::string path;
    for (std::string line; std::getline(script, line);) {
        if (line.starts_with("> ")) {
            path = "/etc/" + line.substr(2);
        } else if (line.starts_with("= ")) {
            os_operations.update(os.counter);
            EXPECT_EQ("= " + fields(os.data().os_name, os.data().os_version), line) << script.tellg();
        } else if (line == "---") {
            for (const auto& file : std::filesystem::directory_iterator("/etc"))
                std::filesystem::remove(file);
        } else {
            std::ofstream(path, std::ios::app) << line << "\n";
        }
    }
    ::umount2("/etc", MNT_DETACH);
}
