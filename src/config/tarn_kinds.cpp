// The counter kinds, one row each: keyword, family, the part of the line that becomes the configuration text,
// and operations.
#include "config/tarn_kinds.h"

#include <array>
#include <cstdio>

#include "customs/tarn_custom.h"
#include "services/tarn_apache.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_elastic.h"
#include "services/tarn_fpm.h"
#include "services/tarn_memcache.h"
#include "services/tarn_mysql.h"
#include "services/tarn_nginx.h"
#include "services/tarn_postgre.h"
#include "services/tarn_rabbit.h"
#include "services/tarn_redis.h"
#include "services/tarn_sphinx.h"

namespace {

std::string_view after_prefix(const config_line& line, std::string_view keyword) {
    return line.after(keyword.size());
}

/// Also skips one separator.
std::string_view after_word(const config_line& line, std::string_view keyword) {
    return line.after(keyword.size() + 1);
}

std::string_view value_word(const config_line& line, std::string_view /*keyword*/) {
    return line.value;
}

/// The configuration text of a server-status script; at most 255 characters.
std::string_view status_script(const config_line& line, std::string_view keyword) {
    static std::array<char, 256> text;
    const std::string_view rest = line.after(keyword.size());
    std::snprintf(text.data(), text.size(), "general server_status uid=0 gid=0 interval=1 type=%d %.*s",
                  custom_type_status, static_cast<int>(rest.size()), rest.data());
    return text.data();
}

using enum key_match;
constexpr auto mysql_on = &tarn_config::mysql_on;
constexpr auto postgre_on = &tarn_config::postgre_on;

constexpr counter_kind kinds[] = {
    {"custom", prefix, custom_family, after_prefix, &custom_operations,
     "custom REPORT ID [SETTINGS] COMMAND"},
    {"server_status", prefix, custom_family, status_script, &custom_operations, "server_status COMMAND"},
    {"mysql_", prefix, mysql_family, after_prefix, &mysql_operations, "mysql_ID USER:PASSWORD@HOST:PORT",
     mysql_on},
    {"memcache", exact, memcache_family, value_word, &memcache_operations, "memcache HOST:PORT"},
    {"beanstalk", exact, beanstalk_family, value_word, &beanstalk_operations, "beanstalk HOST:PORT"},
    {"redis_", prefix, redis_family, after_prefix, &redis_operations, "redis_ID USER:PASSWORD@HOST:PORT"},
    {"sphinx", prefix, mycustom_family, after_word, &sphinx_operations, "sphinx_ID USER:PASSWORD@HOST:PORT",
     mysql_on},
    {"rabbit", prefix, mycustom_family, after_word, &rabbit_operations, "rabbit_ID USER:PASSWORD@HOST:PORT"},
    {"elastic", prefix, mycustom_family, after_word, &elastic_operations, "elastic_ID HOST:PORT NODE"},
    {"apache", prefix, mycustom_family, after_word, &apache_operations,
     "apache_ID [USER:PASSWORD@]HOST:PORT"},
    {"nginx", prefix, mycustom_family, after_word, &nginx_operations,
     "nginx_ID [USER:PASSWORD@]HOST:PORT/PATH SERVER"},
    {"fpm", prefix, mycustom_family, after_word, &fpm_operations, "fpm_ID HOST:PORT STATUSPATH"},
    {"postgresql_", prefix, mycustom_family, after_prefix, &postgre_operations,
     "postgresql_ID USER:PASSWORD@HOST:PORT", postgre_on},
};

void register_kind(const counter_kind& row, const config_line& line) {
    const tarn_family family = row.family();
    if (family.count < family.capacity()) {
        mycustom_register(family, row.text(line, row.keyword), *row.operations);
        if (row.library_flag != nullptr) config.*row.library_flag = 1;
        return;
    }
    std::printf("Too many %s counters (%d at most), line ignored\n", row.keyword.data(),
                static_cast<int>(family.capacity()));
}

}  // namespace

std::span<const counter_kind> counter_kinds() {
    return kinds;
}

void register_counter(const config_line& line) {
    for (const counter_kind& row : kinds) {
        if (!matches(line.key, row.keyword, row.match)) continue;
        register_kind(row, line);
        return;
    }
}
