// The host counters: parsing of kernel and release files, and rates between samples.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <filesystem>

#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "test_helpers.h"

TEST(Cpu, PercentagesAreTruncatedSharesOfAllNineFields) {
    EXPECT_EQ(cpu_count("cpu  1 2\ncpu0 1\ncpu1 1\ncpu1 9\ncpux\nintr 5\n"), 3U);
    counter_of<tarn_mycustom_data_cpu> cpu;
    std::uint64_t iteration = 0;
    expect_table("cpu_samples.txt", [&](const std::string& sample) {
        cpu.data().ok = sample.front() - '0';
        cpu_parse_stat(sample.substr(2), cpu.data());
        cpu_operations.delta(cpu.counter, 60, iteration++);
        const auto& d = cpu.delta();
        return fields(d.ok, d.user, d.nice, d.system, d.idle, d.iowait, d.irq, d.softirq, d.steal, d.guest,
                      d.cputot);
    });
}

TEST(Disk, DevicesThatComeAndGoHaveRatesAndShares) {
    counter_of<tarn_mycustom_data_cpu> cpu;
    cpu.delta().ncpus = 2;
    stats.core_counters[core_cpu].data_delta = cpu.counter.data_delta;
    counter_of<tarn_mycustom_data_disk> disk;
    std::uint64_t iteration = 0;
    expect_table("disk_samples.txt", [&](const std::string& sample) {
        tarn::scanner words(sample);
        words.number(cpu.delta().cputot);
        disk.data().ok = 1;
        disk.data().mibdisk_list.clear();
        for (std::string_view name = words.word(); name != ":"; name = words.word())
            tarn::copy_terminated(disk.data().mibdisk_list.emplace_back().device, name);
        disk_parse_diskstats(words.rest(), disk.data());
        disk_operations.delta(disk.counter, 60, iteration++);
        std::string found = fields(disk.delta().ok);
        for (const mibdisk& rates : disk.delta().mibdisk_list) {
            found += fields(" ", rates.device, rates.ok);
            if (rates.ok == 0) continue;
            found += fields("", rates.rbytes, rates.sRead, rates.rticks, rates.wbytes, rates.sWritten,
                            rates.wticks, rates.tticks, rates.avio, rates.busy);
        }
        return found;
    });
    stats.core_counters[core_cpu] = {};
}

TEST(Net, AnInterfaceIsReportedFromTheThirdSample) {
    init_config();
    counter_of<tarn_mycustom_data_net> net;
    std::uint64_t iteration = 0;
    expect_table("net_samples.txt", [&](const std::string& lines) {
        net_parse_dev(
            "Inter-| h\n face |h\n" + lines, [](auto name) { return name == "veth1"; }, net.data());
        net.data().ok = 1;
        net_operations.delta(net.counter, 999, iteration++);
        std::string found = fields(net.delta().ok);
        for (const mibnet& rates : net.delta().mibnet_list)
            found += fields(" ", rates.device, rates.ok, rates.rbytes, rates.sbytes);
        return found;
    });
}

TEST(Mount, FilesystemsAreSelectedFromTheTable) {
    const mount_filter filter{true,
                              [](auto path) { return path == "/boot" || path.starts_with("/run/user/"); }};
    std::vector<mibmount> list;
    expect_table("mounts.txt", [&](std::string line) {
        std::FILE* const table = fmemopen(line.data(), line.size(), "r");
        mount_parse_table(*table, filter, list);
        std::fclose(table);
        return fields(list.size(), list.back().name);
    });
}

TEST(Mount, SizesAreInBlocksOfTheirOwnUnit) {
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
    expect_table("releases.txt", [&os](const std::string& files) {
        for (const auto& file : std::filesystem::directory_iterator("/etc"))
            std::filesystem::remove(file);
        std::istringstream lines(files);
        std::string name;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("> ")) {
                name = line.substr(2);
            } else {
                std::ofstream("/etc/" + name, std::ios::app) << line << "\n";
            }
        }
        os_operations.update(os.counter);
        return fields(os.data().os_name, os.data().os_version);
    });
    for (const std::string version : {"1", "2"}) {
        std::ofstream("/etc/issue") << "Debian " << version << "\n";
        os_operations.update(os.counter);
        EXPECT_EQ(os.data().os_version, version);
    }
    std::ofstream("/etc/os-release") << "ID=debian\nNAME=New\n";
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    for (const rlim_t descriptors : {rlim_t{0}, before.rlim_cur}) {
        const rlimit limit{descriptors, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        os_operations.update(os.counter);
    }
    EXPECT_STREQ(os.data().os_name, "New");
    ::umount2("/etc", MNT_DETACH);
}
