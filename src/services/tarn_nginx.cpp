// Reads the stub status page of an Nginx server, four lines of text. Example:
//   Active connections: 3
//   server accepts handled requests
//    10 10 25
//   Reading: 0 Writing: 1 Waiting: 2
#include "services/tarn_nginx.h"

#include <cinttypes>
#include <cstdio>

#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_version.h"

namespace {

using data_nginx = tarn_mycustom_data_nginx;
using enum tarn::rule;

/// Reads "0 Writing: 1 Waiting: 2", the rest of the line after "Reading:".
void read_connections(data_nginx& data, std::string_view value) {
    tarn::scanner fields(value);
    if (!fields.number(data.reading)) return;
    if (!fields.literal("Writing:") || !fields.number(data.writing)) return;
    if (fields.literal("Waiting:")) fields.number(data.keepalive);
}

constexpr auto figures = tarn::figures_of<data_nginx>({
    tarn::reported<&data_nginx::ok>("ok"),
    tarn::reported<&data_nginx::all, increase>("rps"),
    tarn::number<&data_nginx::active>("Active connections:", "active"),
    tarn::read_by<&data_nginx::reading, read_connections>("Reading:", "reading"),
    tarn::reported<&data_nginx::writing>("writing"),
    tarn::reported<&data_nginx::keepalive>("keepalive"),
});

constexpr std::string_view totals_heading = "server accepts handled requests";

/// Reads the third of the three totals, requests; accepted and handled connections are not used.
void read_totals(std::string_view line, data_nginx& data) {
    tarn::scanner fields(line);
    int unused = 0;
    std::uint64_t requests = 0;
    if (fields.number(unused) && fields.number(unused) && fields.number(requests)) {
        data.all = static_cast<double>(requests);
    }
}

/// "ID [USER:PASSWORD@]HOST:PORT/PATH SERVER". Every "/" is a separator, so the path is a single segment.
void nginx_parse_conf(tarn_mycustom_counter& counter, data_nginx& data) {
    tarn::service_conf conf(counter, "@:/");
    conf.word(counter.id);
    if (conf.has_login()) conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
    conf.word(data.request_uri);
    conf.word(data.server);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

int nginx_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_nginx>(counter, "Nginx");
    nginx_parse_conf(counter, data);
    tarn::set_credentials_if_any(data.auth64, data.user, data.pass);
    std::printf("Nginx %s init with %s %s %s %d %s %s\n", counter.id, data.user, "***", data.host,
                static_cast<int>(data.port), data.request_uri, data.auth64);
    return 1;
}

}  // namespace

int nginx_parse_res(std::string_view raw, tarn_mycustom_data_nginx& data) {
    std::string_view line = tarn::next_token(raw, "\n");
    if (line.empty()) return 0;
    data.all = 0.0;
    data.active = data.reading = data.writing = data.keepalive = 0;
    bool totals_follow = false;
    for (; !line.empty(); line = tarn::next_token(raw, "\n")) {
        if (totals_follow) {
            read_totals(line, data);
            totals_follow = false;
        } else {
            totals_follow = line.starts_with(totals_heading);
            tarn::store_by_prefix(line, figures, data);
        }
    }
    return 1;
}

namespace {

/// Two blanks precede the version and none follows "Host:". The Authorization header is sent even without
/// credentials.
std::string request_of(const data_nginx& data) {
    std::string request = "GET /";
    request.append(data.request_uri).append("  HTTP/1.1\r\nHost:").append(data.server);
    request.append("\r\nUser-Agent: tarn-client ").append(tarn_version);
    request.append("\r\nAuthorization: Basic ").append(data.auth64).append("\r\n\r\n");
    return request;
}

bool fetch_status(data_nginx& data) {
    const auto host = tarn::service_host("nginx", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    const auto page = tarn::fetch_status_page("nginx", *host, static_cast<int>(data.port), request_of(data),
                                              "Active connections");
    return page && nginx_parse_res(*page, data) != 0;
}

bool nginx_update(data_nginx& data) {
    const bool fetched = fetch_status(data);
    if (!fetched) std::printf("NGINX ERRRR :\n");
    return fetched;
}

int nginx_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_nginx>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tAll = %f\n", delta.all);
    std::printf("\tActive = %" PRIu64 "\n", delta.active);
    std::printf("\tReading = %" PRIu64 "\n", delta.reading);
    std::printf("\tWriting = %" PRIu64 "\n", delta.writing);
    std::printf("\tKeepalive = %" PRIu64 "\n", delta.keepalive);
    return 1;
}

}  // namespace

const tarn_operations nginx_operations = {
    .init = nginx_init,
    .update = tarn::sampled<nginx_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_labelled<figures>,
    .dump = nginx_dump,
    .free = tarn::free_records<data_nginx>,
};
