// Reads the statistics views of a PostgreSQL server through libpq: the background writer, transactions,
// connections by state and by waiting, and long-running statements.
#include "services/tarn_postgre.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "record/tarn_config.h"
#include "services/tarn_postgreclient.h"
#include "services/tarn_service.h"
#include "services/tarn_socket_deadline.h"

namespace {

using data_postgre = tarn_mycustom_data_postgre;
using enum tarn::rule;

template <auto Member>
void read_count(data_postgre& data, std::string_view value) {
    data.*Member = static_cast<std::uint64_t>(tarn::to_number<std::int64_t>(value));
}

/// A count that the server returns under a column or row of this name.
template <auto Member, tarn::rule Rule = as_read>
constexpr auto count(std::string_view name, std::string_view key) {
    return tarn::read_by<Member, read_count<Member>, Rule>(name, key);
}

constexpr auto figures = tarn::figures_of<data_postgre>({
    tarn::reported<&data_postgre::ok>("ok"),
    count<&data_postgre::commited, per_minute>("commincnt", "cmtd"),
    // The server folds column names to lower case, so this one never matches.
    count<&data_postgre::rolled_back, per_minute>("rollbackCnt", "rolbck"),
    count<&data_postgre::checkpoint_timeout>("checkpoints_timed", "chk_t"),
    count<&data_postgre::checkpoint_segments>("checkpoints_req", "chk_seg"),
    count<&data_postgre::connections>("f", "all_con"),
    count<&data_postgre::active_connections, per_minute>("active", "actv_con"),
    count<&data_postgre::idle_connections, per_minute>("idle", "idle_con"),
    count<&data_postgre::idle_in_transact_conn, per_minute>("idle in transaction", "i_in_tr_con"),
    count<&data_postgre::lock_waiting_connections, per_minute>("t", "lock_con"),
    count<&data_postgre::buffers_checkpoint>("buffers_checkpoint", "buf_chk"),
    count<&data_postgre::buffers_clean>("buffers_clean", "buf_clean"),
    // Stored in the member of the previous row.
    tarn::read_by<&data_postgre::maxwritten_clean, read_count<&data_postgre::buffers_clean>>(
        "maxwritten_clean", "maxw_clean"),
    count<&data_postgre::buffers_backend>("buffers_backend", "buf_b"),
    count<&data_postgre::buffers_backend_fsync>("buffers_backend_fsync", "buf_b_fsync"),
    count<&data_postgre::buffers_alloc>("buffers_alloc", "buf_alloc"),
    count<&data_postgre::cnt_all, per_minute>("CNT_ALL", "slo_all"),
    count<&data_postgre::cnt_dml, per_minute>("CNT_DML", "slo_dml"),
    count<&data_postgre::cnt_sel, per_minute>("CNT_SEL", "slo_sel"),
});

constexpr const char* bgwriter_statement =
    "select "
    "checkpoints_timed,checkpoints_req,buffers_checkpoint,buffers_clean,maxwritten_clean,buffers_backend,"
    "buffers_backend_fsync,buffers_alloc from pg_stat_bgwriter";
constexpr const char* transactions_statement =
    "select sum(xact_commit) as comminCnt, sum(xact_rollback) as rollbackCnt  from pg_stat_database";
constexpr const char* states_statement = "select state, count(*) as cnt from pg_stat_activity group by state";

/// From version 9.6 on, a connection with a wait event is waiting; older servers have a column for it.
constexpr const char* wait_event_statement =
    "SELECT CASE WHEN wait_event_type IS NULL THEN 'f' ELSE 't' END AS waiting, COUNT(*) AS cnt FROM "
    "pg_stat_activity GROUP BY waiting";
constexpr const char* waiting_statement =
    "SELECT waiting, COUNT(*) AS cnt FROM pg_stat_activity GROUP BY waiting";

/// "ID USER:PASSWORD@HOST:PORT", or a word for the socket in place of the port.
void postgre_parse_conf(tarn_mycustom_counter& counter, data_postgre& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    conf.word(data.port);
    if (!tarn::is_valid_int(data.port)) std::swap(data.port, data.socket);
}

int postgre_init(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_postgre>(counter, "Postgre");
    postgre_parse_conf(counter, data);
    std::printf("Postgre %s init with %s %s %s %s %s \n", counter.id, data.user, "***", data.host, data.port,
                data.socket);
    return 1;
}

/// Builds the statement that counts the statements older than the threshold: all, selects, and changes of
/// data. `running` is the condition for a running statement, `query` the column with its text.
std::string slow_query_str(std::string_view slow_query_sec, std::string_view running,
                           std::string_view query) {
    std::string slow = " and now() - query_start > '";
    slow.append(slow_query_sec).append(" sec'::interval");
    std::string text = "select count(*), 'CNT_ALL' AS name from pg_stat_activity where ";
    text.append(running).append(slow);
    text.append(" UNION select count(*), 'CNT_SEL' AS name from pg_stat_activity where ").append(running);
    text.append(" and ").append(query).append(" ilike 'select%'").append(slow);
    text.append(" UNION select count(*), 'CNT_DML' AS name  from pg_stat_activity where ").append(running);
    text.append(slow).append(" and ").append(query).append(" ~* '^(insert|update|delete)'");
    return text;
}

}  // namespace

std::string get_query_str(std::string_view slow_query_sec) {
    return slow_query_str(slow_query_sec, "state = 'active'", "query");
}

std::string get_query_str_old(std::string_view slow_query_sec) {
    return slow_query_str(slow_query_sec, "current_query != '<IDLE>'", "current_query");
}

namespace {

/// Logs in, or reports why that failed. A socket word is passed as the port.
tarn::postgre_connection log_in(const data_postgre& data) {
    const char* const port = data.socket[0] != '\0' ? data.socket : data.port;
    if (*port == '\0') {
        std::fprintf(stderr, "\nFailed to connect to database!");
        return nullptr;
    }
    const auto host = tarn::resolved_host(data.host);
    tarn::postgre_connection connection;
    if (host) connection = tarn::postgre_log_in(host->c_str(), port, data.user, data.pass);
    if (tarn::postgre_is_connected(connection)) return connection;
    const char* const error =
        host ? tarn::postgre_error_text(connection) : "the look-up of the host took too long";
    tarn::note_library_error(error);
    if (data.socket[0] != '\0') {
        std::printf("\nFailed to connect to postgres database: %s %s %s Error: %s \n", data.user, "***",
                    data.socket, error);
    } else {
        std::printf("\nFailed to connect to postgres database: %s %s %s %s Error: %s \n", data.user, "***",
                    data.host, data.port, error);
    }
    return nullptr;
}

/// Runs a statement that returns one row, and stores its columns by their names.
bool read_columns(const tarn::postgre_connection& connection, const char* statement, data_postgre& data) {
    const tarn::postgre_result result(connection, statement);
    if (!result) return false;
    for (int column = 0; column < result.columns(); ++column)
        tarn::store_by_name(result.name(column), result.text(0, column), figures, data);
    return true;
}

/// Runs a statement that returns names and counts, and stores them. `name` and `count` are column numbers.
bool read_counts(const tarn::postgre_connection& connection, const char* statement, int name, int count,
                 data_postgre& data) {
    const tarn::postgre_result result(connection, statement);
    if (!result) return false;
    for (int row = 0; row < result.rows(); ++row)
        tarn::store_by_name(result.text(row, name), result.text(row, count), figures, data);
    return true;
}

/// Prints the message of a failed statement.
bool failed(const char* message) {
    std::printf("%s", message);
    return false;
}

bool read_connections(const tarn::postgre_connection& connection, std::int64_t version, data_postgre& data) {
    if (version > 90199) {
        if (!read_counts(connection, states_statement, 0, 1, data)) {
            return failed("\n\nSELECT query3 failed.\n\n");
        }
    } else {
        data.active_connections = data.idle_connections = data.idle_in_transact_conn = 0;
    }
    const char* const statement = version > 90599 ? wait_event_statement : waiting_statement;
    if (!read_counts(connection, statement, 0, 1, data)) {
        return failed("\n\nSELECT query4 failed.\n\n");
    }
    data.connections += data.lock_waiting_connections;
    return true;
}

bool read_all(const tarn::postgre_connection& connection, data_postgre& data) {
    if (!read_columns(connection, bgwriter_statement, data)) {
        return failed("\n\nSELECT query1 failed.\n\n");
    }
    if (!read_columns(connection, transactions_statement, data)) {
        return failed("\n\nSELECT query2 failed.\n\n");
    }
    const tarn::postgre_result server(connection, "show server_version_num");
    if (!server) return failed("\n\nSHOW SERVER_VERSION_NUM failed.\n\n");
    const auto version = tarn::to_number<std::int64_t>(server.text(0, 0));
    if (!read_connections(connection, version, data)) return false;

    const std::string_view seconds = tarn::text_of(config.slow_query_sec);
    const std::string slow = version >= 90200 ? get_query_str(seconds) : get_query_str_old(seconds);
    if (!read_counts(connection, slow.c_str(), 1, 0, data)) {
        return failed("\n\nSELECT query5 failed.\n\n");
    }
    return true;
}

/// Time limit of an exchange, in multiples of `counter_tcp_to`. A server that is slow under load must still
/// be sampled.
constexpr int exchange_timeouts = 5;

/// A failed login leaves `ok` unchanged, so that the last figures are still reported.
int postgre_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_postgre>(counter);
    const tarn::postgre_connection connection = log_in(data);
    if (!connection) return 0;
    const auto limit = exchange_timeouts * tarn::timeout_of(config.counter_tcp_to);
    const tarn::socket_deadline deadline(tarn::postgre_socket(connection), limit, limit);
    data.ok = 0;
    data.ok = read_all(connection, data) ? 1 : 0;
    if (data.ok == 0) tarn::note_library_error(tarn::postgre_error_text(connection));
    return data.ok;
}

int postgre_dump(tarn_mycustom_counter& counter) {
    const auto& data = tarn::data_of<data_postgre>(counter);
    const auto line = [](const char* name, std::uint64_t value) {
        std::printf("\t%s = %" PRIu64 "\n", name, value);
    };
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, data.ok);
    line("commited", data.commited);
    line("rolled_back", data.rolled_back);
    line("checkpoint_timeout", data.checkpoint_timeout);
    line("checkpoint_segments", data.checkpoint_segments);
    line("connections", data.connections);
    line("active_connections", data.active_connections);
    line("idle_connections", data.idle_connections);
    line("idle_in_transact_conn", data.idle_in_transact_conn);
    line("lock_waiting_connections", data.lock_waiting_connections);
    line("buffers_checkpoint", data.buffers_checkpoint);
    line("buffers_clean", data.buffers_clean);
    line("maxwritten_clean", data.maxwritten_clean);
    line("buffers_backend", data.buffers_backend);
    line("buffers_backend_fsync", data.buffers_backend_fsync);
    line("buffers_alloc", data.buffers_alloc);
    line("slo_all", data.cnt_all);
    line("slo_dml", data.cnt_dml);
    line("slo_sel", data.cnt_sel);
    return 1;
}

}  // namespace

const tarn_operations postgre_operations = {
    .init = tarn::with_postgre<postgre_init>,
    .reinit = tarn::reinit_nothing,
    .update = tarn::with_postgre<postgre_update>,
    .delta = tarn::with_postgre<tarn::delta_by_rules<figures>>,
    .tobson = tarn::with_postgre<tarn::append_labelled<figures>>,
    .dump = tarn::with_postgre<postgre_dump>,
    .free = tarn::free_records<data_postgre>,
};
