// Read from an Elasticsearch node: its thread pools, an object per pool with "queue" and "active", and the
// cluster's health with its status and shard counts.
#include "services/tarn_elastic.h"

#include <algorithm>
#include <cstdio>

#include "record/tarn_rates.h"
#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_json.h"

namespace {

using data_elastic = tarn_mycustom_data_elastic;

/// Status texts, by how they begin, and their codes.
struct health {
    std::string_view text;
    int code;
};
constexpr health healths[] = {{"green", 3}, {"yellow", 2}, {"red", 1}};

constexpr std::size_t most_path = 255;

constexpr tarn::bson_row<data_elastic> rows[] = {
    {"ok", tarn::as_int64<&data_elastic::ok>},
    {"node_queue_size", tarn::as_int64<&data_elastic::node_queue_size>},
    {"node_active_size", tarn::as_int64<&data_elastic::node_active_size>},
    {"threads_search_queue", tarn::as_int64<&data_elastic::threads_search_queue>},
    {"threads_search_active", tarn::as_int64<&data_elastic::threads_search_active>},
    {"status", tarn::as_int64<&data_elastic::status>},
    {"initializing_shards", tarn::as_int64<&data_elastic::initializing_shards>},
    {"relocating_shards", tarn::as_int64<&data_elastic::relocating_shards>},
    {"unassigned_shards", tarn::as_int64<&data_elastic::unassigned_shards>}};

/// "ID HOST:PORT NODE". Only the first ":" behind the host separates; a node's name may hold more of them.
void elastic_parse_conf(tarn_mycustom_counter& counter, data_elastic& data) {
    tarn::service_conf conf(counter, "");
    conf.word(counter.id);
    conf.before(':', data.host);
    data.port = static_cast<std::uint16_t>(conf.number());
    conf.word(data.node_name);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

std::uint16_t number_at(const nx_json& root, std::string_view path) {
    return static_cast<std::uint16_t>(json_get_long_by_path(root, path));
}

/// The sum of one figure over all pools; 0, with a message, when a pool lacks it.
std::uint16_t sum_of(const nx_json& pools, const char* figure) {
    int error = 0;
    const std::int64_t sum = json_column_sum(pools, figure, error);
    if (error == 0) return static_cast<std::uint16_t>(sum);
    std::printf("[elastic] Error: '%s' not found in thread_pool object\n", figure);
    return 0;
}

/// Neither a Host header nor credentials.
std::string tarn_elastic_construct_api_request(const std::string& path) {
    return "GET " + path + " HTTP/1.1\r\n\r\n";
}

bool read_pools(const tarn::unique_fd& socket, data_elastic& data) {
    std::string path = "/_nodes/";
    path.append(data.node_name).append("/stats/thread_pool");
    path.resize(std::min(path.size(), most_path));
    auto body = tarn::fetch_body("elastic", socket, tarn_elastic_construct_api_request(path));
    if (!body) std::printf("[elastic] Response for /_nodes/.../stats/thread_pool is NULL\n");
    return body && elastic_parse_node_items(std::move(*body), data) != 0;
}

bool read_health(const tarn::unique_fd& socket, data_elastic& data) {
    auto body = tarn::fetch_body("elastic", socket, tarn_elastic_construct_api_request("/_cluster/health"));
    if (!body) {
        std::printf("[elastic] Response for /_cluster/health is NULL\n");
        return false;
    }
    if (elastic_parse_cluster_health(std::move(*body), data) != 0) return true;
    std::printf("[elastic] Cannot parse cluster health\n");
    return false;
}

bool sample(data_elastic& data) {
    const auto host = tarn::service_host("elastic", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    const tarn::unique_fd socket = tarn::connect_http("elastic", *host, data.port);
    return socket && read_pools(socket, data) && read_health(socket, data);
}

}  // namespace

int elastic_parse_node_items(std::string body, tarn_mycustom_data_elastic& data) {
    const nx_json_tree root = nx_json_parse_utf8(body);
    if (!root || root->type != NX_JSON_OBJECT) {
        data.node_queue_size = data.node_active_size = 0;
        data.threads_search_active = data.threads_search_queue = 0;
        return 0;
    }
    const std::string pools = std::string("nodes.") + data.node_name + ".thread_pool";
    data.threads_search_active = number_at(*root, pools + ".search.active");
    data.threads_search_queue = number_at(*root, pools + ".search.queue");
    data.node_queue_size = sum_of(json_get_item_by_path(*root, pools), "queue");
    data.node_active_size = sum_of(json_get_item_by_path(*root, pools), "active");
    return 1;
}

int elastic_parse_cluster_health(std::string body, tarn_mycustom_data_elastic& data) {
    const nx_json_tree root = nx_json_parse_utf8(body);
    if (!root) return 0;
    char status[99] = "";
    json_get_str_by_path(*root, "status", status, sizeof status);
    for (const health& row : healths) {
        if (std::string_view(status).starts_with(row.text)) data.status = row.code;
    }
    data.relocating_shards = number_at(*root, "relocating_shards");
    data.initializing_shards = number_at(*root, "initializing_shards");
    data.unassigned_shards = number_at(*root, "unassigned_shards");
    return 1;
}

int elastic_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_elastic>(counter);
    tarn::copy_text(counter.report, "Elastic");
    elastic_parse_conf(counter, tarn::data_of<data_elastic>(counter));
    return 1;
}

int elastic_reinit(tarn_mycustom_counter& /*counter*/) {
    return 1;
}

int elastic_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_elastic>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    if (data.ok == 0) std::printf("elastic error\n");
    return data.ok;
}

int elastic_delta(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t /*iteration*/) {
    return tarn::delta_absolute<data_elastic>(counter);
}

int elastic_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_labelled(counter, document, rows);
}

int elastic_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_elastic>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tNode queue size = %u\n", delta.node_queue_size);
    std::printf("\tNode active size = %u\n", delta.node_active_size);
    std::printf("\tThreads search queue = %u\n", delta.threads_search_queue);
    std::printf("\tThreads search active = %u\n", delta.threads_search_active);
    std::printf("\tStatus = %d\n", delta.status);
    std::printf("\tInitializing shards = %u\n", delta.initializing_shards);
    std::printf("\tRelocating shards = %u\n", delta.relocating_shards);
    std::printf("\tUnassigned shards = %u\n", delta.unassigned_shards);
    return 1;
}

int elastic_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_elastic>(counter);
    return 1;
}
