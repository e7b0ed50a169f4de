// Both database client libraries in one, without a server: every statement has the rows that a real server
// gave for it. What is left of an update is what the agent does with them.
#include <array>
#include <cstring>
#include <string_view>

namespace {

struct row {
    const char* name;
    const char* value;
};

constexpr row status_rows[] = {{"Aborted_connects", "1"},
                               {"Com_delete", "1"},
                               {"Com_insert", "10"},
                               {"Com_select", "13"},
                               {"Com_update", "1"},
                               {"Innodb_buffer_pool_pages_data", "339"},
                               {"Innodb_buffer_pool_pages_free", "7725"},
                               {"Slow_queries", "0"}};
constexpr row innodb_version[] = {{"innodb_version", "8.0.36"}};
constexpr row innodb_rows[] = {{"INNODB_ROWS_DELETED", "1"},
                               {"INNODB_ROWS_INSERTED", "10"},
                               {"INNODB_ROWS_READ", "21"},
                               {"INNODB_ROWS_UPDATED", "1"}};
constexpr row sphinx_rows[] = {{"uptime", "60"},        {"connections", "6"},    {"maxed_out", "0"},
                               {"command_search", "4"}, {"command_update", "0"}, {"queries", "4"},
                               {"dist_queries", "0"},   {"query_wall", "0.001"}, {"query_cpu", "OFF"}};
constexpr row bgwriter[] = {{"checkpoints_timed", "12"},    {"checkpoints_req", "1"},
                            {"buffers_checkpoint", "85"},   {"buffers_clean", "0"},
                            {"maxwritten_clean", "0"},      {"buffers_backend", "64"},
                            {"buffers_backend_fsync", "0"}, {"buffers_alloc", "512"}};
constexpr row transactions[] = {{"commincnt", "879"}, {"rollbackcnt", "0"}};
constexpr row version[] = {{"server_version_num", "150018"}};
constexpr row states[] = {{"active", "1"}, {"idle", "4"}, {"", "4"}};
constexpr row waiting[] = {{"t", "4"}, {"f", "1"}};
constexpr row slow[] = {{"CNT_ALL", "0"}, {"CNT_SEL", "0"}, {"CNT_DML", "0"}};

/// The rows of a statement, and the place of the next one.
struct result {
    const row* rows = nullptr;
    std::size_t count = 0;
    std::size_t at = 0;
    bool by_column = false;  ///< one row, whose columns bear the names
    std::size_t name_column = 0;
};

struct statement {
    std::string_view begins;
    result rows;
};

template <std::size_t Count>
constexpr result of(const row (&rows)[Count], bool by_column = false, std::size_t name_column = 0) {
    return {rows, Count, 0, by_column, name_column};
}

constexpr statement statements[] = {{"SHOW GLOBAL STATUS", of(status_rows)},
                                    {"SHOW VARIABLES", of(innodb_version)},
                                    {"select * from information_schema", of(innodb_rows)},
                                    {"SHOW STATUS;", of(sphinx_rows)},
                                    {"select checkpoints_timed", of(bgwriter, true)},
                                    {"select sum(xact_commit)", of(transactions, true)},
                                    {"show server_version_num", of(version, true)},
                                    {"select state", of(states)},
                                    {"SELECT CASE", of(waiting)},
                                    {"select count(*)", of(slow, false, 1)}};

result found;
std::array<char*, 2> fields;
int object;

const char* begin_statement(const char* text) {
    found = {};
    for (const statement& known : statements) {
        if (std::string_view(text).starts_with(known.begins)) found = known.rows;
    }
    return text;
}

}  // namespace

// The libraries' own names.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
void* mysql_init(void* /*connection*/) {
    return &object;
}
void mysql_close(void* /*connection*/) {}
const char* mysql_error(void* /*connection*/) {
    return "";
}
void* mysql_real_connect(void* connection, ...) {
    return connection;
}
int mysql_query(void* /*connection*/, const char* text) {
    return begin_statement(text) == nullptr ? 1 : 0;
}
void* mysql_store_result(void* /*connection*/) {
    return found.rows != nullptr ? &found : nullptr;
}
unsigned mysql_num_fields(void* /*result*/) {
    return 2;
}
void mysql_free_result(void* /*result*/) {}
int mysql_options(void* /*connection*/, int /*option*/, const void* /*value*/) {
    return 0;
}
void mysql_library_end() {}
char** mysql_fetch_row(void* /*result*/) {
    if (found.at == found.count) return nullptr;
    fields = {const_cast<char*>(found.rows[found.at].name), const_cast<char*>(found.rows[found.at].value)};
    ++found.at;
    return fields.data();
}

void* PQconnectdb(const char* /*conninfo*/) {
    return &object;
}
void* PQsetdbLogin(...) {
    return &object;
}
int PQstatus(const void* /*connection*/) {
    return 0;
}
void* PQexec(void* /*connection*/, const char* text) {
    begin_statement(text);
    return &found;
}
char* PQgetvalue(const void* /*result*/, int at, int column) {
    const auto index = static_cast<std::size_t>(found.by_column ? column : at);
    const bool is_name = !found.by_column && static_cast<std::size_t>(column) == found.name_column;
    return const_cast<char*>(is_name ? found.rows[index].name : found.rows[index].value);
}
int PQresultStatus(const void* /*result*/) {
    return 2;
}
int PQntuples(const void* /*result*/) {
    return found.by_column ? 1 : static_cast<int>(found.count);
}
int PQnfields(const void* /*result*/) {
    return found.by_column ? static_cast<int>(found.count) : 2;
}
char* PQfname(const void* /*result*/, int column) {
    return const_cast<char*>(found.rows[column].name);
}
char* PQerrorMessage(const void* /*connection*/) {
    return const_cast<char*>("");
}
void PQclear(void* /*result*/) {}
void PQfinish(void* /*connection*/) {}
}
// NOLINTEND(readability-identifier-naming)
