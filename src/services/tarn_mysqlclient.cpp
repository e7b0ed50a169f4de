// Loads the MySQL client library and calls it through the eleven functions that are looked up in it.
#include "services/tarn_mysqlclient.h"

#include <cstdio>
#include <string>

#include "record/tarn_config.h"
#include "services/tarn_service.h"
#include "services/tarn_socket_deadline.h"
#include "support/tarn_deadline.h"
#include "support/tarn_dynamic_library.h"
#include "support/tarn_text.h"

namespace {

/// The functions of the library, in the order in which they are looked up.
struct {
    st_mysql* (*init)(st_mysql* connection);
    void (*close)(st_mysql* connection);
    const char* (*error)(st_mysql* connection);
    st_mysql* (*real_connect)(st_mysql* connection, const char* host, const char* user, const char* password,
                              const char* database, unsigned port, const char* socket, unsigned long flags);
    int (*query)(st_mysql* connection, const char* statement);
    st_mysql_res* (*store_result)(st_mysql* connection);
    char** (*fetch_row)(st_mysql_res* result);
    unsigned (*num_fields)(st_mysql_res* result);
    void (*free_result)(st_mysql_res* result);
    int (*options)(st_mysql* connection, int option, const void* value);
    void (*library_end)();
} library;

/// Option numbers of the library's interface.
constexpr int opt_connect_timeout = 0;
constexpr int opt_local_infile = 8;
constexpr int opt_read_timeout = 11;
constexpr int opt_write_timeout = 12;
constexpr int opt_enable_cleartext_plugin = 36;
constexpr int opt_restricted_auth = 7026;  ///< MariaDB's client only; others reject it

/// Authentication methods that a server may request. None sends the password in clear text or opens a dialog
/// on the terminal.
constexpr const char* allowed_methods =
    "mysql_native_password,caching_sha2_password,sha256_password,client_ed25519";

bool look_up_end(void* handle) {
    // Newer libraries have both names, some only the older one.
    using end_function = decltype(library.library_end);
    void* end = tarn::find_function(handle, "mysql_library_end");
    if (end == nullptr) end = tarn::find_function(handle, "mysql_server_end");
    if (end == nullptr) tarn::print_missing("mysql_library/server_end");
    library.library_end = reinterpret_cast<end_function>(end);
    return end != nullptr;
}

bool look_up_all(void* handle) {
    return tarn::look_up(handle, "mysql_init", library.init) &&
           tarn::look_up(handle, "mysql_close", library.close) &&
           tarn::look_up(handle, "mysql_error", library.error) &&
           tarn::look_up(handle, "mysql_real_connect", library.real_connect) &&
           tarn::look_up(handle, "mysql_query", library.query) &&
           tarn::look_up(handle, "mysql_store_result", library.store_result) &&
           tarn::look_up(handle, "mysql_fetch_row", library.fetch_row) &&
           tarn::look_up(handle, "mysql_num_fields", library.num_fields) &&
           tarn::look_up(handle, "mysql_free_result", library.free_result) &&
           tarn::look_up(handle, "mysql_options", library.options) && look_up_end(handle);
}

void set_timeout(st_mysql* connection, int option, int seconds) {
    const auto number = static_cast<unsigned>(tarn::timeout_of(seconds).count());
    library.options(connection, option, &number);
}

}  // namespace

int init_mysql_lib() {
    const std::string path(tarn::text_of(config.mysql_lib));
    std::printf("libmysqlclient: %s\n", path.c_str());
    config.mysql_handle = tarn::open_library(path.c_str());
    return config.mysql_handle != nullptr && look_up_all(config.mysql_handle) ? 1 : 0;
}

void mysql_library_end_stub() {
    library.library_end();
}

namespace tarn {

void load_mysql() {
    if (config.mysql_on == 0) return;
    std::printf("Mysql is on\n");
    const std::string path(text_of(config.mysql_lib));
    if (init_mysql_lib() != 0) {
        std::printf("Mysql found and loaded = %s\n", path.c_str());
        return;
    }
    std::printf("ERROR loading mysql = %s\n", path.c_str());
    if (config.mysql_handle != nullptr) std::printf("Closing libmysql\n");
    close_library(config.mysql_handle);
}

void close_mysql() {
    if (!is_mysql_loaded()) return;
    std::printf("Closing libmysql\n");
    mysql_library_end_stub();
    close_library(config.mysql_handle);
}

bool is_mysql_loaded() {
    return config.mysql_handle != nullptr;
}

void mysql_closer::operator()(st_mysql* connection) const {
    library.close(connection);
}

mysql_connection mysql_create() {
    mysql_connection connection(library.init(nullptr));
    if (!connection) return connection;
    set_timeout(connection.get(), opt_connect_timeout, config.mysql_connect_to);
    set_timeout(connection.get(), opt_write_timeout, config.mysql_write_to);
    set_timeout(connection.get(), opt_read_timeout, config.mysql_read_to);
    constexpr unsigned off = 0;
    library.options(connection.get(), opt_local_infile, &off);
    library.options(connection.get(), opt_enable_cleartext_plugin, &off);
    library.options(connection.get(), opt_restricted_auth, allowed_methods);
    return connection;
}

bool mysql_connect(mysql_connection& connection, const mysql_address& address) {
    if (!connection) return false;
    const auto host = resolved_host(address.host);
    connection.get_deleter().lookup_timed_out = !host;
    if (!host) return false;
    connection.get_deleter().socket = next_descriptor();
    // Twice the time-out: once for the first byte, once for the rest.
    const auto timeout = timeout_of(config.mysql_connect_to);
    const socket_deadline deadline(connection.get_deleter().socket, timeout, 2 * timeout);
    const bool is_connected =
        library.real_connect(connection.get(), host->c_str(), address.user, address.password, nullptr,
                             address.port, address.socket, 0) != nullptr;
    if (!is_connected) note_library_error(mysql_error_text(connection));
    return is_connected;
}

const char* mysql_error_text(const mysql_connection& connection) {
    if (connection.get_deleter().lookup_timed_out) return "the look-up of the host took too long";
    return connection ? library.error(connection.get()) : "out of memory";
}

mysql_rows::mysql_rows(const mysql_connection& connection, const char* statement, unsigned columns) {
    const auto timeout = timeout_of(config.mysql_read_to);
    const socket_deadline deadline(connection.get_deleter().socket, timeout, 2 * timeout);
    if (library.query(connection.get(), statement) != 0) return;
    st_mysql_res* const result = library.store_result(connection.get());
    if (result == nullptr) return;
    // A library that does not count columns may return 0; a stored result has at least one.
    const unsigned fields = library.num_fields(result);
    if (fields != 0 && fields < columns) {
        library.free_result(result);
        return;
    }
    result_ = result;
}

mysql_rows::~mysql_rows() {
    if (result_ != nullptr) library.free_result(result_);
}

char** mysql_rows::next() {
    return result_ != nullptr ? library.fetch_row(result_) : nullptr;
}

}  // namespace tarn
