// Reads from an Elasticsearch node: the thread pools, one object per pool with "queue" and "active", and the
// cluster health, with status and shard counts.
#include "services/tarn_elastic.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "record/tarn_reason.h"
#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_json.h"

namespace {

using data_elastic = tarn_mycustom_data_elastic;

constexpr auto figures = tarn::figures_of<data_elastic>({
    tarn::reported<&data_elastic::ok>("ok"),
    tarn::reported<&data_elastic::node_queue_size>("node_queue_size"),
    tarn::reported<&data_elastic::node_active_size>("node_active_size"),
    tarn::reported<&data_elastic::threads_search_queue>("threads_search_queue"),
    tarn::reported<&data_elastic::threads_search_active>("threads_search_active"),
    tarn::reported<&data_elastic::status>("status"),
    tarn::reported<&data_elastic::initializing_shards>("initializing_shards"),
    tarn::reported<&data_elastic::relocating_shards>("relocating_shards"),
    tarn::reported<&data_elastic::unassigned_shards>("unassigned_shards"),
});

/// Prefixes of the status text and their codes.
struct status_code {
    std::string_view prefix;
    int code;
};
constexpr status_code status_codes[] = {{"green", 3}, {"yellow", 2}, {"red", 1}};

/// "ID HOST:PORT NODE". Only the ":" after the host is a separator; the node's name may contain others.
void elastic_parse_conf(tarn_mycustom_counter& counter, data_elastic& data) {
    tarn::service_conf conf(counter, "");
    conf.word(counter.id);
    conf.until(':', data.host);
    data.port = static_cast<std::uint16_t>(conf.number());
    conf.word(data.node_name);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

int elastic_init(tarn_mycustom_counter& counter) {
    elastic_parse_conf(counter, tarn::allocate_records<data_elastic>(counter, "Elastic"));
    return 1;
}

std::uint16_t number_at(const nx_json& root, std::string_view path) {
    return static_cast<std::uint16_t>(json_get_long_by_path(root, path));
}

/// The sum of one member over all pools; 0, with a message, when a pool lacks it.
std::uint16_t sum_of(const nx_json& pools, const char* member) {
    int error = 0;
    const std::int64_t sum = json_column_sum(pools, member, error);
    if (error == 0) return static_cast<std::uint16_t>(sum);
    std::printf("[elastic] Error: '%s' not found in thread_pool object\n", member);
    return 0;
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
    for (const status_code& row : status_codes) {
        if (std::string_view(status).starts_with(row.prefix)) data.status = row.code;
    }
    data.relocating_shards = number_at(*root, "relocating_shards");
    data.initializing_shards = number_at(*root, "initializing_shards");
    data.unassigned_shards = number_at(*root, "unassigned_shards");
    return 1;
}

namespace {

constexpr std::size_t max_path = 255;

/// The request has neither a Host header nor credentials.
std::string tarn_elastic_construct_api_request(const std::string& path) {
    return "GET " + path + " HTTP/1.1\r\n\r\n";
}

bool read_pools(const tarn::stream& connection, data_elastic& data) {
    std::string path = "/_nodes/";
    path.append(data.node_name).append("/stats/thread_pool");
    path.resize(std::min(path.size(), max_path));
    auto body = tarn::fetch_body("elastic", connection, tarn_elastic_construct_api_request(path),
                                 tarn::answer_deadline(tarn::body_timeouts));
    if (!body) std::printf("[elastic] Response for /_nodes/.../stats/thread_pool is NULL\n");
    if (body && body->find('"' + std::string(data.node_name) + '"') == std::string::npos)
        tarn::note_reason("the answer has no node %s", data.node_name);
    return body && elastic_parse_node_items(std::move(*body), data) != 0;
}

bool read_health(const tarn::stream& connection, data_elastic& data) {
    auto body =
        tarn::fetch_body("elastic", connection, tarn_elastic_construct_api_request("/_cluster/health"),
                         tarn::answer_deadline(tarn::body_timeouts));
    if (!body) {
        std::printf("[elastic] Response for /_cluster/health is NULL\n");
        return false;
    }
    if (elastic_parse_cluster_health(std::move(*body), data) != 0) return true;
    std::printf("[elastic] Cannot parse cluster health\n");
    return false;
}

bool fetch_figures(data_elastic& data) {
    const auto host = tarn::service_host("elastic", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    const tarn::stream connection = tarn::connect_http("elastic", *host, data.port);
    return connection && read_pools(connection, data) && read_health(connection, data);
}

bool elastic_update(data_elastic& data) {
    const bool fetched = fetch_figures(data);
    if (!fetched) std::printf("elastic error\n");
    return fetched;
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

}  // namespace

const tarn_operations elastic_operations = {
    .init = elastic_init,
    .reinit = tarn::reinit_nothing,
    .update = tarn::sampled<elastic_update>,
    .delta = tarn::delta_as_read<data_elastic>,
    .tobson = tarn::append_labelled<figures>,
    .dump = elastic_dump,
    .free = tarn::free_records<data_elastic>,
};
