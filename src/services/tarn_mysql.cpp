// Reads from a MySQL server through its client library: global status rows (name, value), InnoDB row counts
// if the server reports its InnoDB version, and the replication status.
#include "services/tarn_mysql.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "services/tarn_mysqlclient.h"
#include "services/tarn_service.h"
#include "support/tarn_version.h"

namespace {

using data_mysql = tarn_mycustom_data_mysql;
using enum tarn::rule;

/// Stores a count of pages as bytes.
template <auto Member>
void read_pages(data_mysql& data, std::string_view value) {
    constexpr unsigned page_bits = 14;
    data.*Member = tarn::to_number<std::uint64_t>(value) << page_bits;
}

void append_running(bson_t& document, std::string_view key, const data_mysql& data) {
    if (data.is_slave == 0) return;
    tarn::append_int64(document, key, data.slave_io != 0 && data.slave_sql != 0 ? 1 : 0);
}

void append_delay(bson_t& document, std::string_view key, const data_mysql& data) {
    if (data.is_slave != 0) tarn::append_int64(document, key, data.slave_delay);
}

constexpr auto figures = tarn::figures_of<data_mysql>({
    tarn::number_or_0<&data_mysql::insert, per_minute>("Com_insert", "insert"),
    tarn::number_or_0<&data_mysql::select, per_minute>("Com_select", "select"),
    tarn::number_or_0<&data_mysql::update, per_minute>("Com_update", "update"),
    tarn::number_or_0<&data_mysql::delet, per_minute>("Com_delete", "delete"),
    tarn::number_or_0<&data_mysql::aborted, per_minute>("Aborted_connects", "aborted"),
    tarn::read_by<&data_mysql::innodb_pool, read_pages<&data_mysql::innodb_pool>>(
        "Innodb_buffer_pool_pages_data", "innodb_pool"),
    tarn::number_or_0<&data_mysql::slow, per_minute>("Slow_queries", "slow"),
    tarn::read_by<&data_mysql::innodb_free, read_pages<&data_mysql::innodb_free>>(
        "Innodb_buffer_pool_pages_free", "innodb_free"),
    tarn::number_or_0<&data_mysql::innodb_rows_deleted, per_minute>("INNODB_ROWS_DELETED", "innodb_del"),
    tarn::number_or_0<&data_mysql::innodb_rows_inserted, per_minute>("INNODB_ROWS_INSERTED", "innodb_ins"),
    tarn::number_or_0<&data_mysql::innodb_rows_read, per_minute>("INNODB_ROWS_READ", "innodb_read"),
    tarn::number_or_0<&data_mysql::innodb_rows_updated, per_minute>("INNODB_ROWS_UPDATED", "innodb_updated"),
    tarn::appended_by(append_running, tarn::reported<&data_mysql::slave_io>("slave_running")),
    tarn::appended_by(append_delay, tarn::reported<&data_mysql::slave_delay>("behind_master")),
});

constexpr const char* status_statement =
    "SHOW GLOBAL STATUS where Variable_name in ('Com_select','Com_insert','Com_update','Com_delete',"
    "'Aborted_connects','Innodb_buffer_pool_pages_data','Slow_queries','Innodb_buffer_pool_pages_free')";
constexpr const char* innodb_statement =
    "select * from information_schema.GLOBAL_STATUS where VARIABLE_NAME like 'INNODB_ROWS_%'";

/// Column numbers of the replication status, from 0.
constexpr unsigned slave_io_running = 10;
constexpr unsigned slave_sql_running = 11;
constexpr unsigned seconds_behind_master = 32;

/// "ID USER:PASSWORD@HOST:PORT", or a socket path in place of the port.
void mysql_parse_conf(tarn_mycustom_counter& counter, data_mysql& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    conf.port_or_socket(data.port, data.socket);
    data.in_docker = tarn::read_container(data.host, data.docker_container_name);
}

int mysql_init1(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_mysql>(counter, "Mysql");
    mysql_parse_conf(counter, data);
    std::printf("Mysql %s init with %s %s %s %d %s\n", counter.id, data.user, "***", data.host,
                static_cast<int>(data.port), data.socket);
    return 1;
}

bool connect_path(tarn::mysql_connection& connection, const data_mysql& data) {
    if (tarn::mysql_connect(connection, {"localhost", data.user, data.pass, 0, data.socket})) return true;
    std::fprintf(stderr, "Failed to connect to mysql(%s:%s@%s/%s): Error: %s\n", data.user, "***",
                 "localhost", data.socket, tarn::mysql_error_text(connection));
    return false;
}

bool connect_port(tarn::mysql_connection& connection, const data_mysql& data) {
    const auto host = tarn::service_host("mysql", data.in_docker, data.docker_container_name, data.host);
    if (!host) return false;
    if (tarn::mysql_connect(connection, {host->c_str(), data.user, data.pass, data.port, nullptr}))
        return true;
    std::fprintf(stderr, "Failed to connect to mysql(%s:%s@%s:%d )%s: Error: %s\n", data.user, "***",
                 data.host, static_cast<int>(data.port), data.in_docker != 0 ? " (using docker)" : "",
                 tarn::mysql_error_text(connection));
    return false;
}

bool connect_mysql(tarn::mysql_connection& connection, const data_mysql& data) {
    if (data.socket[0] != '\0') return connect_path(connection, data);
    if (data.port != 0) return connect_port(connection, data);
    std::fprintf(stderr, "Failed to connect to mysql(%s:%s@%s:(%d | %s)): Error: %s\n", data.user, "***",
                 data.host, static_cast<int>(data.port), data.socket, tarn::mysql_error_text(connection));
    return false;
}

/// Runs a statement that returns names and values, and stores its rows.
void read_named(const tarn::mysql_connection& connection, const char* statement, data_mysql& data) {
    tarn::mysql_rows result(connection, statement, 2);
    while (char** const row = result.next()) {
        if (row[0] != nullptr) tarn::store_by_name(row[0], row[1] != nullptr ? row[1] : "", figures, data);
    }
}

/// The first two numbers of a version text.
tarn_version_info parse_version(std::string_view text) {
    int major = 0;
    int minor = 0;
    const std::size_t dot = std::min(text.find('.'), text.size());
    tarn::read_number(text.substr(0, dot), major);
    if (dot < text.size()) tarn::read_number(text.substr(dot + 1), minor);
    return {static_cast<unsigned>(major), static_cast<unsigned>(minor)};
}

/// True when the server reports an InnoDB version that has the row counts.
bool has_innodb_rows(const tarn::mysql_connection& connection) {
    constexpr tarn_version_info oldest{5, 0};
    tarn::mysql_rows result(connection, "SHOW VARIABLES LIKE 'innodb_version'", 2);
    bool has_rows = false;
    while (char** const row = result.next()) {
        if (row[1] != nullptr)
            has_rows = has_rows || tarn_version_compare(parse_version(row[1]), oldest) >= 0;
    }
    return has_rows;
}

void read_replication(const tarn::mysql_connection& connection, data_mysql& data) {
    const auto is_yes = [](const char* text) { return text != nullptr && *text == 'Y' ? 1U : 0U; };
    data.is_slave = 0;
    tarn::mysql_rows result(connection, "SHOW SLAVE STATUS", seconds_behind_master + 1);
    while (char** const row = result.next()) {
        data.is_slave = 1;
        data.slave_io = is_yes(row[slave_io_running]);
        data.slave_sql = is_yes(row[slave_sql_running]);
        const char* const delay = row[seconds_behind_master];
        if (delay != nullptr) data.slave_delay = static_cast<std::uint32_t>(tarn::to_number<int>(delay));
    }
}

bool mysql_update(data_mysql& data) {
    tarn::mysql_connection connection = tarn::mysql_create();
    if (!connect_mysql(connection, data)) return false;
    read_named(connection, status_statement, data);
    if (has_innodb_rows(connection)) read_named(connection, innodb_statement, data);
    read_replication(connection, data);
    return true;
}

int mysql_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_mysql>(counter);
    std::printf("MyCustom %s report %s :\n", counter.report, counter.id);
    std::printf("\tinsert = %" PRIu64 "\n", delta.insert);
    std::printf("\tselect = %" PRIu64 "\n", delta.select);
    std::printf("\tupdate = %" PRIu64 "\n", delta.update);
    std::printf("\tdelet = %" PRIu64 "\n", delta.delet);
    std::printf("\taborted = %" PRIu64 "\n", delta.aborted);
    std::printf("\tinnodb_pool = %" PRIu64 "\n", delta.innodb_pool);
    std::printf("\tinnodb_free= %" PRIu64 "\n", delta.innodb_free);
    std::printf("\tslow = %" PRIu64 "\n", delta.slow);
    std::printf("\tinnodb_rows_deleted = %" PRIu64 "\n", delta.innodb_rows_deleted);
    std::printf("\tinnodb_rows_inserted= %" PRIu64 "\n", delta.innodb_rows_inserted);
    std::printf("\tinnodb_rows_read = %" PRIu64 "\n", delta.innodb_rows_read);
    std::printf("\tinnodb_rows_updated = %" PRIu64 "\n", delta.innodb_rows_updated);
    std::printf("\tis_slave = %u\n", delta.is_slave);
    if (delta.is_slave == 0) return 1;
    std::printf("\tslave_sql = %u\n", delta.slave_sql);
    std::printf("\tslave_io = %u\n", delta.slave_io);
    std::printf("\tslave_delay = %u\n", delta.slave_delay);
    return 1;
}

}  // namespace

const tarn_operations mysql_operations = {
    .init = tarn::with_mysql<mysql_init1>,
    .update = tarn::with_mysql<tarn::sampled<mysql_update>>,
    .delta = tarn::with_mysql<tarn::delta_by_rules<figures>>,
    .tobson = tarn::with_mysql<tarn::append_by_id<figures>>,
    .dump = tarn::with_mysql<mysql_dump>,
    .free = tarn::free_records<data_mysql>,
};
