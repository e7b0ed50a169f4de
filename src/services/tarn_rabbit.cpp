// Reads from a RabbitMQ broker "/api/nodes", an array of objects of which the first is used, and
// "/api/queues", an array of objects with one message count each.
#include "services/tarn_rabbit.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_json.h"

namespace {

using data_rabbit = tarn_mycustom_data_rabbit;
using enum tarn::rule;

constexpr auto figures = tarn::figures_of<data_rabbit>({
    tarn::reported<&data_rabbit::ok>("ok"),
    tarn::reported<&data_rabbit::running>("running"),
    tarn::reported<&data_rabbit::processors>("processors"),
    tarn::reported<&data_rabbit::fd_used>("fd_used"),
    tarn::reported<&data_rabbit::fd_total>("fd_total"),
    tarn::reported<&data_rabbit::disk_free>("disk_free"),
    tarn::reported<&data_rabbit::disk_free_limit>("disk_free_limit"),
    tarn::reported<&data_rabbit::disk_left>("disk_left"),
    tarn::reported<&data_rabbit::mem_used>("mem_used"),
    tarn::reported<&data_rabbit::mem_limit>("mem_limit"),
    tarn::reported<&data_rabbit::mem_left>("mem_left"),
    tarn::reported<&data_rabbit::mem_used_perc>("mem_used_perc"),
    tarn::reported<&data_rabbit::proc_used_perc>("proc_used_perc"),
    tarn::reported<&data_rabbit::proc_used, as_read, tarn::bson::dbl>("proc_used"),
    tarn::reported<&data_rabbit::proc_total, as_read, tarn::bson::dbl>("proc_total"),
    tarn::reported<&data_rabbit::queues_sum_len>("queues_sum_len"),
    tarn::reported<&data_rabbit::queues_count>("queues_count"),
});

/// "ID USER:PASSWORD@HOST:PORT".
void rabbit_parse_conf(tarn_mycustom_counter& counter, data_rabbit& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

int rabbit_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_rabbit>(counter, "Rabbit");
    rabbit_parse_conf(counter, data);
    tarn::set_credentials(data.auth64, data.user, data.pass);
    return 1;
}

constexpr double giga = 1e9;
constexpr double mega = 1e6;

double percent(double part, double whole) {
    return whole == 0 ? 0.0 : part * 100 / whole;
}

/// Clears every figure: there is no usable first node.
void clear_node(data_rabbit& data) {
    data.fd_used = data.fd_total = 0;
    data.processors = data.proc_total = data.proc_used = 0;
    data.fd_used_perc = data.proc_used_perc = data.mem_used_perc = 0;
    data.disk_free_limit = data.disk_free = data.disk_left = 0;
    data.mem_limit = data.mem_used = data.mem_left = 0;
    data.running = 0;
    data.queues_count = data.queues_sum_len = 0;
}

void read_node(const nx_json& node, data_rabbit& data) {
    const auto number = [&node](const char* name) { return json_get_long_by_path(node, name); };
    data.fd_used = static_cast<std::uint64_t>(number("fd_used"));
    data.fd_total = static_cast<std::uint64_t>(number("fd_total"));
    data.fd_used_perc = percent(static_cast<double>(data.fd_used), static_cast<double>(data.fd_total));
    data.proc_total = static_cast<std::uint32_t>(number("proc_total"));
    data.proc_used = static_cast<std::uint32_t>(number("proc_used"));
    data.proc_used_perc = percent(data.proc_used, data.proc_total);
    data.disk_free_limit = static_cast<double>(number("disk_free_limit")) / giga;
    data.disk_free = static_cast<double>(number("disk_free")) / giga;
    data.disk_left = std::max(data.disk_free - data.disk_free_limit, 0.0);
    data.mem_used = static_cast<double>(number("mem_used")) / mega;
    data.mem_limit = static_cast<double>(number("mem_limit")) / mega;
    const bool is_below = data.mem_limit > data.mem_used;
    data.mem_left = is_below ? data.mem_limit - data.mem_used : 0.0;
    data.mem_used_perc = is_below ? 100 * data.mem_used / data.mem_limit : 0.0;
    data.processors = static_cast<std::uint32_t>(number("processors"));
    data.running = json_get_bool_by_path(node, "running");
}

}  // namespace

int rabbit_parse_node_items(std::string body, tarn_mycustom_data_rabbit& data) {
    const nx_json_tree root = nx_json_parse_utf8(body);
    const nx_json none;
    const nx_json& node = nx_json_item(root ? *root : none, 0);
    if (node.type != NX_JSON_OBJECT) {
        clear_node(data);
        return 0;
    }
    read_node(node, data);
    return 1;
}

int rabbit_parse_queues_items(std::string body, tarn_mycustom_data_rabbit& data) {
    const nx_json_tree root = nx_json_parse_utf8(body);
    if (!root || root->type != NX_JSON_ARRAY) return 0;
    data.queues_count = data.queues_sum_len = 0;
    for (const nx_json* queue = root->child; queue != nullptr; queue = queue->next) {
        if (queue->type != NX_JSON_OBJECT) continue;
        ++data.queues_count;
        data.queues_sum_len += static_cast<std::uint32_t>(json_get_long_by_path(*queue, "messages"));
    }
    return 1;
}

namespace {

std::string tarn_rabbit_construct_api_request(std::string_view path, std::string_view host,
                                              std::uint32_t port, std::string_view auth64) {
    std::string request = "GET ";
    request.append(path).append(" HTTP/1.1\r\nAuthorization: Basic ").append(auth64).append("\r\nHost: ");
    request.append(host).append(":").append(std::to_string(static_cast<int>(port))).append("\r\n\r\n");
    return request;
}

/// Both requests go over one connection.
bool fetch_figures(data_rabbit& data) {
    const auto host = tarn::service_host("rabbit", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    const tarn::stream connection = tarn::connect_http("rabbit", *host, static_cast<int>(data.port));
    if (!connection) return false;
    const auto body_of = [&](std::string_view path) {
        return tarn::fetch_body("rabbit", connection,
                                tarn_rabbit_construct_api_request(path, *host, data.port, data.auth64),
                                tarn::answer_deadline(tarn::body_timeouts));
    };
    auto nodes = body_of("/api/nodes");
    if (!nodes || rabbit_parse_node_items(std::move(*nodes), data) == 0) return false;
    auto queues = body_of("/api/queues");
    return queues && rabbit_parse_queues_items(std::move(*queues), data) != 0;
}

bool rabbit_update(data_rabbit& data) {
    const bool fetched = fetch_figures(data);
    if (!fetched) std::printf("rabbit error\n");
    return fetched;
}

int rabbit_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_rabbit>(counter);
    const auto as_int = [](std::uint32_t value) { return static_cast<int>(value); };
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tRunning = %s\n", delta.running > 0 ? "true" : "false");
    std::printf("\tProcessors = %d\n", as_int(delta.processors));
    std::printf("\tErlang processes used, %% = %f\n", delta.proc_used_perc);
    std::printf("\tErlang processes used = %d of %d\n", as_int(delta.proc_used), as_int(delta.proc_total));
    std::printf("\tFd used = %" PRId64 "\n", static_cast<std::int64_t>(delta.fd_used));
    std::printf("\tFd total = %" PRId64 "\n", static_cast<std::int64_t>(delta.fd_total));
    std::printf("\tFd used, %% = %f\n", delta.fd_used_perc);
    std::printf("\tDisk free = %f\n", delta.disk_free);
    std::printf("\tDisk free limit = %f\n", delta.disk_free_limit);
    std::printf("\tDisk left = %f\n", delta.disk_left);
    std::printf("\tMem used = %f\n", delta.mem_used);
    std::printf("\tMem limit = %f\n", delta.mem_limit);
    std::printf("\tMem left = %f\n", delta.mem_left);
    std::printf("\tMem used, %% = %f\n", delta.mem_used_perc);
    std::printf("\tQueues sum length = %d\n", as_int(delta.queues_sum_len));
    std::printf("\tQueues count = %d\n", as_int(delta.queues_count));
    return 1;
}

}  // namespace

const tarn_operations rabbit_operations = {
    .init = rabbit_init,
    .reinit = tarn::reinit_nothing,
    .update = tarn::sampled<rabbit_update>,
    .delta = tarn::delta_as_read<data_rabbit>,
    .tobson = tarn::append_labelled<figures>,
    .dump = rabbit_dump,
    .free = tarn::free_records<data_rabbit>,
};
