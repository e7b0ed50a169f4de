#include "record/tarn_rates.h"

#include <functional>

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
#include "services/tarn_service.h"
#include "test_helpers.h"

TEST(Services, AddressesAreReadWithAndWithoutPassword) {
    const std::string longest(1000, 'x'), cut(255, 'x');
    // Id, user, password, host, port, container. A password is one word without ':'.
    const std::pair<std::string, std::string> rows[] = {
        {"main user:pw@10.0.0.5:6380\n", "main|user|pw|10.0.0.5|6380|0|"},
        {"main user:@10.0.0.5:6380", "main|user||10.0.0.5|6380|0|"},
        {"main user:pw@[cache]:6379", "main|user|pw|[cache]|6379|1|cache"},
        {"main user:pw@[open", "main|user|pw|[open|0|1|open"},
        {"main user:pw@[]", "main|user|pw|[]|0|0|"},
        {"main u::pw@h:1", "main|u|pw|h|1|0|"},
        {"main u:p:q@h:1", "main|u|p|q|0|0|"},
        {"main", "main||||0|0|"},
        {longest + " u:p@" + longest + ":1", cut + "|u|p|" + cut + "|1|0|"}};
    for (const auto& [text, expected] : rows) {
        counter_of<tarn_mycustom_data_redis> redis(text, redis_init);
        const auto& data = redis.data();
        EXPECT_EQ(fields(redis.counter.id, data.user, data.pass, data.host, data.port, data.in_docker,
                         data.docker_container_name),
                  expected);
    }
}

TEST(Services, InitSaysWhatItUnderstood) {
    const std::tuple<mycustom_init, mycustom_free, const char*, const char*> rows[] = {
        {mysql_init1, mysql_free, "db m:s@127.0.0.1:3306\n", "Mysql db init with m *** 127.0.0.1 3306 \n"},
        {mysql_init1, mysql_free, "db m:@localhost:/m", "Mysql db init with m *** localhost 0 /m\n"},
        {postgre_init, postgre_free, "a u:p@h:5432", "Postgre a init with u *** h 5432  \n"},
        {postgre_init, postgre_free, "a u:@h:sock", "Postgre a init with u *** h  sock \n"},
        {memcache_init1, memcache_free, "h:11", "Memcache h:11 init with ip = h  port = 11, socket = \n"},
        {memcache_init1, memcache_free, "h:/m", "Memcache h:/m init with ip = h  port = 0, socket = /m\n"},
        {memcache_init1, memcache_free, "[mc]:1", "Memcache [mc]:1 init with docker = mc, port = 1\n"},
        {beanstalk_init1, beanstalk_free, "h:11300", "Beanstalk h:11300 init with ip = h  port = 11300 \n"},
        {nginx_init, nginx_free, "a h:80/status www\n", "Nginx a init with  *** h 80 status \n"},
        {nginx_init, nginx_free, "a u:pw@h:80/s x", "Nginx a init with u *** h 80 s dTpwdw==\n"},
        {nginx_init, nginx_free, "a [web]:80/a/b x", "Nginx a init with  *** [web] 80 a \n"},
        {nginx_init, nginx_free, "a h:port/a x", "Nginx a init with  *** h 0  \n"},
        {apache_init, apache_free, "a u:p@h:81", "Apache a init with u *** h 81 dTpw\n"},
        {apache_init, apache_free, "a u:@h:81", "Apache a init with u *** h 81 \n"},
        {fpm_init, fpm_free, "a h:9 /s", "FPM a init with host: h port: 9  status: /s socket: \n"},
        {fpm_init, fpm_free, "a unix:/p /s\n",
         "FPM a init with host: unix port: 0  status: /s socket: /p\n"}};
    init_config();
    config.mysql_handle = config.postgre_handle = &config;  // something that is not null; never called
    for (const auto& [init, release, text, printed] : rows) {
        tarn_mycustom_counter counter{};
        tarn::fill_text(counter.cfg_string, text);
        EXPECT_EQ(printed_by(std::bind_front(init, std::ref(counter))), printed);
        release(counter);
    }
    counter_of<tarn_mycustom_data_memcache> bad("nothing", memcache_init1);
    EXPECT_EQ(bad.counter.update, nullptr);
}

TEST(Services, RedisInfoIsReadByPrefix) {
    tarn_mycustom_data_redis data{};
    data.evicted_keys = 9;
    const auto read = [&data](const char* reply) {
        redis_parse_info(reply, data);
        return fields(data.uptime, data.used_memory, data.rdb_last_bgsave_status, data.replica_role,
                      data.master_link_status, data.master_sync_left_bytes, data.num_of_keys,
                      data.keyspace_hits, data.evicted_keys);
    };
    EXPECT_EQ(read("# Server\r\nuptime_in_seconds:55\r\nused_memory:5368709120\r\nused_memory_rss:7\r\n"
                   "rdb_last_bgsave_status:ok\r\nrole:slave\r\nmaster_link_status:up\r\n"
                   "master_sync_left_bytes:-1\r\ndb0:keys=12,expires=3\r\ndb1:keys=99,expires=0\r\n"
                   "keyspace_hits:99999999999999999999\r\nevicted_keys:"),
              "55|1073741824|1|slave|1|4294967295|12|4294967295|9");  // the cut line keeps its value
    EXPECT_EQ(read("rdb_last_bgsave_status:err\r\nmaster_link_status:down\r\nevicted_keys:7"),
              "55|1073741824|0|slave|0|4294967295|12|4294967295|7");
}

TEST(Services, NamedLinesGoByTheWholeName) {
    tarn_mycustom_data_memcache memcache{};
    memcache.hits = 4;
    memcache_parse_stats(
        "STAT cmd_get 18446744073709551615\r\nSTAT bytes 5\r\nSTAT bytes_read 6\r\nSET bytes 9\r\nSTAT "
        "get_hits",
        memcache);
    EXPECT_EQ(fields(memcache.get, memcache.bytes, memcache.read, memcache.hits),
              "18446744073709551615|5|6|0");
    tarn_mycustom_data_beanstalk beanstalk{};
    beanstalk_parse_stats(
        "OK 900\r\n---\ncmd-put: 4\ncmd-put-x: 9\ncurrent-connections: 2\njob-timeouts: 3\nuptime: 8",
        beanstalk);
    EXPECT_EQ(fields(beanstalk.put, beanstalk.connections, beanstalk.timeout, beanstalk.uptime), "4|2|3|8");
    // Only the first line may end at a carriage return alone.
    beanstalk_parse_stats("OK\ruptime: 6\ncmd-put: 7\rcmd-put: 9", beanstalk);
    EXPECT_EQ(fields(beanstalk.put, beanstalk.uptime), "7|6");
    memcache_parse_stats("x\rSTAT bytes 7\nSTAT cmd_set 2\rSTAT cmd_set 3", memcache);
    EXPECT_EQ(fields(memcache.bytes, memcache.set), "7|2");
}

TEST(Services, RatesWrapAtTheirOwnWidth) {
    using tarn::per_minute;
    EXPECT_EQ(per_minute<std::uint32_t>(130, 100, 15), 120U);
    EXPECT_EQ(per_minute<std::uint32_t>(99, 100, 1), 0xFFFFFFFFU - 59);
    EXPECT_EQ(per_minute<std::uint32_t>(100000000, 0, 60), (100000000U * 60U) / 60U);  // the product wraps
    EXPECT_EQ(per_minute<std::uint64_t>(99, 100, 1), ~0ULL - 59);
    EXPECT_EQ(per_minute<std::uint64_t>(100000000, 0, 60), 100000000U);
    EXPECT_EQ(tarn::increase_per_second(190, 100, 60), 1.5);
    EXPECT_EQ(tarn::increase_per_second(40, 190, 60), 0.0);

    counter_of<tarn_mycustom_data_apache> apache;
    auto& before = tarn::data_prev_of<tarn_mycustom_data_apache>(apache.counter);
    before.ok = apache.data().ok = 1;
    before.totalAccesses = 1300;
    apache_delta(apache.counter, 60, 1);
    EXPECT_EQ(apache.delta().totalAccesses, (0ULL - 1300) / 60);
}

TEST(Services, LongRunningStatementsAreAskedForInTheseWords) {
    expect_golden("long_running.txt", get_query_str("9") + "\n" + get_query_str_old("9") + "\n");
}

TEST(Services, NginxStatusIsReadLineByLine) {
    tarn_mycustom_data_nginx data{};
    data.active = 9;
    const auto read = [&data](const char* page) {
        const int result = nginx_parse_res(page, data);
        return fields(result, data.active, data.all, data.reading, data.writing, data.keepalive);
    };
    EXPECT_EQ(read("\n\n"), "0|9|0|0|0|0");
    EXPECT_EQ(read("HTTP/1.1 200\r\n\r\nActive connections: 3 \nserver accepts handled requests\n 10 10 25 \n"
                   "Reading: 4 Writing:5 Waiting: 6 \n"),
              "1|3|25|4|5|6");
    EXPECT_EQ(read("HTTP/1.1 404\r\n<html>"), "1|0|0|0|0|0");
    // The line behind the title is taken for the totals, whatever it is.
    EXPECT_EQ(read("server accepts handled requests\nReading: 1 Writing: 2\nReading: 7 Writing: x"),
              "1|0|0|7|0|0");
}

TEST(Services, ApacheScoreboardIsCountedByLetter) {
    tarn_mycustom_data_apache data{};
    const auto read = [&data](const char* page) {
        const int result = apache_parse_res(page, data);
        return fields(result, data.totalAccesses, data.busyWorkers, data.idleWorkers, data.scWaiting,
                      data.scReading, data.scKeepalive, data.scIdlecleanup, data.scDns, data.scFinishing,
                      data.scClosing, data.scLogging);
    };
    EXPECT_EQ(read(""), "0|0|0|0|0|0|0|0|0|0|0|0");
    EXPECT_EQ(read("Total Accesses: 1000\nBusyWorkers: 2\nIdleWorkers: 8\nScoreboard: "
                   "_WRRKKKIIIIDDDDDGGGGGGCCCCCCCLLLLLLLLS..\n"),
              "1|1000|2|8|1|2|3|4|5|6|7|8");
    EXPECT_EQ(read("nothing"), "1|0|0|0|0|0|0|0|0|0|0|0");
}

TEST(Services, RabbitFiguresAreScaled) {
    tarn_mycustom_data_rabbit data{};
    const auto node = [&data](const char* body) {
        const int result = rabbit_parse_node_items(body, data);
        return fields(result, data.fd_used_perc, data.proc_used_perc, data.disk_left, data.mem_left,
                      data.mem_used_perc, data.processors, data.running);
    };
    EXPECT_EQ(node(R"([{"fd_used":30,"fd_total":120,"running":false}])"), "1|25|0|0|0|0|0|0");
    EXPECT_EQ(node(R"([{"mem_used":5,"disk_free_limit":1,"processors":9}])"), "1|0|0|0|0|0|9|-1");
    for (const char* const none : {"[]", "[1]", "{}", "", "nonsense"}) {
        data.processors = 9;
        EXPECT_EQ(node(none), "0|0|0|0|0|0|0|0") << none;
    }
    const auto queues = [&data](const char* body) {
        const int result = rabbit_parse_queues_items(body, data);
        return fields(result, data.queues_count, data.queues_sum_len);
    };
    EXPECT_EQ(queues(R"([{"messages":3},7,{"name":"empty"},{"messages":4}])"), "1|3|7");
    EXPECT_EQ(queues("{}"), "0|3|7");
    EXPECT_EQ(queues("[]"), "1|0|0");
}

TEST(Services, AnElasticNodeMayHoldColons) {
    const std::pair<const char*, const char*> rows[] = {{"a:b h:9200 n:1\n", "a:b|h|9200|n:1|0"},
                                                        {"a [box]:9200 n", "a|[box]|9200|n|1"},
                                                        {"a h n", "a|h n|0||0"},
                                                        {"a :9200 n", "a||0||0"}};
    for (const auto& [text, expected] : rows) {
        counter_of<tarn_mycustom_data_elastic> elastic(text, elastic_init);
        const auto& data = elastic.data();
        EXPECT_EQ(fields(elastic.counter.id, data.host, data.port, data.node_name, data.in_docker), expected);
    }
}

TEST(Services, ElasticFiguresAreSummedOverThePools) {
    tarn_mycustom_data_elastic data{};
    tarn::copy_text(data.node_name, "n1");
    const auto node = [&data](const char* body) {
        int result = -1;
        const std::string printed = printed_by([&] { result = elastic_parse_node_items(body, data); });
        return fields(result, data.threads_search_queue, data.threads_search_active, data.node_queue_size,
                      data.node_active_size, printed);
    };
    EXPECT_EQ(node(R"({"nodes":{"n1":{"thread_pool":{"search":{"queue":2,"active":3},)"
                   R"("write":{"queue":65536,"active":1}}}}})"),
              "1|2|3|2|4|");  // modulo 2^16
    EXPECT_EQ(node(R"({"nodes":{"n1":{"thread_pool":{"search":{"active":3}}}}})"),
              "1|0|3|0|3|[elastic] Error: 'queue' not found in thread_pool object\n");
    EXPECT_EQ(node("[]"), "0|0|0|0|0|");
    const auto health = [&data](const char* body) {
        const int result = elastic_parse_cluster_health(body, data);
        return fields(result, data.status, data.relocating_shards, data.unassigned_shards);
    };
    EXPECT_EQ(health(R"({"status":"yellow","relocating_shards":1,"unassigned_shards":3})"), "1|2|1|3");
    EXPECT_EQ(health(R"({"status":"red"})"), "1|1|0|0");
    EXPECT_EQ(health(R"({"status":"purple"})"), "1|1|0|0");
    EXPECT_EQ(health("x"), "0|1|0|0");
}
