// Reads the rows (name, value) of "SHOW STATUS;" from a Sphinx search daemon through the MySQL client
// library.
#include "services/tarn_sphinx.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "services/tarn_mysqlclient.h"
#include "services/tarn_service.h"

namespace {

using data_sphinx = tarn_mycustom_data_sphinx;
using enum tarn::rule;

void read_seconds(data_sphinx& data, std::string_view value) {
    data.Q_W = std::strtod(std::string(value).c_str(), nullptr);
}

constexpr auto figures = tarn::figures_of<data_sphinx>({
    tarn::reported<&data_sphinx::ok>("ok"),
    tarn::number_or_0<&data_sphinx::C, per_minute>("connections", "C"),
    tarn::number_or_0<&data_sphinx::C_S, per_minute>("command_search", "C_S"),
    tarn::number_or_0<&data_sphinx::C_U, per_minute>("command_update", "C_U"),
    tarn::number_or_0<&data_sphinx::Q, per_minute>("queries", "Q"),
    tarn::read_by<&data_sphinx::Q_W, read_seconds, per_minute>("query_wall", "Q_W"),
});

/// "ID USER:PASSWORD@HOST:PORT".
void sphinx_parse_conf(tarn_mycustom_counter& counter, data_sphinx& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    data.port = static_cast<std::uint32_t>(conf.number());
}

int sphinx_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_sphinx>(counter, "Sphinx");
    sphinx_parse_conf(counter, data);
    data.ok = 1;
    return 1;
}

bool sphinx_update(data_sphinx& data) {
    tarn::mysql_connection connection = tarn::mysql_create();
    if (!tarn::mysql_connect(connection, {data.host, data.user, data.pass, data.port, nullptr})) {
        std::fprintf(stderr, "Failed to connect to sphinx(%s:%s@%s:%d): Error: %s\n", data.user, data.pass,
                     data.host, static_cast<int>(data.port), tarn::mysql_error_text(connection));
        return false;
    }
    tarn::mysql_rows result(connection, "SHOW STATUS;", 2);
    while (char** const row = result.next()) {
        if (row[1] == nullptr) return false;
        if (row[0] != nullptr) tarn::store_by_name(row[0], row[1], figures, data);
    }
    return true;
}

int sphinx_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_sphinx>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tconnections = %" PRIu64 "\n", delta.C);
    std::printf("\tcommands_search = %" PRIu64 "\n", delta.C_S);
    std::printf("\tcommands_update = %" PRIu64 "\n", delta.C_U);
    std::printf("\tqueries = %" PRIu64 "\n", delta.Q);
    std::printf("\tquery_wall = %f\n", delta.Q_W);
    return 1;
}

}  // namespace

const tarn_operations sphinx_operations = {
    .init = tarn::with_mysql<sphinx_init>,
    .reinit = tarn::reinit_nothing,
    .update = tarn::with_mysql<tarn::sampled<sphinx_update>>,
    .delta = tarn::with_mysql<tarn::delta_by_rules<figures>>,
    .tobson = tarn::with_mysql<tarn::append_labelled<figures>>,
    .dump = tarn::with_mysql<sphinx_dump>,
    .free = tarn::free_records<data_sphinx>,
};
