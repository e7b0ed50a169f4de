#pragma once

#include <memory>

#include "record/tarn_operations.h"

/// The MySQL client library, loaded at run time. Its functions are called through pointers; its objects are
/// opaque.
struct st_mysql;
struct st_mysql_res;

/// Loads the library named by `mysql_lib` into `mysql_handle` and looks up its functions. Returns 1; 0, with
/// a message on standard error, when the library or one of the functions is missing.
int init_mysql_lib();

/// Calls the library's end function; required before the library is closed.
void mysql_library_end_stub();

namespace tarn {

/// Loads the library if a configured counter needs it, and prints the outcome. A library that lacks a
/// function is closed again.
void load_mysql();

/// Shuts down and closes the library if it is loaded.
void close_mysql();

bool is_mysql_loaded();

/// An operation that does nothing and returns 0 while the library is not loaded.
template <auto Operation>
constexpr auto with_mysql = when_loaded<is_mysql_loaded, Operation>;

/// Closes a connection object. Also keeps what the library does not expose.
struct mysql_closer {
    int socket = -1;  ///< descriptor of the connection
    bool lookup_timed_out = false;

    void operator()(st_mysql* connection) const;
};

/// Owns a connection object of the library. The library's own time-outs bound each single read. In addition a
/// whole connect or statement may take at most twice its time-out, however slowly the server sends its bytes.
using mysql_connection = std::unique_ptr<st_mysql, mysql_closer>;

/// Where a MySQL server listens, and the login.
struct mysql_address {
    const char* host;
    const char* user;
    const char* password;
    unsigned port;
    const char* socket;  ///< Unix socket path; null for none
};

/// Creates an unconnected object with the configured time-outs. Requests for local files and authentication
/// methods that reveal the password are refused.
mysql_connection mysql_create();

/// Connects. Returns false on failure; mysql_error_text() then gives the reason.
bool mysql_connect(mysql_connection& connection, const mysql_address& address);

/// The text of the last error.
const char* mysql_error_text(const mysql_connection& connection);

/// Runs one statement and holds its rows. There are none when the statement fails or its rows have fewer than
/// `columns` columns.
class mysql_rows final {
  public:
    mysql_rows(const mysql_connection& connection, const char* statement, unsigned columns);
    ~mysql_rows();
    mysql_rows(const mysql_rows&) = delete;
    mysql_rows& operator=(const mysql_rows&) = delete;

    /// The next row as an array of texts, a null pointer for SQL's NULL; null after the last row.
    char** next();

  private:
    st_mysql_res* result_ = nullptr;
};

}  // namespace tarn
