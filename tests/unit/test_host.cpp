// The host counters: parsing of kernel and release files, and rates between samples.
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
        const auto& delta = cpu.delta();
        return fields(delta.ok, delta.user, delta.idle, delta.guest, delta.cputot);
    };
    EXPECT_EQ(cycle(1, "cpu0 9 9\ncpu  100 0 0 100 0 0 0 0 0 7\n", 0), "0|100|100|0|0");
    // The kernel counts guest in user, too; the sum contains both.
    EXPECT_EQ(cycle(1, "cpu 120 0 0 120 0 0 0 0 20 8\n", 1), "1|33|33|33|60");
    EXPECT_EQ(cycle(1, "intr 1\n", 2), "1|0|0|0|0");  // a missing field keeps its value
    EXPECT_EQ(cycle(0, "", 3), "0|120|120|20|0");
    EXPECT_EQ(cycle(1, "", 4), "0|120|120|20|0");  // the previous sample is not ok
    EXPECT_EQ(cycle(1, "cpu 122 0 0 121", 5), "1|66|33|0|3");
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
    const auto line = [](const char* name, int received, int sent) {
        return std::string(name) + ":" + std::to_string(received) + " 1 2 3 4 5 6 7 " + std::to_string(sent) +
               " 1\n";
    };
    EXPECT_EQ(cycle(line("  eth0", 0, 0) + line("veth1", 5, 5), 0), "0:");
    EXPECT_EQ(cycle(line("  eth0", 15000, 150), 1), "1: eth0|0|1000|10");
    EXPECT_EQ(cycle(line("  eth0", 30000, 300) + line("wg0", 0, 0), 2), "1: eth0|1|1000|10");
    EXPECT_EQ(cycle(line("eth0", 30015, 300) + line("eth0", 9, 9) + line("wg0", 30, 0), 3),
              "1: eth0|1|1|0 wg0|1|2|0");
    // The total wraps: (2^64 - 30) / 15.
    EXPECT_EQ(cycle(line("wg0", 0, 0) + "cut: 12 3", 4), "1: wg0|1|1229782938247303439|0");
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
    figures.f_frsize = 1;
    figures.f_blocks = 1000000;
    figures.f_bavail = 250000;
    figures.f_files = 1000;
    figures.f_ffree = 300;
    EXPECT_EQ(fields(total_space(figures), free_space(figures), space_percentage_used(figures),
                     inodes_percentage_used(figures)),
              "3906|976|0.25|0.3");
}

TEST(Os, ReleaseFilesAreReadByTheirRules) {
    using parser = void (*)(std::string_view, os_release&);
    const parser os_release_file = os_parse_os_release;
    const parser issue = [](auto text, auto& release) { os_parse_release_line(text, true, release); };
    const parser redhat = [](auto text, auto& release) { os_parse_release_line(text, false, release); };
    const std::tuple<parser, std::string_view, const char*> rows[] = {
        {os_release_file, "ID=ubuntu\nNAME=\"Ubuntu\"\nVERSION_ID=\"14.04\"\n", "debian|Ubuntu|14.04"},
        {os_release_file, "PRETTY_NAME=\"x\"\nNAME=\"A B\"\nVERSION_ID=\"12\"\nID=debian", "debian|A B|12"},
        {os_release_file, "ID=\"amzn\"\nVERSION_ID=2018.03\n", "redhat|unknown|2018.03"},
        {os_release_file, "ID=arch\nNAME=\"Arch Linux\"\n", "?|unknown|unknown"},  // read no further
        {os_release_file, "NAME=\"Arch Linux\"\nID=arch\nVERSION_ID=1\n", "?|Arch Linux|unknown"},
        {os_release_file, "ID_LIKE=debian\nXNAME=a\n", "?|unknown|unknown"},
        {redhat, "CentOS release 6.7 (Final)\nDebian 1\n", "redhat|CentOS|6.7"},
        {redhat, "Red Hat Enterprise Linux 7.9 x 8.1 6.7a v1\n", "redhat|Red|8.1"},
        {redhat, "Debian GNU/Linux 12\n", "?|unknown|unknown"},
        {issue, "Debian GNU/Linux 12 \\n \\l\n", "debian|Debian|12"},
        {issue, "Fedora\n", "redhat|Fedora|unknown"},
        {issue, "Gentoo 2\n", "?|unknown|unknown"},
        {issue, "\n", "?|unknown|unknown"}};
    constexpr const char* families[] = {"?", "redhat", "debian"};
    for (const auto& [parse, text, expected] : rows) {
        os_release release;
        parse(text, release);
        EXPECT_EQ(fields(families[static_cast<int>(release.family)], release.name, release.version), expected)
            << text;
    }
    EXPECT_EQ(
        fields(os_report_name("Debian GNU/Linux"), os_report_name("CentOS Linux"), os_report_name("Red"),
               os_report_name("Amazon Linux AMI"), os_report_name("Amazon"), os_report_name("Ubuntu")),
        "Debian|CentOS|RHEL|AmazonLinux|AmazonLinux|Ubuntu");
}
