#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/tarn_files.h"

/// The one place where stream sockets are opened. Every wait on them is bounded, no write to them raises
/// SIGPIPE, and none of them outlives an exec.
namespace tarn {

/// The step at which opening a stream failed, so that each caller can say so in its own words.
enum class stream_step { none, socket, timeouts, connect };

/// An open stream, or the step that failed and its system error number.
struct stream {
    unique_fd socket;
    stream_step failed = stream_step::none;
    int error = 0;
};

/// The IPv4 address of a dotted text (all forms that inet_aton reads); nothing when it does not parse.
std::optional<in_addr> parse_ipv4(std::string_view text);

/// The dotted text of an IPv4 address.
std::string ipv4_text(in_addr address);

/// Connects to an IPv4 address with the same receive and send time-out, in seconds; less than 1 counts as 1.
/// The connect itself is bounded by the send time-out.
stream connect_tcp(in_addr address, int port, int timeout_seconds);

/// Connects to a Unix-domain socket, as connect_tcp() does. A path of 108 bytes and more is cut there.
stream connect_unix(std::string_view path, int timeout_seconds);

/// Sends everything with one call; returns the bytes taken, or -1 with errno set.
ssize_t send_once(const unique_fd& socket, std::span<const std::byte> bytes);
ssize_t send_once(const unique_fd& socket, std::string_view text);

/// Receives once, as much as has come and fits; 0 when the peer has closed, -1 with errno set for a failure,
/// an expired time-out among them.
ssize_t receive_once(const unique_fd& socket, std::span<char> buffer);

}  // namespace tarn
