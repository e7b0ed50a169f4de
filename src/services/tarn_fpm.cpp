// Read from a PHP-FPM pool: its status page over FastCGI, lines "name: value" behind HTTP-like headers.
#include "services/tarn_fpm.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_service.h"

namespace {

using data_fpm = tarn_mycustom_data_fpm;

constexpr std::uint8_t type_standard_output = 6;

void as_accepted(data_fpm& data, std::string_view value) {
    data.accepted = static_cast<double>(tarn::to_number<std::uint64_t>(value));
}

constexpr tarn::reply_row<data_fpm> status_rows[] = {
    {"accepted conn:", as_accepted},
    {"active processes:", tarn::as_number<&data_fpm::active>},
    {"idle processes:", tarn::as_number<&data_fpm::idle>},
    {"total processes:", tarn::as_number<&data_fpm::total>},
    {"listen queue len:", tarn::as_number<&data_fpm::lqueue>},
    {"max children reached:", tarn::as_number<&data_fpm::max_children>}};

constexpr tarn::bson_row<data_fpm> rows[] = {{"ok", tarn::as_int64<&data_fpm::ok>},
                                             {"accepted", tarn::as_double<&data_fpm::accepted>},
                                             {"active", tarn::as_int64<&data_fpm::active>},
                                             {"idle", tarn::as_int64<&data_fpm::idle>},
                                             {"total", tarn::as_int64<&data_fpm::total>},
                                             {"lqueue", tarn::as_int64<&data_fpm::lqueue>},
                                             {"max_children", tarn::as_int64<&data_fpm::max_children>}};

/// "ID HOST:PORT STATUSPATH", or a socket path in place of the port.
void fpm_parse_conf(tarn_mycustom_counter& counter, data_fpm& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    conf.word(data.host);
    conf.port_or_socket(data.port, data.socket);
    conf.word(data.status_path);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

/// A connect that fails is said, and the session that follows then fails at its send.
tarn::unique_fd said(tarn::stream connection, const char* message, int send_error) {
    if (!connection.socket) {
        errno = connection.error;
        std::perror(message);
        errno = send_error;
        std::perror("send");
    }
    return std::move(connection.socket);
}

tarn::unique_fd fcgi_connect(std::string_view host, std::uint32_t port) {
    return said(tarn::connect_service(host, static_cast<int>(port)), "error socket bleble tcp", EPIPE);
}

tarn::unique_fd fcgi_connect_sock(std::string_view path) {
    return said(tarn::connect_unix(path, config.counter_tcp_to), "fpm socket connect failed", ENOTCONN);
}

void use_record(const fcgi_record& record, data_fpm& data) {
    const std::string_view content = record.content;
    if (record.header.type == type_standard_output)
        fpm_parse_res(content.substr(0, content.find('\0')), data);
    data.ok = 1;
}

}  // namespace

int fpm_parse_res(std::string_view raw, tarn_mycustom_data_fpm& data) {
    std::string_view line = tarn::next_token(raw, "\n");
    if (line.empty()) return 0;
    data.accepted = 0.0;
    data.active = data.idle = data.total = data.lqueue = data.max_children = 0;
    for (; !line.empty(); line = tarn::next_token(raw, "\n"))
        tarn::store_line(line, status_rows, data);
    return 1;
}

int fpm_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_fpm>(counter);
    tarn::copy_text(counter.report, "FPM");
    auto& data = tarn::data_of<data_fpm>(counter);
    fpm_parse_conf(counter, data);
    std::printf("FPM %s init with host: %s port: %d  status: %s socket: %s\n", counter.id, data.host,
                static_cast<int>(data.port), data.status_path, data.socket);
    return 1;
}

int fpm_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_fpm>(counter);
    tarn::unique_fd socket;
    if (data.socket[0] != '\0') {
        socket = fcgi_connect_sock(data.socket);
    } else {
        const auto host = tarn::service_host("fpm", data.in_docker, data.docker_container_name, data.host);
        if (!host) return 0;
        socket = fcgi_connect(*host, data.port);
    }
    if (socket) {
        simple_session_1(socket, data.status_path,
                         [&data](const fcgi_record& record) { use_record(record, data); });
    }
    return 1;
}

int fpm_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    const auto rate = [interval](const data_fpm& data, const data_fpm& prev, data_fpm& delta) {
        delta.accepted = tarn::increase_per_second(data.accepted, prev.accepted, interval);
    };
    return tarn::delta_scheme<data_fpm>(counter, iteration, rate);
}

int fpm_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_labelled(counter, document, rows);
}

int fpm_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_fpm>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\taccepted = %f\n", delta.accepted);
    std::printf("\tactive = %" PRIu64 "\n", delta.active);
    std::printf("\tidle = %" PRIu64 "\n", delta.idle);
    std::printf("t\ttotal = %" PRIu64 "\n", delta.total);
    std::printf("\tlqueue = %" PRIu64 "\n", delta.lqueue);
    std::printf("\tmax_children = %" PRIu64 "\n", delta.max_children);
    return 1;
}

int fpm_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_fpm>(counter);
    return 1;
}
