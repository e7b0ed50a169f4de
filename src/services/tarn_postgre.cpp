// Read from a PostgreSQL server through libpq, from its statistics views: the background writer,
// transactions, connections by state and by waiting, and statements that have been running for long.
#include "services/tarn_postgre.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "record/tarn_config.h"
#include "record/tarn_rates.h"
#include "services/tarn_postgreclient.h"
#include "services/tarn_service.h"
#include "support/tarn_deadline.h"

namespace {

using data_postgre = tarn_mycustom_data_postgre;

/// An exchange may take this many time-outs: a server that is slow under load is the one to watch.
constexpr int exchange_timeouts = 5;

/// What stands in an answer, by column or row name, and the member that it goes to.
struct named_member {
    std::string_view name;
    std::uint64_t data_postgre::*member;
};

constexpr const char* bgwriter_statement =
    "select "
    "checkpoints_timed,checkpoints_req,buffers_checkpoint,buffers_clean,maxwritten_clean,buffers_backend,"
    "buffers_backend_fsync,buffers_alloc from pg_stat_bgwriter";
constexpr named_member bgwriter_columns[] = {{"checkpoints_timed", &data_postgre::checkpoint_timeout},
                                             {"checkpoints_req", &data_postgre::checkpoint_segments},
                                             {"buffers_checkpoint", &data_postgre::buffers_checkpoint},
                                             {"buffers_clean", &data_postgre::buffers_clean},
                                             {"maxwritten_clean", &data_postgre::buffers_clean},
                                             {"buffers_backend", &data_postgre::buffers_backend},
                                             {"buffers_backend_fsync", &data_postgre::buffers_backend_fsync},
                                             {"buffers_alloc", &data_postgre::buffers_alloc}};

constexpr const char* transactions_statement =
    "select sum(xact_commit) as comminCnt, sum(xact_rollback) as rollbackCnt  from pg_stat_database";
/// The server folds both names to lower case, so the second never matches.
constexpr named_member transactions_columns[] = {{"commincnt", &data_postgre::commited},
                                                 {"rollbackCnt", &data_postgre::rolled_back}};

constexpr const char* states_statement = "select state, count(*) as cnt from pg_stat_activity group by state";
constexpr named_member states[] = {{"active", &data_postgre::active_connections},
                                   {"idle", &data_postgre::idle_connections},
                                   {"idle in transaction", &data_postgre::idle_in_transact_conn}};

/// From version 9.6 on a connection waits when it has a wait event; before, there is a column that says so.
constexpr const char* wait_event_statement =
    "SELECT CASE WHEN wait_event_type IS NULL THEN 'f' ELSE 't' END AS waiting, COUNT(*) AS cnt FROM "
    "pg_stat_activity GROUP BY waiting";
constexpr const char* waiting_statement =
    "SELECT waiting, COUNT(*) AS cnt FROM pg_stat_activity GROUP BY waiting";
constexpr named_member waiting[] = {{"t", &data_postgre::lock_waiting_connections},
                                    {"f", &data_postgre::connections}};

constexpr named_member long_running[] = {{"CNT_DML", &data_postgre::cnt_dml},
                                         {"CNT_ALL", &data_postgre::cnt_all},
                                         {"CNT_SEL", &data_postgre::cnt_sel}};

constexpr std::uint64_t data_postgre::*rated[] = {&data_postgre::commited,
                                                  &data_postgre::rolled_back,
                                                  &data_postgre::active_connections,
                                                  &data_postgre::idle_connections,
                                                  &data_postgre::idle_in_transact_conn,
                                                  &data_postgre::lock_waiting_connections,
                                                  &data_postgre::cnt_all,
                                                  &data_postgre::cnt_dml,
                                                  &data_postgre::cnt_sel};

constexpr tarn::bson_row<data_postgre> rows[] = {
    {"ok", tarn::as_int64<&data_postgre::ok>},
    {"cmtd", tarn::as_int64<&data_postgre::commited>},
    {"rolbck", tarn::as_int64<&data_postgre::rolled_back>},
    {"chk_t", tarn::as_int64<&data_postgre::checkpoint_timeout>},
    {"chk_seg", tarn::as_int64<&data_postgre::checkpoint_segments>},
    {"all_con", tarn::as_int64<&data_postgre::connections>},
    {"actv_con", tarn::as_int64<&data_postgre::active_connections>},
    {"idle_con", tarn::as_int64<&data_postgre::idle_connections>},
    {"i_in_tr_con", tarn::as_int64<&data_postgre::idle_in_transact_conn>},
    {"lock_con", tarn::as_int64<&data_postgre::lock_waiting_connections>},
    {"buf_chk", tarn::as_int64<&data_postgre::buffers_checkpoint>},
    {"buf_clean", tarn::as_int64<&data_postgre::buffers_clean>},
    {"maxw_clean", tarn::as_int64<&data_postgre::maxwritten_clean>},
    {"buf_b", tarn::as_int64<&data_postgre::buffers_backend>},
    {"buf_b_fsync", tarn::as_int64<&data_postgre::buffers_backend_fsync>},
    {"buf_alloc", tarn::as_int64<&data_postgre::buffers_alloc>},
    {"slo_all", tarn::as_int64<&data_postgre::cnt_all>},
    {"slo_dml", tarn::as_int64<&data_postgre::cnt_dml>},
    {"slo_sel", tarn::as_int64<&data_postgre::cnt_sel>}};

bool is_loaded() {
    return config.postgre_handle != nullptr;
}

/// "ID USER:PASSWORD@HOST:PORT", or a word for the socket in place of the port.
void postgre_parse_conf(tarn_mycustom_counter& counter, data_postgre& data) {
    tarn::service_conf conf(counter, ":@");
    conf.word(counter.id);
    conf.login(data.user, data.pass);
    conf.word(data.host);
    conf.word(data.port);
    if (!tarn::is_valid_int(data.port)) std::swap(data.port, data.socket);
}

/// Logs in and says why that failed. The socket word takes the place of the port.
tarn::postgre_connection log_in(const data_postgre& data) {
    const char* const port = data.socket[0] != '\0' ? data.socket : data.port;
    if (*port == '\0') {
        std::fprintf(stderr, "\nFailed to connect to database!");
        return nullptr;
    }
    tarn::postgre_connection connection = tarn::postgre_log_in(data.host, port, data.user, data.pass);
    if (tarn::postgre_is_connected(connection)) return connection;
    const char* const error = tarn::postgre_error_text(connection);
    if (data.socket[0] != '\0') {
        std::printf("\nFailed to connect to postgres database: %s %s %s Error: %s \n", data.user, "***",
                    data.socket, error);
    } else {
        std::printf("\nFailed to connect to postgres database: %s %s %s %s Error: %s \n", data.user, "***",
                    data.host, data.port, error);
    }
    return nullptr;
}

void store(std::span<const named_member> table, std::string_view name, std::uint64_t value,
           data_postgre& data) {
    for (const named_member& row : table) {
        if (name == row.name) data.*row.member = value;
    }
}

/// Runs a statement of one row whose columns are named.
bool read_columns(const tarn::postgre_connection& connection, const char* statement,
                  std::span<const named_member> table, data_postgre& data) {
    const tarn::postgre_answer answer(connection, statement);
    if (!answer) return false;
    for (int column = 0; column < answer.columns(); ++column) {
        store(table, answer.name(column), answer.number(0, column), data);
    }
    return true;
}

/// Runs a statement whose rows hold a name and a count, at these columns.
bool read_counts(const tarn::postgre_connection& connection, const char* statement, int name, int count,
                 std::span<const named_member> table, data_postgre& data) {
    const tarn::postgre_answer answer(connection, statement);
    if (!answer) return false;
    for (int row = 0; row < answer.rows(); ++row) {
        store(table, answer.text(row, name), answer.number(row, count), data);
    }
    return true;
}

bool failed(const char* message) {
    std::printf("%s", message);
    return false;
}

bool read_connections(const tarn::postgre_connection& connection, std::uint64_t version, data_postgre& data) {
    if (version > 90199) {
        if (!read_counts(connection, states_statement, 0, 1, states, data)) {
            return failed("\n\nSELECT query3 failed.\n\n");
        }
    } else {
        for (const named_member& state : states)
            data.*state.member = 0;
    }
    const char* const statement = version > 90599 ? wait_event_statement : waiting_statement;
    if (!read_counts(connection, statement, 0, 1, waiting, data)) {
        return failed("\n\nSELECT query4 failed.\n\n");
    }
    data.connections += data.lock_waiting_connections;
    return true;
}

bool read_all(const tarn::postgre_connection& connection, data_postgre& data) {
    if (!read_columns(connection, bgwriter_statement, bgwriter_columns, data)) {
        return failed("\n\nSELECT query1 failed.\n\n");
    }
    if (!read_columns(connection, transactions_statement, transactions_columns, data)) {
        return failed("\n\nSELECT query2 failed.\n\n");
    }
    const tarn::postgre_answer server(connection, "show server_version_num");
    if (!server) return failed("\n\nSHOW SERVER_VERSION_NUM failed.\n\n");
    const std::uint64_t version = server.number(0, 0);
    if (!read_connections(connection, version, data)) return false;

    const std::string_view seconds = tarn::text_of(config.slow_query_sec);
    const std::string slow = version >= 90200 ? get_query_str(seconds) : get_query_str_old(seconds);
    if (!read_counts(connection, slow.c_str(), 1, 0, long_running, data)) {
        return failed("\n\nSELECT query5 failed.\n\n");
    }
    return true;
}

/// The three counts of statements that are older than the threshold, in one answer. `running` picks the
/// running statements, `query` is the column of their text.
std::string slow_query_str(std::string_view slow_query_sec, std::string_view running,
                           std::string_view query) {
    std::string old = " and now() - query_start > '";
    old.append(slow_query_sec).append(" sec'::interval");
    std::string text = "select count(*), 'CNT_ALL' AS name from pg_stat_activity where ";
    text.append(running).append(old);
    text.append(" UNION select count(*), 'CNT_SEL' AS name from pg_stat_activity where ").append(running);
    text.append(" and ").append(query).append(" ilike 'select%'").append(old);
    text.append(" UNION select count(*), 'CNT_DML' AS name  from pg_stat_activity where ").append(running);
    text.append(old).append(" and ").append(query).append(" ~* '^(insert|update|delete)'");
    return text;
}

}  // namespace

std::string get_query_str(std::string_view slow_query_sec) {
    return slow_query_str(slow_query_sec, "state = 'active'", "query");
}

std::string get_query_str_old(std::string_view slow_query_sec) {
    return slow_query_str(slow_query_sec, "current_query != '<IDLE>'", "current_query");
}

int postgre_init(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
    tarn::allocate_records<data_postgre>(counter);
    tarn::copy_text(counter.report, "Postgre");
    auto& data = tarn::data_of<data_postgre>(counter);
    postgre_parse_conf(counter, data);
    std::printf("Postgre %s init with %s %s %s %s %s \n", counter.id, data.user, "***", data.host, data.port,
                data.socket);
    return 1;
}

int postgre_reinit(tarn_mycustom_counter& /*counter*/) {
    return 1;
}

/// A failed log-in leaves `ok` as it was, so that unchanged figures go on being reported.
int postgre_update(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
    auto& data = tarn::data_of<data_postgre>(counter);
    const tarn::postgre_connection connection = log_in(data);
    if (!connection) return 0;
    const tarn::socket_deadline deadline(tarn::postgre_socket(connection),
                                         exchange_timeouts * std::clamp(config.counter_tcp_to, 1, 86400));
    data.ok = 0;
    data.ok = read_all(connection, data) ? 1 : 0;
    return data.ok;
}

int postgre_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    return is_loaded() ? tarn::delta_per_minute(counter, interval, iteration, rated) : 0;
}

int postgre_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return is_loaded() ? tarn::append_labelled(counter, document, rows) : 0;
}

int postgre_dump(tarn_mycustom_counter& counter) {
    if (!is_loaded()) return 0;
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

int postgre_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_postgre>(counter);
    return 1;
}
