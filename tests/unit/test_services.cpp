// The services' configuration texts, rates, statements, and replies that no server should send.
#include "record/tarn_rates.h"
#include "services/tarn_elastic.h"
#include "services/tarn_postgre.h"
#include "services/tarn_rabbit.h"
#include "services/tarn_redis.h"
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
        counter_of<tarn_mycustom_data_redis> redis(text, redis_operations);
        const auto& data = redis.data();
        EXPECT_EQ(fields(redis.counter.id, data.user, data.pass, data.host, data.port, data.in_docker,
                         data.docker_container_name),
                  expected);
    }
}

TEST(Services, AnElasticNodeNameMayContainColons) {
    const std::pair<const char*, const char*> rows[] = {{"a:b h:9200 n:1\n", "a:b|h|9200|n:1|0"},
                                                        {"a [box]:9200 n", "a|[box]|9200|n|1"},
                                                        {"a h n", "a|h n|0||0"},
                                                        {"a :9200 n", "a||0||0"}};
    for (const auto& [text, expected] : rows) {
        counter_of<tarn_mycustom_data_elastic> elastic(text, elastic_operations);
        const auto& data = elastic.data();
        EXPECT_EQ(fields(elastic.counter.id, data.host, data.port, data.node_name, data.in_docker), expected);
    }
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
}

TEST(Services, LongRunningStatementsAreCountedWithTheseTexts) {
    expect_golden("long_running.txt", get_query_str("9") + "\n" + get_query_str_old("9") + "\n");
}

TEST(Services, BodiesOfTheWrongTypeAreFailures) {
    for (const char* const body : {"[]", "[1]", "{}", "", "nonsense", "[{\"fd_used\":5"}) {
        tarn_mycustom_data_rabbit rabbit{};
        rabbit.fd_used = rabbit.processors = rabbit.queues_count = 9;
        rabbit.mem_used = rabbit.disk_left = 9;
        EXPECT_EQ(rabbit_parse_node_items(body, rabbit), 0) << body;
        EXPECT_EQ(
            fields(rabbit.fd_used, rabbit.processors, rabbit.queues_count, rabbit.mem_used, rabbit.disk_left),
            "0|0|0|0|0");
        EXPECT_EQ(rabbit_parse_queues_items(body, rabbit),
                  std::string(body).starts_with("[") && std::string(body).ends_with("]"));
        tarn_mycustom_data_elastic elastic{};
        elastic.status = elastic.node_queue_size = elastic.threads_search_active = 2;
        const bool is_object = std::string_view(body) == "{}";
        EXPECT_EQ(printed_by([&] { elastic_parse_node_items(body, elastic); }).empty(), !is_object);
        EXPECT_EQ(fields(elastic.node_queue_size, elastic.threads_search_active), "0|0");
        elastic_parse_cluster_health(body, elastic);
        EXPECT_EQ(elastic.status, 2);
    }
}
