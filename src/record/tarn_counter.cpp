// The statistics record, its families, and how a family's next slot becomes a counter.
#include "record/tarn_counter.h"

#include <algorithm>
#include <limits>

#include "support/tarn_text.h"

tarn_stats stats;

std::size_t tarn_family::capacity() const {
    return std::min<std::size_t>(slots.size(), std::numeric_limits<std::uint8_t>::max());
}

tarn_family core_family() {
    return {stats.core_counters, stats.ncore_counters};
}

tarn_family mysql_family() {
    return {stats.mysql_counters, stats.nmysql_counters};
}

tarn_family custom_family() {
    return {stats.custom_counters, stats.ncustom_counters};
}

tarn_family mycustom_family() {
    return {stats.mycustom_counters, stats.nmycustoms};
}

tarn_family memcache_family() {
    return {stats.memcache_counters, stats.nmemcache_counters};
}

tarn_family beanstalk_family() {
    return {stats.beanstalk_counters, stats.nbeanstalk_counters};
}

tarn_family redis_family() {
    return {stats.redis_counters, stats.nredis_counters};
}

int mycustom_set(tarn_mycustom_counter& cnt, std::string_view cfg_string, const tarn_operations& operations) {
    tarn::copy_padded(cnt.cfg_string, cfg_string);
    cnt.init = operations.init;
    cnt.reinit = operations.reinit;
    cnt.update = operations.update;
    cnt.delta = operations.delta;
    cnt.tobson = operations.tobson;
    cnt.dump = operations.dump;
    cnt.free = operations.free;
    return 1;
}

void mycustom_register(tarn_family family, std::string_view cfg_string, const tarn_operations& operations) {
    mycustom_set(family.slots[family.count], cfg_string, operations);
    ++family.count;
}
