#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "record/tarn_operations.h"

/// libpq, loaded at run time: its functions are reached through pointers, and its objects are never looked
/// into.
struct pg_conn;
struct pg_result;

/// Loads the library named by `postgre_lib` into `postgre_handle` and looks its functions up. Returns 1; 0,
/// with a message on standard error, when the library or one of the functions is missing. A log-in is bounded
/// by the time-out of the counters' own connections unless the environment says otherwise.
int init_postgre_lib();

namespace tarn {

/// Loads the library when the configuration has a counter that needs it, and prints the outcome. A library
/// that lacks a function counts as absent.
void load_postgre();

/// Closes the library, if it is loaded.
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

/// Logs in to the database "postgres"; see postgre_is_connected().
postgre_connection postgre_log_in(const char* host, const char* port, const char* user, const char* password);

/// The descriptor of the connection's socket; -1 when the library cannot be asked.
int postgre_socket(const postgre_connection& connection);

bool postgre_is_connected(const postgre_connection& connection);

/// What the library says of the last failure.
const char* postgre_error_text(const postgre_connection& connection);

/// The answer to one statement.
class postgre_answer final {
  public:
    postgre_answer(const postgre_connection& connection, const char* statement);
    ~postgre_answer();
    postgre_answer(const postgre_answer&) = delete;
    postgre_answer& operator=(const postgre_answer&) = delete;

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
