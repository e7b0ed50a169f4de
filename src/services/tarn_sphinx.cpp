// Read from a Sphinx search daemon through the MySQL client library: the rows (name, value) of "SHOW
// STATUS;".
#include "services/tarn_sphinx.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_mysqlclient.h"
#include "services/tarn_service.h"

namespace {

using data_sphinx = tarn_mycustom_data_sphinx;

void as_seconds(data_sphinx& data, std::string_view value) {
    data.Q_W = std::strtod(std::string(value).c_str(), nullptr);
}

constexpr tarn::reply_row<data_sphinx> status_rows[] = {
    {"connections", tarn::as_number_or_0<&data_sphinx::C>},
    {"command_search", tarn::as_number_or_0<&data_sphinx::C_S>},
    {"command_update", tarn::as_number_or_0<&data_sphinx::C_U>},
    {"queries", tarn::as_number_or_0<&data_sphinx::Q>},
    {"query_wall", as_seconds}};

constexpr std::uint64_t data_sphinx::*rated[] = {&data_sphinx::C, &data_sphinx::C_S, &data_sphinx::C_U,
                                                 &data_sphinx::Q};

constexpr tarn::bson_row<data_sphinx> rows[] = {
    {"ok", tarn::as_int64<&data_sphinx::ok>},   {"C", tarn::as_int64<&data_sphinx::C>},
    {"C_S", tarn::as_int64<&data_sphinx::C_S>}, {"C_U", tarn::as_int64<&data_sphinx::C_U>},
    {"Q", tarn::as_int64<&data_sphinx::Q>},     {"Q_W", tarn::as_double<&data_sphinx::Q_W>}};

bool is_loaded() {
    return config.mysql_handle != nullptr;
}

/// "ID USER:PASSWORD@HOST:PORT".
void sphinx_parse_conf(tarn_mycustom_counter& counter, data_sphinx& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
}

bool sample(data_sphinx& data) {
    tarn::mysql_connection connection = tarn::mysql_prepare();
    if (!tarn::mysql_connect(connection, {data.host, data.user, data.pass, data.port, nullptr})) {
        std::fprintf(stderr, "Failed to connect to sphinx(%s:%s@%s:%d): Error: %s\n", data.user, data.pass,
                     data.host, static_cast<int>(data.port), tarn::mysql_error_text(connection));
        return false;
    }
    tarn::mysql_rows result(connection, "SHOW STATUS;", 2);
    while (char** const row = result.next()) {
        if (row[1] == nullptr) return false;
        if (row[0] != nullptr) tarn::store_named(row[0], row[1], status_rows, data);
    }
    return true;
}

}  // namespace

int sphinx_init(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
    tarn::allocate_records<data_sphinx>(counter);
    tarn::copy_text(counter.report, "Sphinx");
    auto& data = tarn::data_of<data_sphinx>(counter);
    sphinx_parse_conf(counter, data);
    data.ok = 1;
    return 1;
}

int sphinx_reinit(tarn_mycustom_counter& /*counter*/) {
    return 1;
}

int sphinx_update(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
    auto& data = tarn::data_of<data_sphinx>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    return data.ok;
}

int sphinx_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    if (!is_loaded()) return 0;
    const auto rates = [interval](const data_sphinx& data, const data_sphinx& prev, data_sphinx& delta) {
        tarn::rate_per_minute(rated, data, prev, delta, interval);
        delta.Q_W = (data.Q_W - prev.Q_W) * 60.0 / interval;
    };
    return tarn::delta_scheme<data_sphinx>(counter, iteration, rates);
}

int sphinx_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return is_loaded() ? tarn::append_labelled(counter, document, rows) : 0;
}

int sphinx_dump(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
    const auto& delta = tarn::data_delta_of<data_sphinx>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tconnections = %" PRIu64 "\n", delta.C);
    std::printf("\tcommands_search = %" PRIu64 "\n", delta.C_S);
    std::printf("\tcommands_update = %" PRIu64 "\n", delta.C_U);
    std::printf("\tqueries = %" PRIu64 "\n", delta.Q);
    std::printf("\tquery_wall = %f\n", delta.Q_W);
    return 1;
}

int sphinx_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_sphinx>(counter);
    return 1;
}
