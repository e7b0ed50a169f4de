// The sample configuration sets the client libraries and nothing else, and each line that it offers is
// accepted.
#include <algorithm>
#include <fstream>

#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "config/tarn_settings.h"
#include "docker/tarn_docker_core.h"
#include "test_helpers.h"

namespace {

std::vector<std::string> sample_lines() {
    std::vector<std::string> lines;
    std::ifstream file(SAMPLE_FILE);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

/// Every field that a line can set, but for the libraries.
std::string settings() {
    return fields(config.id, config.uuid, config.server_name, config.project_name, config.project_secret,
                  config.interval, config.proto, config.port, config.serverName, config.defaultServerIp,
                  config.dns_servers_count, config.dns_servers[0], config.path_exclude_masks_count,
                  config.path_exclude_masks[10], config.exclude_tmpfs, config.interface_exclude_masks_count,
                  config.interface_exclude_masks[0], tarn::text_of(config.secret),
                  config.custom_counters_delimiter, config.custom_default_uid, config.custom_default_gid) +
           "|" +
           fields(config.counter_tcp_to, config.server_tcp_to, config.mysql_write_to, config.mysql_read_to,
                  config.mysql_connect_to, tarn::text_of(config.slow_query_sec), config.apacheSlashed,
                  config.docker_sock_path);
}

std::string libraries() {
    return fields(tarn::text_of(config.mysql_lib), tarn::text_of(config.postgre_lib));
}

/// Report and id, or else the configuration text, of each registered counter, and what its init prints if
/// that names a fault.
std::string counters() {
    std::string text;
    for (const tarn_family family : {mysql_family(), custom_family(), mycustom_family(), memcache_family(),
                                     beanstalk_family(), redis_family()}) {
        for (tarn_mycustom_counter& counter : family.slots.first(family.count)) {
            const std::string printed = printed_by([&] { counter.init(counter); });
            // Those of the client libraries are initialised only if these are loaded.
            text += counter.report[0] != '\0' ? fields(counter.report, counter.id) : counter.cfg_string;
            for (const char* const fault : {"Cannot", "no command", "not allowed", "not a number"})
                if (printed.find(fault) != std::string::npos) text += "|" + printed;
            counter.free(counter);
        }
    }
    return text;
}

/// Applies a line; false when no key or kind accepts it.
bool apply(std::string_view text) {
    const config_line line = split_config_line(text);
    if (line.key.empty()) return false;
    if (apply_setting(line) != line_result::unknown) return true;
    const auto count = [] {
        return stats.nmysql_counters + stats.ncustom_counters + stats.nmycustoms + stats.nmemcache_counters +
               stats.nbeanstalk_counters + stats.nredis_counters;
    };
    const int before = count();
    register_counter(line);
    return count() > before;
}

/// The first word of a line, without the "#" of one that is offered.
std::string_view key_of(std::string_view line) {
    line.remove_prefix(line.starts_with('#') ? 1 : 0);
    return line.substr(0, line.find(' '));
}

void reset() {
    docker_free(config.docker);
    stats = {};
    init_config();
}

}  // namespace

TEST(Sample, SetsTheLibrariesAndNothingElse) {
    reset();
    const std::string defaults = settings();
    std::vector<std::string> applied;
    for (const std::string& line : sample_lines())
        if (apply(line)) applied.push_back(line);
    EXPECT_EQ(applied, (std::vector<std::string>{"mysql_lib libmariadb.so.3", "postgre_lib libpq.so.5"}));
    EXPECT_EQ(settings(), defaults);
    EXPECT_EQ(libraries(), "libmariadb.so.3|libpq.so.5");
}

TEST(Sample, EachLineThatItOffersIsAcceptedAndShowsTheDefaultIfThereIsOne) {
    reset();
    const std::string defaults = settings();
    std::vector<std::string> effects;
    for (const std::string& line : sample_lines()) {
        if (line.size() < 2 || line[0] != '#' || line[1] == ' ') continue;
        reset();
        bool is_accepted = false;
        printed_by([&] { is_accepted = apply(line.substr(1)); });
        EXPECT_TRUE(is_accepted) << line;
        const std::string key(key_of(line));
        const std::string effect = counters();
        if (!effect.empty())
            effects.push_back(key + " " + effect);
        else if (settings() != defaults)
            effects.push_back(key);
    }
    const std::vector<std::string> expected{"id",
                                            "uuid",
                                            "server_name",
                                            "project_name",
                                            "project_secret",
                                            "address",
                                            "domain",
                                            "nameserver",
                                            "proto",
                                            "secret",
                                            "exclude_mount",
                                            "exclude_interfaces",
                                            "redis_cache Redis|cache",
                                            "redis_main Redis|main",
                                            "mysql_main main tarn:change-me@127.0.0.1:3306",
                                            "postgresql_main main tarn:change-me@127.0.0.1:5432",
                                            "memcache Memcache|127.0.0.1:11211",
                                            "beanstalk Beanstalk|127.0.0.1:11300",
                                            "sphinx_main main x:@127.0.0.1:9306",
                                            "rabbit_main Rabbit|main",
                                            "elastic_main Elastic|main",
                                            "apache_main Apache|main",
                                            "nginx_main Nginx|main",
                                            "fpm_www FPM|www",
                                            "docker_sock",
                                            "custom disks|raid",
                                            "server_status general|server_status"};
    EXPECT_EQ(effects, expected);
    reset();
}

TEST(Sample, HasEachKeyAndEachKind) {
    const std::vector<std::string> lines = sample_lines();
    const auto has = [&lines](std::string_view keyword, key_match match) {
        return std::ranges::any_of(
            lines, [&](const std::string& line) { return matches(key_of(line), keyword, match); });
    };
    for (const setting& row : config_settings())
        EXPECT_TRUE(has(row.keyword, key_match::exact)) << row.keyword;
    for (const counter_kind& row : counter_kinds())
        EXPECT_TRUE(has(row.keyword, row.match)) << row.keyword;
}
