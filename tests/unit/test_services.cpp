#include <gtest/gtest.h>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_memcache.h"
#include "services/tarn_mysql.h"
#include "services/tarn_postgre.h"
#include "services/tarn_redis.h"
#include "services/tarn_service.h"
#include "services/tarn_sphinx.h"

namespace {

/// A counter of one kind, initialised from its configuration text; what that printed is kept.
template <typename Record>
struct service {
    tarn_mycustom_counter counter{};
    std::string printed;
    service(const char* text, mycustom_init init) {
        init_config();
        config.mysql_handle = config.postgre_handle = &config;  // something that is not null; never called
        tarn::fill_text(counter.cfg_string, text);
        testing::internal::CaptureStdout();
        init(counter);
        printed = testing::internal::GetCapturedStdout();
    }
    service(const service&) = delete;
    service& operator=(const service&) = delete;
    ~service() {
        tarn::release_records<Record>(counter);
        init_config();
    }
    Record& data() { return tarn::data_of<Record>(counter); }
    Record& delta() { return tarn::data_delta_of<Record>(counter); }
};

}  // namespace

TEST(Services, AddressesAreReadWithAndWithoutPassword) {
    struct {
        const char *text, *id, *user, *pass, *host, *container;
        std::uint32_t port;
    } const rows[] = {
        {"main user:pw@10.0.0.5:6380\n", "main", "user", "pw", "10.0.0.5", "", 6380},
        {"main user:@10.0.0.5:6380", "main", "user", "", "10.0.0.5", "", 6380},
        {"main user:pw@[cache]:6379", "main", "user", "pw", "[cache]", "cache", 6379},
        {"main u:p:q@h:1", "main", "u", "p", "q", "", 0},  // a password is one word without ':'
        {"main", "main", "", "", "", "", 0},
        {"", "", "", "", "", "", 0},
    };
    for (const auto& row : rows) {
        service<tarn_mycustom_data_redis> redis(row.text, redis_init);
        EXPECT_STREQ(redis.counter.id, row.id) << row.text;
        EXPECT_STREQ(redis.data().user, row.user) << row.text;
        EXPECT_STREQ(redis.data().pass, row.pass) << row.text;
        EXPECT_STREQ(redis.data().host, row.host) << row.text;
        EXPECT_STREQ(redis.data().docker_container_name, row.container) << row.text;
        EXPECT_EQ(redis.data().in_docker, row.container[0] != '\0' ? 1 : 0) << row.text;
        EXPECT_EQ(redis.data().port, row.port) << row.text;
    }
    const std::string longest(1000, 'x');
    service<tarn_mycustom_data_redis> cut((longest + " u:p@" + longest + ":1").c_str(), redis_init);
    EXPECT_EQ(cut.counter.id, longest.substr(0, 255));
    EXPECT_EQ(cut.data().host, longest.substr(0, 255));
    char name[128];
    EXPECT_EQ(tarn::read_container("[]", name), 0);
    EXPECT_EQ(tarn::read_container("[open", name), 1);
    EXPECT_STREQ(name, "open");
}

TEST(Services, InitSaysWhatItUnderstood) {
    EXPECT_EQ(service<tarn_mycustom_data_mysql>("db m:s@127.0.0.1:3306\n", mysql_init1).printed,
              "Mysql db init with m *** 127.0.0.1 3306 \n");
    EXPECT_EQ(service<tarn_mycustom_data_mysql>("db m:@localhost:/run/m.sock", mysql_init1).printed,
              "Mysql db init with m *** localhost 0 /run/m.sock\n");
    EXPECT_EQ(service<tarn_mycustom_data_postgre>("main u:p@h:5432", postgre_init).printed,
              "Postgre main init with u *** h 5432  \n");
    EXPECT_EQ(service<tarn_mycustom_data_postgre>("main u:@h:sock", postgre_init).printed,
              "Postgre main init with u *** h  sock \n");
    EXPECT_EQ(service<tarn_mycustom_data_memcache>("10.0.0.7:11211", memcache_init1).printed,
              "Memcache 10.0.0.7:11211 init with ip = 10.0.0.7  port = 11211, socket = \n");
    EXPECT_EQ(service<tarn_mycustom_data_memcache>("localhost:/run/m.sock", memcache_init1).printed,
              "Memcache localhost:/run/m.sock init with ip = localhost  port = 0, socket = /run/m.sock\n");
    EXPECT_EQ(service<tarn_mycustom_data_memcache>("[mc]:11211", memcache_init1).printed,
              "Memcache [mc]:11211 init with docker = mc, port = 11211\n");
    EXPECT_EQ(service<tarn_mycustom_data_beanstalk>("127.0.0.1:11300", beanstalk_init1).printed,
              "Beanstalk 127.0.0.1:11300 init with ip = 127.0.0.1  port = 11300 \n");
    testing::internal::CaptureStderr();
    service<tarn_mycustom_data_memcache> bad("nothing", memcache_init1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot initialize memcache on :0\n");
    EXPECT_EQ(bad.counter.update, nullptr);
    service<tarn_mycustom_data_sphinx> sphinx("s u:p@h:9306", sphinx_init);
    EXPECT_EQ(sphinx.printed, "");
    EXPECT_EQ(sphinx.data().ok, 1);
    EXPECT_EQ(sphinx.data().port, 9306U);
}

TEST(Services, RedisInfoIsReadByPrefix) {
    tarn_mycustom_data_redis data{};
    data.evicted_keys = 9;
    redis_parse_info(
        "# Server\r\nuptime_in_seconds:55\r\nused_memory:5368709120\r\nused_memory_rss:7\r\n"
        "rdb_last_bgsave_status:ok\r\nrole:slave\r\nmaster_link_status:up\r\n"
        "master_sync_left_bytes:-1\r\ndb0:keys=12,expires=3\r\ndb1:keys=99,expires=0\r\n"
        "keyspace_hits:99999999999999999999\r\nevicted_keys:",
        data);
    EXPECT_EQ(data.uptime, 55U);
    EXPECT_EQ(data.used_memory, 1073741824U);
    EXPECT_EQ(data.rdb_last_bgsave_status, 1U);
    EXPECT_STREQ(data.replica_role, "slave");
    EXPECT_EQ(data.master_link_status, 1U);
    EXPECT_EQ(data.master_sync_left_bytes, 0xFFFFFFFFU);
    EXPECT_EQ(data.num_of_keys, 12U);
    EXPECT_EQ(data.keyspace_hits, 0xFFFFFFFFU);
    EXPECT_EQ(data.evicted_keys, 9U);  // cut: the earlier value stays
    redis_parse_info("rdb_last_bgsave_status:err\r\nmaster_link_status:down\r\nconnected_clients:7", data);
    EXPECT_EQ(data.rdb_last_bgsave_status + data.master_link_status, 0U);
    EXPECT_EQ(data.connected_clients, 7U);
}

TEST(Services, NamedLinesGoByTheWholeName) {
    tarn_mycustom_data_memcache memcache{};
    memcache.hits = 4;
    memcache_parse_stats(
        "STAT pid 1\r\nSTAT cmd_get 18446744073709551615\r\nSTAT bytes 5\r\nSTAT bytes_read 6\r\n"
        "SET bytes 9\r\nSTAT get_hits\r\nSTAT limit_maxbytes 12",
        memcache);
    EXPECT_EQ(memcache.get, ~0ULL);
    EXPECT_EQ(memcache.bytes, 5U);
    EXPECT_EQ(memcache.read, 6U);
    EXPECT_EQ(memcache.hits, 0U);
    EXPECT_EQ(memcache.max_bytes, 12U);
    tarn_mycustom_data_beanstalk beanstalk{};
    beanstalk_parse_stats(
        "OK 900\r\n---\ncmd-put: 4\ncmd-put-x: 9\ncurrent-connections: 2\njob-timeouts: 3\nuptime: 8",
        beanstalk);
    EXPECT_EQ(beanstalk.put, 4U);
    EXPECT_EQ(beanstalk.connections, 2U);
    EXPECT_EQ(beanstalk.timeout, 3U);
    EXPECT_EQ(beanstalk.uptime, 8U);
}

TEST(Services, RatesWrapAtTheirOwnWidth) {
    EXPECT_EQ(tarn::per_minute<std::uint32_t>(130, 100, 15), 120U);
    EXPECT_EQ(tarn::per_minute<std::uint32_t>(100, 100, 15), 0U);
    EXPECT_EQ(tarn::per_minute<std::uint32_t>(99, 100, 1), 0xFFFFFFFFU - 59);
    EXPECT_EQ(tarn::per_minute<std::uint32_t>(100000000, 0, 60),
              (100000000U * 60U) / 60U);  // the product wraps
    EXPECT_EQ(tarn::per_minute<std::uint64_t>(99, 100, 1), ~0ULL - 59);
    EXPECT_EQ(tarn::per_minute<std::uint64_t>(1000, 0, 15), 4000U);
}

TEST(Services, AServiceIsReportedFromItsSecondGoodSampleInARow) {
    service<tarn_mycustom_data_redis> redis("main u:@h:1", redis_init);
    const auto cycle = [&](int ok, std::uint32_t commands, std::uint64_t iteration) {
        redis.data().ok = ok;
        redis.data().total_commands_processed = commands;
        redis_delta(redis.counter, 15, iteration);
        return redis.delta().ok != 0 ? static_cast<long>(redis.delta().total_commands_processed) : -1;
    };
    EXPECT_EQ(cycle(1, 100, 0), -1);
    EXPECT_EQ(cycle(1, 130, 1), 120);
    EXPECT_EQ(cycle(0, 130, 2), -1);
    EXPECT_EQ(cycle(1, 140, 3), -1);
    EXPECT_EQ(cycle(1, 141, 4), 4);
}

TEST(Services, LongRunningStatementsAreAskedForInTheseWords) {
    EXPECT_EQ(
        get_query_str("9"),
        "select count(*), 'CNT_ALL' AS name from pg_stat_activity where state = 'active' and now() - "
        "query_start > '9 "
        "sec'::interval UNION select count(*), 'CNT_SEL' AS name from pg_stat_activity where state = "
        "'active' and query "
        "ilike 'select%' and now() - query_start > '9 sec'::interval UNION select count(*), 'CNT_DML' AS "
        "name  from "
        "pg_stat_activity where state = 'active' and now() - query_start > '9 sec'::interval and query ~* "
        "'^(insert|update|delete)'");
    EXPECT_EQ(get_query_str_old("9"),
              "select count(*), 'CNT_ALL' AS name from pg_stat_activity where current_query != '<IDLE>' and "
              "now() - "
              "query_start > '9 sec'::interval UNION select count(*), 'CNT_SEL' AS name from "
              "pg_stat_activity where "
              "current_query != '<IDLE>' and current_query ilike 'select%' and now() - query_start > '9 "
              "sec'::interval UNION "
              "select count(*), 'CNT_DML' AS name  from pg_stat_activity where current_query != '<IDLE>' and "
              "now() - "
              "query_start > '9 sec'::interval and current_query ~* '^(insert|update|delete)'");
}
