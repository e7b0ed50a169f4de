// Cycles of the host counters, with one file in place of every file that they read.
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "core/tarn_core.h"
#include "record/tarn_config.h"
#include "report/tarn_bson.h"

/// In a namespace, so that only this process sees the file.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0) std::abort();
    ::mount("", "/sys/block", "tmpfs", 0, "");
    std::filesystem::create_directories("/sys/block/sda/device");
    std::ofstream("/sys/block/sda/removable") << "0\n";
    std::ofstream("/sys/block/text").flush();
    for (const char* const file :
         {"/proc/stat", "/proc/loadavg", "/proc/meminfo", "/proc/vmstat", "/proc/diskstats", "/proc/net/dev",
          "/proc/net/sockstat", "/proc/self/mounts", "/proc/self/statm", "/proc/sys/fs/file-nr",
          "/etc/os-release", "/etc/issue"})
        ::mount("/sys/block/text", file, "", MS_BIND, "");
    return init_config();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    std::ofstream("/sys/block/text").write(reinterpret_cast<const char*>(bytes), static_cast<long>(size));
    setCoreCounters();
    initCounters(0);
    for (const unsigned cycle : {0U, 1U, 2U}) {
        updateCounters();
        deltaCounters(cycle);
        dumpCounters();
        stats_to_bson();
    }
    freeCounters();
    return 0;
}
