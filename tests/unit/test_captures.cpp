#include "services/tarn_apache.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_elastic.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_fpm.h"
#include "services/tarn_memcache.h"
#include "services/tarn_nginx.h"
#include "services/tarn_rabbit.h"
#include "services/tarn_redis.h"
#include "test_helpers.h"

namespace {

/// What a real server answered; with its HTTP headers or without.
std::string captured(const std::string& name) {
    std::stringstream text;
    text << std::ifstream(CAPTURES "/" + name).rdbuf();
    return text.str();
}

std::string body(const std::string& name) {
    const std::string answer = captured(name);
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

/// The element of a counter that read these answers, after an earlier good sample of zeros.
template <typename Record, typename Read>
std::string element(mycustom_init init, mycustom_delta delta, mycustom_tobson tobson, Read read) {
    counter_of<Record> service("main:11 node-7", init);
    service.data().ok = tarn::data_prev_of<Record>(service.counter).ok = 1;
    tarn::copy_text(service.counter.id, "main");
    read(service.data());
    delta(service.counter, 15, 1);
    bson_t document = BSON_INITIALIZER;
    tobson(service.counter, document);
    return printed_document(document);
}

}  // namespace

TEST(Captures, AnswersOfRealServersBecomeTheirElements) {
    std::string text;
    text += element<tarn_mycustom_data_redis>(redis_init, redis_delta, redis_tobson, [](auto& data) {
        redis_parse_info(captured("redis_info.txt"), data);
    });
    text += element<tarn_mycustom_data_memcache>(
        memcache_init1, memcache_delta, memcache_tobson,
        [](auto& data) { memcache_parse_stats(captured("memcached_stats.txt"), data); });
    text += element<tarn_mycustom_data_beanstalk>(
        beanstalk_init1, beanstalk_delta, beanstalk_tobson,
        [](auto& data) { beanstalk_parse_stats(captured("beanstalkd_stats.txt"), data); });
    text += element<tarn_mycustom_data_nginx>(nginx_init, nginx_delta, nginx_tobson, [](auto& data) {
        nginx_parse_res(captured("nginx_status.txt"), data);
    });
    text += element<tarn_mycustom_data_apache>(apache_init, apache_delta, apache_tobson, [](auto& data) {
        apache_parse_res(captured("apache_status.txt"), data);
    });
    text += element<tarn_mycustom_data_fpm>(fpm_init, fpm_delta, fpm_tobson, [](auto& data) {
        const std::string answer = captured("fpm_answer.bin");
        std::span<const char> bytes(answer);
        fcgi_record record;
        fcgi_process_record(bytes, record);
        fpm_parse_res(record.content, data);
    });
    text += element<tarn_mycustom_data_rabbit>(rabbit_init, rabbit_delta, rabbit_tobson, [](auto& data) {
        rabbit_parse_node_items(body("rabbit_nodes.txt"), data);
        rabbit_parse_queues_items(body("rabbit_queues.txt"), data);
    });
    text += element<tarn_mycustom_data_elastic>(elastic_init, elastic_delta, elastic_tobson, [](auto& data) {
        tarn::copy_text(data.node_name, "node-7");
        elastic_parse_node_items(body("elastic_node.txt"), data);
        elastic_parse_cluster_health(body("elastic_health.txt"), data);
    });
    expect_golden("captures.txt", text);
}
