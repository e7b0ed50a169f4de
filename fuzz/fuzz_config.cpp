// A configuration file: settings, counter lines, and the configuration text of every kind.
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "config/tarn_config_files.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "record/tarn_walk.h"
#include "support/tarn_text.h"

/// An id in the file makes a block of shared memory, which must not be that of a running agent.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return ::unshare(CLONE_NEWIPC);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const int file = ::memfd_create("tarn.conf", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (::ftruncate(file, 0) != 0 || ::pwrite(file, bytes, size, 0) < 0) return -1;

    stats = {};
    init_config();
    tarn::copy_terminated(config.configFile, path);
    tarn::copy_terminated(config.extConfigPattern, "/no/more/files");
    parse_config();
    config.mysql_handle = config.postgre_handle = &config;  // not null, and never used
    for (const tarn_family& family : {mysql_family(), custom_family(), mycustom_family(), memcache_family(),
                                      beanstalk_family(), redis_family()}) {
        tarn::visit("", family, tarn::call<&tarn_mycustom_counter::init>);
        tarn::visit("", family, tarn::call<&tarn_mycustom_counter::free>);
    }
    docker_free(config.docker);
    return 0;
}
