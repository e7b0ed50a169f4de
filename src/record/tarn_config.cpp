// The configuration record and the defaults that hold until an option or a file changes them.
#include "record/tarn_config.h"

#include <netinet/in.h>

#include <array>

#include "support/tarn_text.h"

tarn_config config;

namespace {

/// Mount points that are never worth a disk alert. No key removes one.
constexpr std::array<std::string_view, 10> default_path_masks{
    "/dev/shm", "/run/lock", "/run/shm",     "/run",      "/boot",
    "/dev",     "/proc/sys", "/lib/init/rw", "/boot/efi", "/run/user/*"};

}  // namespace

int init_config() {
    config = {};
    tarn::copy_terminated(config.configFile, "/etc/tarn.conf");
    tarn::copy_terminated(config.extConfigPattern, "/etc/tarn.d/*.conf");
    for (const std::string_view mask : default_path_masks) {
        tarn::copy_terminated(config.path_exclude_masks[config.path_exclude_masks_count++], mask);
    }

    config.interval = 15;
    config.proto = IPPROTO_UDP;
    config.port = 8641;

    config.custom_counters_delimiter = 4;
    config.custom_default_uid = 65534;
    config.custom_default_gid = 65534;
    config.custom_default_timeout = 5;

    config.counter_tcp_to = 2;
    config.server_tcp_to = 4;
    config.mysql_write_to = 3;
    config.mysql_read_to = 3;
    config.mysql_connect_to = 10;
    tarn::copy_terminated(config.slow_query_sec, "100");
    config.apacheSlashed = 1;
    tarn::copy_terminated(config.mysql_lib, "libmysqlclient.so");
    tarn::copy_terminated(config.postgre_lib, "libpq.so");
    return 0;
}
