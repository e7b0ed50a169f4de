// Read from a RabbitMQ broker: "/api/nodes", an array of objects of which the first is taken, and
// "/api/queues", an array of objects with a number of messages each.
#include "services/tarn_rabbit.h"

#include <cinttypes>
#include <cstdio>

#include "record/tarn_rates.h"
#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_json.h"

namespace {

using data_rabbit = tarn_mycustom_data_rabbit;

constexpr double giga = 1e9;
constexpr double mega = 1e6;

constexpr tarn::bson_row<data_rabbit> rows[] = {
    {"ok", tarn::as_int64<&data_rabbit::ok>},
    {"running", tarn::as_int64<&data_rabbit::running>},
    {"processors", tarn::as_int64<&data_rabbit::processors>},
    {"fd_used", tarn::as_int64<&data_rabbit::fd_used>},
    {"fd_total", tarn::as_int64<&data_rabbit::fd_total>},
    {"disk_free", tarn::as_double<&data_rabbit::disk_free>},
    {"disk_free_limit", tarn::as_double<&data_rabbit::disk_free_limit>},
    {"disk_left", tarn::as_double<&data_rabbit::disk_left>},
    {"mem_used", tarn::as_double<&data_rabbit::mem_used>},
    {"mem_limit", tarn::as_double<&data_rabbit::mem_limit>},
    {"mem_left", tarn::as_double<&data_rabbit::mem_left>},
    {"mem_used_perc", tarn::as_double<&data_rabbit::mem_used_perc>},
    {"proc_used_perc", tarn::as_double<&data_rabbit::proc_used_perc>},
    {"proc_used", tarn::as_double<&data_rabbit::proc_used>},
    {"proc_total", tarn::as_double<&data_rabbit::proc_total>},
    {"queues_sum_len", tarn::as_int64<&data_rabbit::queues_sum_len>},
    {"queues_count", tarn::as_int64<&data_rabbit::queues_count>}};

double percent(double part, double whole) {
    return whole == 0 ? 0.0 : part * 100 / whole;
}

/// "ID USER:PASSWORD@HOST:PORT".
void rabbit_parse_conf(tarn_mycustom_counter& counter, data_rabbit& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

/// A first node that is none: zeros for everything.
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

std::string tarn_rabbit_construct_api_request(std::string_view path, std::string_view host,
                                              std::uint32_t port, std::string_view auth64) {
    std::string request = "GET ";
    request.append(path).append(" HTTP/1.1\r\nAuthorization: Basic ").append(auth64).append("\r\nHost: ");
    request.append(host).append(":").append(std::to_string(static_cast<int>(port))).append("\r\n\r\n");
    return request;
}

bool sample(data_rabbit& data) {
    const auto host = tarn::service_host("rabbit", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    const tarn::unique_fd socket = tarn::connect_http("rabbit", *host, static_cast<int>(data.port));
    if (!socket) return false;
    const auto body_of = [&](std::string_view path) {
        return tarn::fetch_body("rabbit", socket,
                                tarn_rabbit_construct_api_request(path, *host, data.port, data.auth64));
    };
    auto nodes = body_of("/api/nodes");
    if (!nodes || rabbit_parse_node_items(std::move(*nodes), data) == 0) return false;
    auto queues = body_of("/api/queues");
    return queues && rabbit_parse_queues_items(std::move(*queues), data) != 0;
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

int rabbit_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_rabbit>(counter);
    tarn::copy_text(counter.report, "Rabbit");
    auto& data = tarn::data_of<data_rabbit>(counter);
    rabbit_parse_conf(counter, data);
    tarn::set_credentials(data.auth64, data.user, data.pass);
    return 1;
}

int rabbit_reinit(tarn_mycustom_counter& /*counter*/) {
    return 1;
}

int rabbit_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_rabbit>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    if (data.ok == 0) std::printf("rabbit error\n");
    return data.ok;
}

int rabbit_delta(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t /*iteration*/) {
    return tarn::delta_absolute<data_rabbit>(counter);
}

int rabbit_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_labelled(counter, document, rows);
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

int rabbit_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_rabbit>(counter);
    return 1;
}
