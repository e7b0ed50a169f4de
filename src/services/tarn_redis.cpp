// Read from a Redis server: the reply to the inline command "info", lines "name:value". Only what one read of
// 4096 bytes brings is looked at; newer servers say more, and what lies beyond (replication and key counts)
// keeps its earlier value.
#include "services/tarn_redis.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "record/tarn_rates.h"
#include "services/tarn_service.h"

namespace {

using data_redis = tarn_mycustom_data_redis;

constexpr std::size_t reply_size = 4096;

/// 1 when the word behind the name begins as expected, else 0.
std::uint32_t flag(std::string_view value, std::string_view expected) {
    return tarn::scanner(value).word().starts_with(expected) ? 1 : 0;
}

void as_saved(data_redis& data, std::string_view value) {
    data.rdb_last_bgsave_status = flag(value, "ok");
}

void as_link(data_redis& data, std::string_view value) {
    data.master_link_status = flag(value, "up");
}

void as_role(data_redis& data, std::string_view value) {
    tarn::copy_text(data.replica_role, tarn::scanner(value).word());
}

constexpr tarn::reply_row<data_redis> info_rows[] = {
    {"uptime_in_seconds:", tarn::as_number<&data_redis::uptime>},
    {"connected_clients:", tarn::as_number<&data_redis::connected_clients>},
    {"total_connections_received:", tarn::as_number<&data_redis::total_connections_received>},
    {"total_commands_processed:", tarn::as_number<&data_redis::total_commands_processed>},
    {"keyspace_hits:", tarn::as_number<&data_redis::keyspace_hits>},
    {"keyspace_misses:", tarn::as_number<&data_redis::keyspace_misses>},
    {"expired_keys:", tarn::as_number<&data_redis::expired_keys>},
    {"evicted_keys:", tarn::as_number<&data_redis::evicted_keys>},
    {"rdb_last_bgsave_status:", as_saved},
    {"used_memory:", tarn::as_number<&data_redis::used_memory>},
    {"role:", as_role},
    {"master_link_status:", as_link},
    {"connected_slaves:", tarn::as_number<&data_redis::connected_slaves>},
    {"master_sync_in_progress:", tarn::as_number<&data_redis::master_sync_in_progress>},
    {"master_sync_left_bytes:", tarn::as_number<&data_redis::master_sync_left_bytes>},
    {"db0:keys=", tarn::as_number<&data_redis::num_of_keys>}};

constexpr std::uint32_t data_redis::*rated[] = {&data_redis::total_connections_received,
                                                &data_redis::total_commands_processed,
                                                &data_redis::keyspace_hits,
                                                &data_redis::keyspace_misses,
                                                &data_redis::expired_keys,
                                                &data_redis::evicted_keys};

void as_link_of_a_replica(bson_t& document, const char* key, const data_redis& data) {
    if (!tarn::text_of(data.replica_role).starts_with("slave")) return;
    tarn::as_int64<&data_redis::master_link_status>(document, key, data);
}

constexpr tarn::bson_row<data_redis> rows[] = {
    {"ok", tarn::as_int64<&data_redis::ok>},
    {"status", tarn::as_int64<&data_redis::status>},
    {"uptime", tarn::as_int64<&data_redis::uptime>},
    {"connected_clients", tarn::as_int64<&data_redis::connected_clients>},
    {"total_connections_received", tarn::as_int64<&data_redis::total_connections_received>},
    {"total_commands_processed", tarn::as_int64<&data_redis::total_commands_processed>},
    {"keyspace_hits", tarn::as_int64<&data_redis::keyspace_hits>},
    {"keyspace_misses", tarn::as_int64<&data_redis::keyspace_misses>},
    {"expired_keys", tarn::as_int64<&data_redis::expired_keys>},
    {"evicted_keys", tarn::as_int64<&data_redis::evicted_keys>},
    {"connected_slaves", tarn::as_int64<&data_redis::connected_slaves>},
    {"master_link_status", as_link_of_a_replica},
    {"master_sync_left_bytes", tarn::as_int64<&data_redis::master_sync_left_bytes>},
    {"rdb_last_bgsave_status", tarn::as_int64<&data_redis::rdb_last_bgsave_status>},
    {"memused", tarn::as_int64<&data_redis::used_memory>},
    {"keys", tarn::as_int64<&data_redis::num_of_keys>}};

/// "ID USER:PASSWORD@HOST:PORT"; the user is a placeholder.
void redis_parse_conf(tarn_mycustom_counter& counter, data_redis& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

/// Without a socket of any kind the agent cannot go on.
[[noreturn]] void DieWithError(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::exit(EXIT_FAILURE);
}

tarn::unique_fd connect_redis(data_redis& data) {
    const auto host = tarn::service_host("redis", data.in_docker, data.docker_container_name, data.host);
    if (!host) return {};
    tarn::stream connection = tarn::connect_service(*host, static_cast<int>(data.port));
    if (connection.failed == tarn::stream_step::socket) DieWithError("socket() error!");
    if (connection.failed == tarn::stream_step::timeouts) std::printf("setsockopt failed\n");
    if (connection.failed == tarn::stream_step::connect) data.status = 0;
    if (connection.socket) data.status = 1;
    return std::move(connection.socket);
}

/// Sends the password, if there is one, which the message shows as it goes out.
bool log_in(const tarn::unique_fd& socket, const data_redis& data) {
    if (data.pass[0] == '\0') return true;
    const std::string command = std::string("AUTH ") + data.pass + "\r\n";
    std::printf("[INFO] redis auth with %s\n", command.c_str());
    std::array<char, reply_size> buffer;
    const auto reply = tarn::ask_once(socket, command, buffer);
    if (!reply) return false;
    if (reply->starts_with("+OK")) return true;
    std::printf("[WARN] redis auth failed %.*s\n", static_cast<int>(reply->size()), reply->data());
    return false;
}

bool sample(data_redis& data) {
    const tarn::unique_fd socket = connect_redis(data);
    if (!socket || !log_in(socket, data)) return false;
    std::array<char, reply_size> buffer;
    const auto reply = tarn::ask_once(socket, "info\r\n", buffer);
    if (!reply) return false;
    redis_parse_info(*reply, data);
    return true;
}

}  // namespace

void redis_parse_info(std::string_view reply, tarn_mycustom_data_redis& data) {
    for (auto line = tarn::next_token(reply, "\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        tarn::store_line(line, info_rows, data);
    }
}

int redis_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_redis>(counter);
    tarn::copy_text(counter.report, "Redis");
    redis_parse_conf(counter, tarn::data_of<data_redis>(counter));
    return 0;
}

int redis_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_redis>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    return data.ok;
}

int redis_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    return tarn::delta_per_minute(counter, interval, iteration, rated);
}

int redis_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_service(counter, document, rows);
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

int redis_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_redis>(counter);
    return 1;
}
