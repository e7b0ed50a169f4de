// Read from a memcached server, over TCP or a Unix socket: the reply to "stats", lines "STAT name value".
// Only what one read of 4096 bytes brings is looked at.
#include "services/tarn_memcache.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_service.h"

namespace {

using data_memcache = tarn_mycustom_data_memcache;

constexpr std::size_t reply_size = 4096;

constexpr tarn::reply_row<data_memcache> stat_rows[] = {
    {"bytes", tarn::as_number_or_0<&data_memcache::bytes>},
    {"curr_connections", tarn::as_number_or_0<&data_memcache::connections>},
    {"cmd_get", tarn::as_number_or_0<&data_memcache::get>},
    {"cmd_set", tarn::as_number_or_0<&data_memcache::set>},
    {"get_hits", tarn::as_number_or_0<&data_memcache::hits>},
    {"get_misses", tarn::as_number_or_0<&data_memcache::misses>},
    {"evictions", tarn::as_number_or_0<&data_memcache::evictions>},
    {"bytes_read", tarn::as_number_or_0<&data_memcache::read>},
    {"bytes_written", tarn::as_number_or_0<&data_memcache::write>},
    {"limit_maxbytes", tarn::as_number_or_0<&data_memcache::max_bytes>}};

constexpr std::uint64_t data_memcache::*rated[] = {
    &data_memcache::get,       &data_memcache::set,  &data_memcache::misses, &data_memcache::hits,
    &data_memcache::evictions, &data_memcache::read, &data_memcache::write};

constexpr tarn::bson_row<data_memcache> rows[] = {
    {"ok", tarn::as_int64<&data_memcache::ok>},
    {"get", tarn::as_int64<&data_memcache::get>},
    {"set", tarn::as_int64<&data_memcache::set>},
    {"misses", tarn::as_int64<&data_memcache::misses>},
    {"hits", tarn::as_int64<&data_memcache::hits>},
    {"evictions", tarn::as_int64<&data_memcache::evictions>},
    {"connections", tarn::as_int64<&data_memcache::connections>},
    {"read", tarn::as_int64<&data_memcache::read>},
    {"write", tarn::as_int64<&data_memcache::write>},
    {"bytes", tarn::as_int64<&data_memcache::bytes>},
    {"max_bytes", tarn::as_int64<&data_memcache::max_bytes>}};

/// Says on standard error what the system says of the call that failed.
void print_error(const char* message, int error) {
    errno = error;
    std::perror(message);
}

tarn::unique_fd connect_path(const data_memcache& data) {
    tarn::stream connection = tarn::connect_unix(data.socket, config.counter_tcp_to);
    if (connection.failed == tarn::stream_step::connect) {
        print_error("Memcache socket connect failed", connection.error);
    } else if (!connection.socket) {
        std::printf("Memcached: connect to socket failed");
    }
    return std::move(connection.socket);
}

tarn::unique_fd connect_address(const data_memcache& data) {
    const auto ip = tarn::service_host("memcache", data.in_docker, data.docker_container_name, data.ip);
    if (!ip) return {};
    tarn::stream connection = tarn::connect_service(*ip, data.port);
    if (connection.failed == tarn::stream_step::socket) print_error("socket() failed", connection.error);
    if (connection.failed == tarn::stream_step::timeouts)
        print_error("setsockopt() failed", connection.error);
    return std::move(connection.socket);
}

bool sample(data_memcache& data) {
    const tarn::unique_fd socket = data.socket[0] != '\0' ? connect_path(data) : connect_address(data);
    if (!socket) return false;
    if (tarn::send_once(socket, "stats\r\n") < 0) {
        std::perror("write() failed");
        return false;
    }
    std::array<char, reply_size> buffer;
    const auto reply = tarn::read_reply(socket, buffer);
    if (!reply) {
        std::perror("read() failed");
        return false;
    }
    memcache_parse_stats(*reply, data);
    return true;
}

}  // namespace

int memcache_parse_conf(tarn_mycustom_counter& counter, tarn_mycustom_data_memcache& data) {
    const std::string_view text = tarn::text_of(counter.cfg_string);
    tarn::copy_text(counter.id, text);
    tarn::service_conf conf(counter, ":");
    conf.word(data.ip);
    conf.port_or_socket(data.port, data.socket);
    data.in_docker = tarn::read_container(data.ip, data.docker_container_name);
    return text.find(':') == std::string_view::npos ? 0 : 1;
}

void memcache_parse_stats(std::string_view reply, tarn_mycustom_data_memcache& data) {
    // Only the first line may end at a carriage return.
    for (auto line = tarn::next_token(reply, "\r\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        if (!line.starts_with("STAT")) continue;
        tarn::scanner words(line);
        words.skip(1);
        const std::string_view name = words.word();
        tarn::store_named(name, words.rest(), stat_rows, data);
    }
}

int memcache_init1(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_memcache>(counter);
    tarn::copy_text(counter.report, "Memcache");
    auto& data = tarn::data_of<data_memcache>(counter);
    const bool parsed = memcache_parse_conf(counter, data) != 0;
    if (!parsed) {
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

int memcache_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_memcache>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    return data.ok;
}

int memcache_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    return tarn::delta_per_minute(counter, interval, iteration, rated);
}

int memcache_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_service(counter, document, rows);
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

int memcache_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_memcache>(counter);
    return 1;
}
