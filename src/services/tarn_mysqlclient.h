#pragma once

#include <memory>

#include "record/tarn_operations.h"

/// The MySQL client library, loaded at run time: its functions are reached through pointers, and its objects
/// are never looked into.
struct st_mysql;
struct st_mysql_res;

/// Loads the library named by `mysql_lib` into `mysql_handle` and looks its functions up. Returns 1; 0, with
/// a message on standard error, when the library or one of the functions is missing.
int init_mysql_lib();

/// Ends the library's own work, before it is closed.
void mysql_library_end_stub();

namespace tarn {

/// Loads the library when the configuration has a counter that needs it, and prints the outcome. A library
/// that lacks a function counts as absent.
void load_mysql();

/// Ends and closes the library, if it is loaded.
void close_mysql();

bool is_mysql_loaded();

/// An operation that does nothing and returns 0 while the library is not loaded.
template <auto Operation>
constexpr auto with_mysql = when_loaded<is_mysql_loaded, Operation>;

struct mysql_closer {
    int socket = -1;       ///< descriptor of the connection
    bool is_late = false;  ///< the look-up of the host took too long

    void operator()(st_mysql* connection) const;
};

/// Owns a connection object of the library. The library's own time-outs bound each of its reads; beside them
/// a connect and a statement may each take twice their time-out altogether, however the server drips its
/// bytes.
using mysql_connection = std::unique_ptr<st_mysql, mysql_closer>;

/// Where a MySQL server listens, and the login.
struct mysql_address {
    const char* host;
    const char* user;
    const char* password;
    unsigned port;
    const char* socket;  ///< Unix socket path; null for none
};

/// A connection object with the configured time-outs, which connects only when it is told to. The server may
/// not ask it for local files, nor choose a log-in method that gives the password away.
mysql_connection mysql_prepare();

/// Connects; false when that fails, for the reason that mysql_error_text() returns then.
bool mysql_connect(mysql_connection& connection, const mysql_address& address);

/// The reason of the last failure.
const char* mysql_error_text(const mysql_connection& connection);

/// The rows of one statement. A statement that fails, or whose rows have fewer columns than wanted, has none.
class mysql_rows final {
  public:
    mysql_rows(const mysql_connection& connection, const char* statement, unsigned columns);
    ~mysql_rows();
    mysql_rows(const mysql_rows&) = delete;
    mysql_rows& operator=(const mysql_rows&) = delete;

    /// The next row, an array of texts in which a null stands for SQL's NULL; null after the last.
    char** next();

  private:
    st_mysql_res* result_ = nullptr;
};

}  // namespace tarn
