// Reads the status page of a PHP-FPM pool over FastCGI: HTTP-like headers, then lines "name: value".
#include "services/tarn_fpm.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "record/tarn_reason.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_service.h"

namespace {

using data_fpm = tarn_mycustom_data_fpm;
using enum tarn::rule;

void read_accepted(data_fpm& data, std::string_view value) {
    data.accepted = static_cast<double>(tarn::to_number<std::uint64_t>(value));
}

constexpr auto figures = tarn::figures_of<data_fpm>({
    tarn::reported<&data_fpm::ok>("ok"),
    tarn::read_by<&data_fpm::accepted, read_accepted, increase>("accepted conn:", "accepted"),
    tarn::number<&data_fpm::active>("active processes:", "active"),
    tarn::number<&data_fpm::idle>("idle processes:", "idle"),
    tarn::number<&data_fpm::total>("total processes:", "total"),
    tarn::number<&data_fpm::lqueue>("listen queue len:", "lqueue"),
    tarn::number<&data_fpm::max_children>("max children reached:", "max_children"),
});

/// "ID HOST:PORT STATUSPATH", or a socket path in place of the port.
void fpm_parse_conf(tarn_mycustom_counter& counter, data_fpm& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    conf.word(data.host);
    conf.port_or_socket(data.port, data.socket);
    conf.word(data.status_path);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

int fpm_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_fpm>(counter, "FPM");
    fpm_parse_conf(counter, data);
    std::printf("FPM %s init with host: %s port: %d  status: %s socket: %s\n", counter.id, data.host,
                static_cast<int>(data.port), data.status_path, data.socket);
    return 1;
}

}  // namespace

int fpm_parse_res(std::string_view raw, tarn_mycustom_data_fpm& data) {
    std::string_view line = tarn::next_token(raw, "\n");
    if (line.empty()) return 0;
    data.accepted = 0.0;
    data.active = data.idle = data.total = data.lqueue = data.max_children = 0;
    for (; !line.empty(); line = tarn::next_token(raw, "\n"))
        tarn::store_by_prefix(line, figures, data);
    return 1;
}

namespace {

constexpr std::uint8_t type_standard_output = 6;

/// Reports a failed connect, and the error of the send that would follow it.
tarn::stream reporting_failure(tarn::stream connection, const char* message, int send_error) {
    if (!connection) {
        tarn::print_error(message, connection.error);
        tarn::print_error("send", send_error);
    }
    return connection;
}

tarn::stream fcgi_connect(std::string_view host, std::uint32_t port) {
    return reporting_failure(tarn::connect_service(host, static_cast<int>(port)), "error socket bleble tcp",
                             EPIPE);
}

tarn::stream fcgi_connect_sock(std::string_view path) {
    return reporting_failure(tarn::connect_service_path(path), "fpm socket connect failed", ENOTCONN);
}

void store_record(const fcgi_record& record, data_fpm& data) {
    const std::string_view content = record.content;
    if (record.header.type == type_standard_output) {
        const std::string_view page = content.substr(0, content.find('\0'));
        if (!page.empty()) tarn::expect_text(page, "accepted conn");
        fpm_parse_res(page, data);
    }
    data.ok = 1;
}

/// Once an answer has been received, `ok` stays 1: a pool that no longer answers keeps its last figures.
int fpm_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_fpm>(counter);
    tarn::stream connection;
    if (data.socket[0] != '\0') {
        connection = fcgi_connect_sock(data.socket);
    } else {
        const auto host = tarn::service_host("fpm", data.in_docker, data.docker_container_name, data.host);
        if (!host) return 0;
        connection = fcgi_connect(*host, data.port);
    }
    if (!connection) return 1;
    bool has_answered = false;
    simple_session_1(connection, data.status_path, tarn::answer_deadline(1),
                     [&data, &has_answered](const fcgi_record& record) {
                         store_record(record, data);
                         has_answered = true;
                     });
    if (!has_answered) tarn::note_reason("no answer");
    return 1;
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

}  // namespace

const tarn_operations fpm_operations = {
    .init = fpm_init,
    .update = fpm_update,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_labelled<figures>,
    .dump = fpm_dump,
    .free = tarn::free_records<data_fpm>,
};
