#pragma once

#include <memory>
#include <string_view>

#include "record/tarn_operations.h"

/// libpq, loaded at run time. Its functions are called through pointers; its objects are opaque.
struct pg_conn;
struct pg_result;

/// Loads the library named by `postgre_lib` into `postgre_handle` and looks up its functions. Returns 1; 0,
/// with a message on standard error, when the library or one of the functions is missing. Sets the library's
/// connect time-out to `counter_tcp_to` unless PGCONNECT_TIMEOUT is in the environment.
int init_postgre_lib();

namespace tarn {

/// Loads the library if a configured counter needs it, and prints the outcome. A library that lacks a
/// function is closed again.
void load_postgre();

/// Closes the library if it is loaded.
void close_postgre();

bool is_postgre_loaded();

/// An operation that does nothing and returns 0 while the library is not loaded.
template <auto Operation>
constexpr auto with_postgre = when_loaded<is_postgre_loaded, Operation>;

struct postgre_finisher {
    void operator()(pg_conn* connection) const;
};

/// Owns a connection of the library.
using postgre_connection = std::unique_ptr<pg_conn, postgre_finisher>;

/// Logs in to the database "postgres"; postgre_is_connected() shows whether that succeeded.
postgre_connection postgre_log_in(const char* host, const char* port, const char* user, const char* password);

/// The descriptor of the connection's socket; -1 when the library lacks the function.
int postgre_socket(const postgre_connection& connection);

bool postgre_is_connected(const postgre_connection& connection);

/// The library's text for the last error.
const char* postgre_error_text(const postgre_connection& connection);

/// Runs one statement and holds its result.
class postgre_result final {
  public:
    postgre_result(const postgre_connection& connection, const char* statement);
    ~postgre_result();
    postgre_result(const postgre_result&) = delete;
    postgre_result& operator=(const postgre_result&) = delete;

    /// True when the statement returned rows.
    explicit operator bool() const;

    [[nodiscard]] int rows() const;
    [[nodiscard]] int columns() const;
    [[nodiscard]] std::string_view name(int column) const;

    /// The text of a field; empty when there is no such field.
    [[nodiscard]] std::string_view text(int row, int column) const;

  private:
    pg_result* result_;
};

}  // namespace tarn
