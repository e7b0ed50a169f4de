// The counter kinds, one row each: the keyword of their lines, the family that they join, the part of the
// line that they get as their text, and their operations.
#include "config/tarn_kinds.h"

#include <array>
#include <cstdio>

#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "scripts/tarn_custom.h"
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

/// How the text of a counter is cut from its line.
using cut = std::string_view (*)(const config_line& line, std::string_view word);

std::string_view after_prefix(const config_line& line, std::string_view word) {
    return line.after(word.size());
}

/// Passes over one separator as well.
std::string_view after_word(const config_line& line, std::string_view word) {
    return line.after(word.size() + 1);
}

std::string_view value_word(const config_line& line, std::string_view /*word*/) {
    return line.value;
}

/// A line of its own for the script counter that watches the server as a whole; at most 255 characters.
std::string_view status_script(const config_line& line, std::string_view word) {
    static std::array<char, 256> text;
    const std::string_view rest = line.after(word.size());
    std::snprintf(text.data(), text.size(), "general server_status uid=0 gid=0 interval=1 type=%d %.*s",
                  custom_type_status, static_cast<int>(rest.size()), rest.data());
    return text.data();
}

struct kind {
    std::string_view word;
    key_match match;
    tarn_family (*family)();
    cut text;
    tarn_operations operations;
    int tarn_config::*needs = nullptr;  ///< set to 1 when such a counter is there
};

constexpr tarn_operations custom_operations = {custom_init,   nullptr,     custom_update, custom_delta,
                                               custom_tobson, custom_dump, custom_free};

/// The first row that matches takes the line; the settings have been tried before.
constexpr kind kinds[] = {
    {"custom", key_match::prefix, custom_family, after_prefix, custom_operations},
    {"server_status", key_match::prefix, custom_family, status_script, custom_operations},
    {"mysql_",
     key_match::prefix,
     mysql_family,
     after_prefix,
     {mysql_init1, nullptr, mysql_update, mysql_delta, mysql_tobson, mysql_dump, mysql_free},
     &tarn_config::mysql_on},
    {"memcache",
     key_match::exact,
     memcache_family,
     value_word,
     {memcache_init1, nullptr, memcache_update, memcache_delta, memcache_tobson, memcache_dump,
      memcache_free}},
    {"beanstalk",
     key_match::exact,
     beanstalk_family,
     value_word,
     {beanstalk_init1, nullptr, beanstalk_update, beanstalk_delta, beanstalk_tobson, beanstalk_dump,
      beanstalk_free}},
    {"redis_",
     key_match::prefix,
     redis_family,
     after_prefix,
     {redis_init, nullptr, redis_update, redis_delta, redis_tobson, redis_dump, redis_free}},
    {"sphinx",
     key_match::prefix,
     mycustom_family,
     after_word,
     {sphinx_init, sphinx_reinit, sphinx_update, sphinx_delta, sphinx_tobson, sphinx_dump, sphinx_free},
     &tarn_config::mysql_on},
    {"rabbit",
     key_match::prefix,
     mycustom_family,
     after_word,
     {rabbit_init, rabbit_reinit, rabbit_update, rabbit_delta, rabbit_tobson, rabbit_dump, rabbit_free}},
    {"elastic",
     key_match::prefix,
     mycustom_family,
     after_word,
     {elastic_init, elastic_reinit, elastic_update, elastic_delta, elastic_tobson, elastic_dump,
      elastic_free}},
    {"apache",
     key_match::prefix,
     mycustom_family,
     after_word,
     {apache_init, nullptr, apache_update, apache_delta, apache_tobson, apache_dump, apache_free}},
    {"nginx",
     key_match::prefix,
     mycustom_family,
     after_word,
     {nginx_init, nullptr, nginx_update, nginx_delta, nginx_tobson, nginx_dump, nginx_free}},
    {"fpm",
     key_match::prefix,
     mycustom_family,
     after_word,
     {fpm_init, nullptr, fpm_update, fpm_delta, fpm_tobson, fpm_dump, fpm_free}},
    {"postgresql_",
     key_match::prefix,
     mycustom_family,
     after_prefix,
     {postgre_init, postgre_reinit, postgre_update, postgre_delta, postgre_tobson, postgre_dump,
      postgre_free},
     &tarn_config::postgre_on},
};

void register_kind(const kind& row, const config_line& line) {
    const tarn_family family = row.family();
    if (family.count < family.capacity()) {
        mycustom_register(family, row.text(line, row.word), row.operations);
        if (row.needs != nullptr) config.*row.needs = 1;
        return;
    }
    std::printf("Too many %s counters (%d at most), line ignored\n", row.word.data(),
                static_cast<int>(family.capacity()));
}

}  // namespace

void register_counter(const config_line& line) {
    for (const kind& row : kinds) {
        if (!matches(line.key, row.word, row.match)) continue;
        register_kind(row, line);
        return;
    }
}
