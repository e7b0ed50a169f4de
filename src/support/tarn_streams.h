#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_files.h"

/// The one place where stream sockets are opened. Every wait on them is bounded, no write to them raises
/// SIGPIPE, and none of them survives an exec. When no time is left, a wait fails at once with the error of
/// an expired time-out.
namespace tarn {

/// The step at which opening a stream failed, so that each caller can report it in its own words.
enum class stream_step { none, socket, timeouts, connect };

/// An open stream, or the step that failed and its system error number.
struct stream {
    unique_fd socket;
    stream_step failed = stream_step::none;
    int error = 0;
    wait_limit limit{};

    explicit operator bool() const { return static_cast<bool>(socket); }
};

/// The IPv4 address of a dotted text (all forms that inet_aton reads); nothing when it does not parse.
std::optional<in_addr> parse_ipv4(std::string_view text);

/// The dotted text of an IPv4 address.
std::string ipv4_text(in_addr address);

/// Connects to an IPv4 address. The connect, each send and each receive obey the limit.
stream connect_tcp(in_addr address, int port, const wait_limit& limit);

/// Connects to a Unix-domain socket, as connect_tcp(). A longer path is truncated to 108 bytes.
stream connect_unix(std::string_view path, const wait_limit& limit);

/// Sends everything with one call; returns the bytes taken, or -1 with errno set.
ssize_t send_once(const stream& connection, std::span<const std::byte> bytes);
ssize_t send_once(const stream& connection, std::string_view text);

/// Receives once; returns the bytes received, 0 when the peer has closed, or -1 with errno set on a failure
/// or an expired time-out.
ssize_t receive_once(const stream& connection, std::span<char> buffer);

/// True for the error number of a connect, send or receive that timed out.
bool is_timeout(int error);

/// Prints a message and the system's text for an error number on standard error.
void print_error(const char* message, int error);

}  // namespace tarn
