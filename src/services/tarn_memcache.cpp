// Reads a memcached server's reply to "stats", over TCP or a Unix socket: lines "STAT name value". Only the
// first 4096 bytes, from one read, are parsed.
#include "services/tarn_memcache.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "services/tarn_service.h"

namespace {

using data_memcache = tarn_mycustom_data_memcache;
using enum tarn::rule;

constexpr auto figures = tarn::figures_of<data_memcache>({
    tarn::reported<&data_memcache::ok>("ok"),
    tarn::number_or_0<&data_memcache::get, per_minute>("cmd_get", "get"),
    tarn::number_or_0<&data_memcache::set, per_minute>("cmd_set", "set"),
    tarn::number_or_0<&data_memcache::misses, per_minute>("get_misses", "misses"),
    tarn::number_or_0<&data_memcache::hits, per_minute>("get_hits", "hits"),
    tarn::number_or_0<&data_memcache::evictions, per_minute>("evictions", "evictions"),
    tarn::number_or_0<&data_memcache::connections>("curr_connections", "connections"),
    tarn::number_or_0<&data_memcache::read, per_minute>("bytes_read", "read"),
    tarn::number_or_0<&data_memcache::write, per_minute>("bytes_written", "write"),
    tarn::number_or_0<&data_memcache::bytes>("bytes", "bytes"),
    tarn::number_or_0<&data_memcache::max_bytes>("limit_maxbytes", "max_bytes"),
});

/// "HOST:PORT", "HOST:SOCKETPATH" or "[CONTAINER]:PORT"; the whole word is the id. Returns false when the
/// word has no ":".
bool memcache_parse_conf(tarn_mycustom_counter& counter, data_memcache& data) {
    const std::string_view text = tarn::text_of(counter.cfg_string);
    tarn::copy_terminated(counter.id, text);
    tarn::service_conf conf(counter, ":");
    conf.word(data.ip);
    conf.port_or_socket(data.port, data.socket);
    data.in_docker = tarn::read_container(data.ip, data.docker_container_name);
    return text.find(':') != std::string_view::npos;
}

/// The counter of an invalid line is reported once and never sampled.
int memcache_init1(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_memcache>(counter, "Memcache");
    if (!memcache_parse_conf(counter, data)) {
        std::fprintf(stderr, "Cannot initialize memcache on %s:%d\n", data.ip, data.port);
        counter.update = nullptr;
    } else if (data.in_docker != 0) {
        std::printf("Memcache %s init with docker = %s, port = %d\n", counter.id, data.docker_container_name,
                    data.port);
    } else {
        std::printf("Memcache %s init with ip = %s  port = %d, socket = %s\n", counter.id, data.ip, data.port,
                    data.socket);
    }
    return 1;
}

}  // namespace

void memcache_parse_stats(std::string_view reply, tarn_mycustom_data_memcache& data) {
    // A carriage return ends the first line only.
    for (auto line = tarn::next_token(reply, "\r\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        if (!line.starts_with("STAT")) continue;
        tarn::scanner words(line);
        words.skip(1);
        const std::string_view name = words.word();
        tarn::store_by_name(name, words.rest(), figures, data);
    }
}

namespace {

tarn::stream connect_path(const data_memcache& data) {
    tarn::stream connection = tarn::connect_service_path(data.socket);
    if (connection.failed == tarn::stream_step::connect) {
        tarn::print_error("Memcache socket connect failed", connection.error);
    } else if (!connection) {
        std::printf("Memcached: connect to socket failed");
    }
    return connection;
}

tarn::stream connect_address(const data_memcache& data) {
    const auto ip = tarn::service_host("memcache", data.in_docker, data.docker_container_name, data.ip);
    if (!ip) return {};
    tarn::stream connection = tarn::connect_service(*ip, data.port);
    if (connection.failed == tarn::stream_step::socket) {
        tarn::print_error("socket() failed", connection.error);
    } else if (connection.failed == tarn::stream_step::timeouts) {
        tarn::print_error("setsockopt() failed", connection.error);
    }
    return connection;
}

bool memcache_update(data_memcache& data) {
    const tarn::stream connection = data.socket[0] != '\0' ? connect_path(data) : connect_address(data);
    if (!connection) return false;
    if (tarn::send_request(connection, "stats\r\n") < 0) {
        std::perror("write() failed");
        return false;
    }
    std::array<char, 4096> buffer;
    const auto reply = tarn::read_reply(connection, buffer);
    if (!reply) {
        std::perror("read() failed");
        return false;
    }
    tarn::expect_start(*reply, "STAT ");
    memcache_parse_stats(*reply, data);
    return true;
}

int memcache_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_memcache>(counter);
    std::printf("MyCustom %s report %s :\n", counter.report, counter.id);
    std::printf("  get/hits/misses: %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", delta.get, delta.hits,
                delta.misses);
    std::printf("  set: %" PRIu64 "\n", delta.set);
    std::printf("  evictions: %" PRIu64 "\n", delta.evictions);
    std::printf("  connections: %" PRIu64 "\n", delta.connections);
    std::printf("  read/write: %" PRIu64 " %" PRIu64 "\n", delta.read, delta.write);
    std::printf("  bytes/max_bytes: %" PRIu64 " %" PRIu64 "\n", delta.bytes, delta.max_bytes);
    return 1;
}

}  // namespace

const tarn_operations memcache_operations = {
    .init = memcache_init1,
    .update = tarn::sampled<memcache_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_by_id<figures>,
    .dump = memcache_dump,
    .free = tarn::free_records<data_memcache>,
};
