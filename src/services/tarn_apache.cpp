// Read from an Apache server: "/server-status?auto", lines "name: value", among them the scoreboard, which
// has one character per worker.
#include "services/tarn_apache.h"

#include <cinttypes>
#include <cstdio>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_http.h"
#include "services/tarn_service.h"
#include "support/tarn_version.h"

namespace {

using data_apache = tarn_mycustom_data_apache;

struct scoreboard_cell {
    char letter;
    std::uint64_t data_apache::*member;
};

/// Cells that are counted; "W" is what the page calls sending a reply.
constexpr scoreboard_cell cells[] = {{'W', &data_apache::scWaiting},   {'R', &data_apache::scReading},
                                     {'K', &data_apache::scKeepalive}, {'I', &data_apache::scIdlecleanup},
                                     {'D', &data_apache::scDns},       {'G', &data_apache::scFinishing},
                                     {'C', &data_apache::scClosing},   {'L', &data_apache::scLogging}};

void as_scoreboard(data_apache& data, std::string_view value) {
    for (const char letter : tarn::scanner(value).word()) {
        for (const scoreboard_cell& cell : cells) {
            if (cell.letter == letter) ++(data.*cell.member);
        }
    }
}

constexpr tarn::reply_row<data_apache> page_rows[] = {
    {"Total Accesses:", tarn::as_number<&data_apache::totalAccesses>},
    {"BusyWorkers:", tarn::as_number<&data_apache::busyWorkers>},
    {"IdleWorkers:", tarn::as_number<&data_apache::idleWorkers>},
    {"Scoreboard:", as_scoreboard}};

constexpr tarn::bson_row<data_apache> rows[] = {{"ok", tarn::as_int64<&data_apache::ok>},
                                                {"bW", tarn::as_int64<&data_apache::busyWorkers>},
                                                {"iW", tarn::as_int64<&data_apache::idleWorkers>},
                                                {"tA", tarn::as_int64<&data_apache::totalAccesses>},
                                                {"sc_W", tarn::as_int64<&data_apache::scWaiting>},
                                                {"sc_R", tarn::as_int64<&data_apache::scReading>},
                                                {"sc_K", tarn::as_int64<&data_apache::scKeepalive>},
                                                {"sc_I", tarn::as_int64<&data_apache::scIdlecleanup>},
                                                {"sc_D", tarn::as_int64<&data_apache::scDns>},
                                                {"sc_F", tarn::as_int64<&data_apache::scFinishing>},
                                                {"sc_C", tarn::as_int64<&data_apache::scClosing>},
                                                {"sc_L", tarn::as_int64<&data_apache::scLogging>}};

/// "ID [USER:PASSWORD@]HOST:PORT".
void apache_parse_conf(tarn_mycustom_counter& counter, data_apache& data) {
    tarn::service_conf conf(counter, "@:");
    conf.word(counter.id);
    if (conf.has_login()) conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
}

/// HTTP/1.0 without a Host header, and credentials even when there are none.
std::string request_of(const data_apache& data) {
    std::string request = "GET /server-status";
    request.append(config.apacheSlashed != 0 ? "/" : "").append("?auto HTTP/1.0\r\nUser-Agent: tarn-client ");
    request.append(tarn_version).append("\r\nAuthorization: Basic ").append(data.auth64).append("\r\n\r\n");
    return request;
}

bool sample(data_apache& data) {
    const auto page =
        tarn::fetch_status_page("apache", data.host, static_cast<int>(data.port), request_of(data));
    return page && apache_parse_res(*page, data) != 0;
}

}  // namespace

int apache_parse_res(std::string_view raw, tarn_mycustom_data_apache& data) {
    std::string_view line = tarn::next_token(raw, "\n");
    if (line.empty()) return 0;
    data.busyWorkers = data.idleWorkers = data.totalAccesses = 0;
    for (const scoreboard_cell& cell : cells)
        data.*cell.member = 0;
    for (; !line.empty(); line = tarn::next_token(raw, "\n"))
        tarn::store_line(line, page_rows, data);
    return 1;
}

int apache_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_apache>(counter);
    tarn::copy_text(counter.report, "Apache");
    auto& data = tarn::data_of<data_apache>(counter);
    apache_parse_conf(counter, data);
    tarn::set_credentials_if_any(data.auth64, data.user, data.pass);
    std::printf("Apache %s init with %s %s %s %d %s\n", counter.id, data.user, "***", data.host,
                static_cast<int>(data.port), data.auth64);
    return 1;
}

int apache_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_apache>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    if (data.ok == 0) std::printf("APACHE ERRRR :\n");
    return data.ok;
}

int apache_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    const auto rate = [interval](const data_apache& data, const data_apache& prev, data_apache& delta) {
        delta.totalAccesses = (data.totalAccesses - prev.totalAccesses) / interval;
    };
    return tarn::delta_scheme<data_apache>(counter, iteration, rate);
}

int apache_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_labelled(counter, document, rows);
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

int apache_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_apache>(counter);
    return 1;
}
