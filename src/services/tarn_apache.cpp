// Reads the page "/server-status?auto" of an Apache server: lines "name: value". The scoreboard line has one
// character per worker.
#include "services/tarn_apache.h"

#include <cinttypes>
#include <cstdio>

#include "record/tarn_config.h"
#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_version.h"

namespace {

using data_apache = tarn_mycustom_data_apache;
using enum tarn::rule;

struct scoreboard_cell {
    char letter;
    std::uint64_t data_apache::*member;
};

/// The cells that are counted. In Apache "W" means sending a reply, despite the name of the member.
constexpr scoreboard_cell cells[] = {{'W', &data_apache::scWaiting},   {'R', &data_apache::scReading},
                                     {'K', &data_apache::scKeepalive}, {'I', &data_apache::scIdlecleanup},
                                     {'D', &data_apache::scDns},       {'G', &data_apache::scFinishing},
                                     {'C', &data_apache::scClosing},   {'L', &data_apache::scLogging}};

void count_cells(data_apache& data, std::string_view value) {
    for (const char letter : tarn::scanner(value).word()) {
        for (const scoreboard_cell& cell : cells) {
            if (cell.letter == letter) ++(data.*cell.member);
        }
    }
}

constexpr auto figures = tarn::figures_of<data_apache>({
    tarn::reported<&data_apache::ok>("ok"),
    tarn::number<&data_apache::busyWorkers>("BusyWorkers:", "bW"),
    tarn::number<&data_apache::idleWorkers>("IdleWorkers:", "iW"),
    tarn::number<&data_apache::totalAccesses, per_second>("Total Accesses:", "tA"),
    tarn::read_by<&data_apache::scWaiting, count_cells>("Scoreboard:", "sc_W"),
    tarn::reported<&data_apache::scReading>("sc_R"),
    tarn::reported<&data_apache::scKeepalive>("sc_K"),
    tarn::reported<&data_apache::scIdlecleanup>("sc_I"),
    tarn::reported<&data_apache::scDns>("sc_D"),
    tarn::reported<&data_apache::scFinishing>("sc_F"),
    tarn::reported<&data_apache::scClosing>("sc_C"),
    tarn::reported<&data_apache::scLogging>("sc_L"),
});

/// "ID [USER:PASSWORD@]HOST:PORT".
void apache_parse_conf(tarn_mycustom_counter& counter, data_apache& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    if (conf.has_login()) conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
}

int apache_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_apache>(counter, "Apache");
    apache_parse_conf(counter, data);
    tarn::set_credentials_if_any(data.auth64, data.user, data.pass);
    std::printf("Apache %s init with %s %s %s %d %s\n", counter.id, data.user, "***", data.host,
                static_cast<int>(data.port), data.auth64);
    return 1;
}

}  // namespace

int apache_parse_res(std::string_view raw, tarn_mycustom_data_apache& data) {
    std::string_view line = tarn::next_token(raw, "\n");
    if (line.empty()) return 0;
    data.busyWorkers = data.idleWorkers = data.totalAccesses = 0;
    for (const scoreboard_cell& cell : cells)
        data.*cell.member = 0;
    for (; !line.empty(); line = tarn::next_token(raw, "\n"))
        tarn::store_by_prefix(line, figures, data);
    return 1;
}

namespace {

/// HTTP/1.0 without a Host header. The Authorization header is sent even without credentials.
std::string request_of(const data_apache& data) {
    std::string request = "GET /server-status";
    request.append(config.apacheSlashed != 0 ? "/" : "").append("?auto HTTP/1.0\r\nUser-Agent: tarn-client ");
    request.append(tarn_version).append("\r\nAuthorization: Basic ").append(data.auth64).append("\r\n\r\n");
    return request;
}

bool apache_update(data_apache& data) {
    const auto page = tarn::fetch_status_page("apache", data.host, static_cast<int>(data.port),
                                              request_of(data), "BusyWorkers");
    const bool parsed = page && apache_parse_res(*page, data) != 0;
    if (!parsed) std::printf("APACHE ERRRR :\n");
    return parsed;
}

int apache_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_apache>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tBusyWorkers = %" PRIu64 "\n", delta.busyWorkers);
    std::printf("\tIdleWorkers = %" PRIu64 "\n", delta.idleWorkers);
    std::printf("\tTotal Accesses = %" PRIu64 "\n", delta.totalAccesses);
    std::printf("\tScoreboard main\n");
    std::printf("\t\tWaiting for Connection = %" PRIu64 "\n", delta.scWaiting);
    std::printf("\t\tReading Request = %" PRIu64 "\n", delta.scReading);
    std::printf("\t\tKeepalive (read) = %" PRIu64 "\n", delta.scKeepalive);
    std::printf("\tScoreboard other\n");
    std::printf("\t\tIdle cleanup of worker = %" PRIu64 "\n", delta.scIdlecleanup);
    std::printf("\t\tDNS Lookup = %" PRIu64 "\n", delta.scDns);
    std::printf("\t\tGracefully finishing = %" PRIu64 "\n", delta.scFinishing);
    std::printf("\t\tClosing connection = %" PRIu64 "\n", delta.scClosing);
    std::printf("\t\tLogging = %" PRIu64 "\n", delta.scLogging);
    return 1;
}

}  // namespace

const tarn_operations apache_operations = {
    .init = apache_init,
    .update = tarn::sampled<apache_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_labelled<figures>,
    .dump = apache_dump,
    .free = tarn::free_records<data_apache>,
};
