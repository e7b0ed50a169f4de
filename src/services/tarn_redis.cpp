// Reads a Redis server's reply to the inline command "info": lines "name:value". Only the first 4096 bytes
// are parsed; newer servers send more, and later figures (replication, key counts) keep their earlier values.
#include "services/tarn_redis.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "record/tarn_reason.h"
#include "services/tarn_service.h"

namespace {

using data_redis = tarn_mycustom_data_redis;

/// 1 when the first word of the value begins with `expected`, else 0.
std::uint32_t flag(std::string_view value, std::string_view expected) {
    return tarn::scanner(value).word().starts_with(expected) ? 1 : 0;
}

void read_saved(data_redis& data, std::string_view value) {
    data.rdb_last_bgsave_status = flag(value, "ok");
}

void read_link(data_redis& data, std::string_view value) {
    data.master_link_status = flag(value, "up");
}

void read_role(data_redis& data, std::string_view value) {
    tarn::copy_terminated(data.replica_role, tarn::scanner(value).word());
}

void append_link_of_replica(bson_t& document, std::string_view key, const data_redis& data) {
    const bool is_replica = tarn::text_of(data.replica_role).starts_with("slave");
    if (is_replica) tarn::append_int64(document, key, data.master_link_status);
}

using enum tarn::rule;

constexpr auto figures = tarn::figures_of<data_redis>({
    tarn::reported<&data_redis::ok>("ok"),
    tarn::reported<&data_redis::status>("status"),
    tarn::number<&data_redis::uptime>("uptime_in_seconds:", "uptime"),
    tarn::number<&data_redis::connected_clients>("connected_clients:", "connected_clients"),
    tarn::number<&data_redis::total_connections_received, per_minute>("total_connections_received:",
                                                                      "total_connections_received"),
    tarn::number<&data_redis::total_commands_processed, per_minute>("total_commands_processed:",
                                                                    "total_commands_processed"),
    tarn::number<&data_redis::keyspace_hits, per_minute>("keyspace_hits:", "keyspace_hits"),
    tarn::number<&data_redis::keyspace_misses, per_minute>("keyspace_misses:", "keyspace_misses"),
    tarn::number<&data_redis::expired_keys, per_minute>("expired_keys:", "expired_keys"),
    tarn::number<&data_redis::evicted_keys, per_minute>("evicted_keys:", "evicted_keys"),
    tarn::number<&data_redis::connected_slaves>("connected_slaves:", "connected_slaves"),
    tarn::appended_by(append_link_of_replica, tarn::read_by<&data_redis::master_link_status, read_link>(
                                                  "master_link_status:", "master_link_status")),
    tarn::number<&data_redis::master_sync_left_bytes>("master_sync_left_bytes:", "master_sync_left_bytes"),
    tarn::read_by<&data_redis::rdb_last_bgsave_status, read_saved>("rdb_last_bgsave_status:",
                                                                   "rdb_last_bgsave_status"),
    tarn::number<&data_redis::used_memory>("used_memory:", "memused"),
    tarn::number<&data_redis::num_of_keys>("db0:keys=", "keys"),
    // Not reported.
    tarn::number<&data_redis::master_sync_in_progress>("master_sync_in_progress:"),
    tarn::read_by<&data_redis::replica_role, read_role>("role:"),
});

/// "ID USER:PASSWORD@HOST:PORT"; the user is a placeholder.
void redis_parse_conf(tarn_mycustom_counter& counter, data_redis& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

}  // namespace

void redis_parse_info(std::string_view reply, tarn_mycustom_data_redis& data) {
    for (auto line = tarn::next_token(reply, "\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        tarn::store_by_prefix(line, figures, data);
    }
}

namespace {

int redis_init(tarn_mycustom_counter& counter) {
    redis_parse_conf(counter, tarn::allocate_records<data_redis>(counter, "Redis"));
    return 0;
}

/// Ends the agent, which cannot work without sockets.
[[noreturn]] void DieWithError(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::exit(EXIT_FAILURE);
}

tarn::stream connect_redis(data_redis& data) {
    const auto host = tarn::service_host("redis", data.in_docker, data.docker_container_name, data.host);
    if (!host) return {};
    tarn::stream connection = tarn::connect_service(*host, static_cast<int>(data.port));
    if (connection.failed == tarn::stream_step::socket) DieWithError("socket() error!");
    if (connection.failed == tarn::stream_step::timeouts) std::printf("setsockopt failed\n");
    if (connection.failed == tarn::stream_step::connect) data.status = 0;
    if (connection) data.status = 1;
    return connection;
}

constexpr std::size_t reply_size = 4096;

/// Sends the password, if there is one. The message shows the whole command, password included.
bool log_in(const tarn::stream& connection, const data_redis& data) {
    if (data.pass[0] == '\0') return true;
    const std::string command = std::string("AUTH ") + data.pass + "\r\n";
    std::printf("[INFO] redis auth with %s\n", command.c_str());
    std::array<char, reply_size> buffer;
    const auto reply = tarn::ask_once(connection, command, buffer);
    if (!reply) return false;
    if (reply->starts_with("+OK")) return true;
    tarn::note_reason("login rejected");
    std::printf("[WARN] redis auth failed %.*s\n", static_cast<int>(reply->size()), reply->data());
    return false;
}

bool redis_update(data_redis& data) {
    const tarn::stream connection = connect_redis(data);
    if (!connection || !log_in(connection, data)) return false;
    std::array<char, reply_size> buffer;
    const auto reply = tarn::ask_once(connection, "info\r\n", buffer);
    if (!reply) return false;
    tarn::expect_start(*reply, "$");
    redis_parse_info(*reply, data);
    return true;
}

int redis_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_redis>(counter);
    const auto line = [](const char* name, std::uint32_t value) {
        std::printf("  %s: %d\n", name, static_cast<int>(value));
    };
    std::printf("MyCustom %s report %s :\n", counter.report, counter.id);
    std::printf("Redis %s (%s:%d):\n", delta.name, delta.host, static_cast<int>(delta.port));
    line("status", delta.status);
    line("uptime", delta.uptime);
    line("connected clients", delta.connected_clients);
    line("total connections received", delta.total_connections_received);
    line("total commands processed", delta.total_commands_processed);
    line("keyspace hits", delta.keyspace_hits);
    line("keyspace_misses", delta.keyspace_misses);
    line("expired keys", delta.expired_keys);
    line("evicted keys", delta.evicted_keys);
    line("rdb last bg save", delta.rdb_last_bgsave_status);
    line("memory used", delta.used_memory);
    line("number of keys", delta.num_of_keys);
    std::printf("# Replication:\n");
    std::printf("  role: %s\n", delta.replica_role);
    line("status", delta.master_link_status);
    line("connected slaves", delta.connected_slaves);
    line("master_sync_in_progress", delta.master_sync_in_progress);
    line("master_sync_left_bytes", delta.master_sync_left_bytes);
    return 1;
}

}  // namespace

const tarn_operations redis_operations = {
    .init = redis_init,
    .update = tarn::sampled<redis_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_by_id<figures>,
    .dump = redis_dump,
    .free = tarn::free_records<data_redis>,
};
