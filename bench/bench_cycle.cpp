// The sample cycle of the host, compared with its floor: the same files are opened, read and closed, the same
// directory is read and the same filesystems are queried, and the results are discarded.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "bench_host.h"
#include "core/tarn_core.h"
#include "host/tarn_mount.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "report/tarn_bson.h"
#include "report/tarn_sign.h"
#include "support/tarn_files.h"

std::size_t one_cycle() {
    static std::vector<std::uint8_t> packet;
    updateCounters();
    deltaCounters(1);
    sign(stats_to_bson(), "secret", packet);
    return packet.size();
}

host_counters::host_counters() {
    stats = {};  // a benchmark of a service may have left its counter
    init_config();
    config.id = 7;
    setCoreCounters();
    initCounters(0);
    one_cycle();
    one_cycle();
}

host_counters::~host_counters() {
    freeCounters();
}

namespace {

void read_once(int directory, const char* path) {
    static std::array<char, 65536> buffer;
    const tarn::unique_fd file(::openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (file) benchmark::DoNotOptimize(::read(file.get(), buffer.data(), buffer.size()));
}

}  // namespace

void read_same_files(const std::vector<std::string>& mounts) {
    for (const char* const path :
         {"/etc/os-release", "/proc/self/statm", "/proc/sys/fs/file-nr", "/proc/meminfo", "/proc/vmstat",
          "/proc/stat", "/proc/loadavg", "/proc/net/sockstat", "/proc/diskstats", "/proc/net/dev"}) {
        read_once(AT_FDCWD, path);
    }
    for (const std::string& mount : mounts) {
        struct statvfs figures {};
        benchmark::DoNotOptimize(::statvfs(mount.c_str(), &figures));
    }
    tarn::directory_reader sys_block("/sys/block");
    while (const char* const device = sys_block.next()) {
        char target = '\0';
        const std::string path(device);
        if (::readlinkat(sys_block.fd(), (path + "/device").c_str(), &target, 1) < 0) continue;
        read_once(sys_block.fd(), (path + "/removable").c_str());
    }
}

std::vector<std::string> measured_mounts() {
    const host_counters counters;
    std::vector<std::string> mounts;
    for (const mibmount& mount :
         tarn::data_of<tarn_mycustom_data_mount>(stats.core_counters[core_mount]).mibmount_list) {
        mounts.emplace_back(mount.name);
    }
    return mounts;
}

namespace {

void cycle(benchmark::State& state) {
    const host_counters counters;
    std::size_t bytes = 0;
    const std::size_t before = allocations();
    for (auto _ : state)
        bytes = one_cycle();
    state.counters["allocations"] =
        static_cast<double>(allocations() - before) / static_cast<double>(state.iterations());
    state.counters["packet_bytes"] = static_cast<double>(bytes);
}

void floor_of_cycle(benchmark::State& state) {
    const std::vector<std::string> mounts = measured_mounts();
    for (auto _ : state)
        read_same_files(mounts);
}

BENCHMARK(cycle)->Name("cycle")->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly();
BENCHMARK(floor_of_cycle)
    ->Name("floor")
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly();

}  // namespace
