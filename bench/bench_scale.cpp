// The cycle with faked tables of interfaces and disks: the time per item must stay constant. The tables are
// mounted over the kernel's in a private mount namespace.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench_host.h"

namespace {

namespace fs = std::filesystem;

/// Replaces the kernel's tables with ones of `count` interfaces and disks for the lifetime of this object.
class faked_tables final {
  public:
    explicit faked_tables(long count) {
        std::string name = "/tmp/tarn-bench-XXXXXX";
        root_ = ::mkdtemp(name.data());
        fs::create_directories(root_ / "net");
        std::ofstream dev(root_ / "net/dev");
        std::ofstream diskstats(root_ / "diskstats");
        dev << "Inter-|\n face |\n";
        for (long n = 0; n < count; ++n) {
            const std::string number = std::to_string(n);
            dev << "if" << number << ": 123456 123 0 0 0 0 0 0 654321 123 0 0 0 0 0 0\n";
            diskstats << "   8 " << number << " d" << number << " 1 2 3 4 5 6 7 8 9 10 11\n";
            const fs::path device = root_ / "block" / ("d" + number);
            fs::create_directories(device);
            fs::create_symlink("hardware", device / "device");
            std::ofstream(device / "removable") << "0\n";
        }
        ok_ = ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        dev.close();
        diskstats.close();
        for (const auto& [file, target] : targets) {
            ok_ = ok_ && ::mount((root_ / file).c_str(), target, nullptr, MS_BIND, nullptr) == 0;
        }
    }
    ~faked_tables() {
        for (const auto& [file, target] : targets)
            ::umount2(target, MNT_DETACH);
        fs::remove_all(root_);
    }
    faked_tables(const faked_tables&) = delete;
    faked_tables& operator=(const faked_tables&) = delete;

    explicit operator bool() const { return ok_; }

  private:
    static constexpr std::pair<const char*, const char*> targets[] = {
        {"net", "/proc/self/net"}, {"diskstats", "/proc/diskstats"}, {"block", "/sys/block"}};
    fs::path root_;
    bool ok_ = false;
};

void scale(benchmark::State& state) {
    const faked_tables tables(state.range(0));
    if (!tables) {
        state.SkipWithError("needs root, for a mount namespace");
        return;
    }
    const host_counters counters;
    for (auto _ : state)
        benchmark::DoNotOptimize(one_cycle());
    state.counters["time_per_item"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(scale)->Name("scale")->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
