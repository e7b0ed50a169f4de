// Sockets block. Each wait is bounded by SO_RCVTIMEO or SO_SNDTIMEO, which are lowered as the deadline nears.
#include "support/tarn_streams.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

namespace tarn {
namespace {

using duration = deadline::clock::duration;

/// Sets at least 1 ms: the system takes 0 for "no limit".
bool set_timeout(int socket, int option, duration timeout) {
    using std::chrono::microseconds;
    const auto left = std::max(std::chrono::duration_cast<microseconds>(timeout), microseconds(1000));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timeval limit{seconds.count(), (left - seconds).count()};
    return ::setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit) == 0;
}

/// Makes the next wait obey the limit; false, with errno set, when no time is left for it.
bool limit_next_wait(const stream& connection, int option) {
    const duration next = connection.limit.next();
    if (next == duration::zero()) {
        errno = EAGAIN;
        return false;
    }
    if (next < connection.limit.step) set_timeout(connection.socket.get(), option, next);
    return true;
}

stream connect_stream(int family, const sockaddr* address, socklen_t length, const wait_limit& limit) {
    const duration timeout = limit.next();
    if (timeout == duration::zero()) return {{}, stream_step::connect, EINPROGRESS, limit};
    unique_fd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) return {{}, stream_step::socket, errno, limit};
    if (!set_timeout(socket.get(), SO_RCVTIMEO, timeout) || !set_timeout(socket.get(), SO_SNDTIMEO, timeout))
        return {{}, stream_step::timeouts, errno, limit};
    if (::connect(socket.get(), address, length) != 0) return {{}, stream_step::connect, errno, limit};
    return {std::move(socket), stream_step::none, 0, limit};
}

}  // namespace

std::optional<in_addr> parse_ipv4(std::string_view text) {
    std::array<char, 64> terminated{};
    if (text.size() >= terminated.size()) return std::nullopt;
    std::copy(text.begin(), text.end(), terminated.begin());
    in_addr address{};
    if (::inet_aton(terminated.data(), &address) == 0) return std::nullopt;
    return address;
}

std::string ipv4_text(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

stream connect_tcp(in_addr address, int port, const wait_limit& limit) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    peer.sin_addr = address;
    return connect_stream(AF_INET, reinterpret_cast<const sockaddr*>(&peer), sizeof peer, limit);
}

stream connect_unix(std::string_view path, const wait_limit& limit) {
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    path.copy(peer.sun_path, sizeof peer.sun_path);
    return connect_stream(AF_UNIX, reinterpret_cast<const sockaddr*>(&peer), sizeof peer, limit);
}

ssize_t send_once(const stream& connection, std::span<const std::byte> bytes) {
    if (!limit_next_wait(connection, SO_SNDTIMEO)) return -1;
    return ::send(connection.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

ssize_t send_once(const stream& connection, std::string_view text) {
    return send_once(connection, std::as_bytes(std::span(text)));
}

ssize_t receive_once(const stream& connection, std::span<char> buffer) {
    if (!limit_next_wait(connection, SO_RCVTIMEO)) return -1;
    return ::recv(connection.socket.get(), buffer.data(), buffer.size(), 0);
}

bool is_timeout(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINPROGRESS || error == ETIMEDOUT;
}

void print_error(const char* message, int error) {
    errno = error;
    std::perror(message);
}

}  // namespace tarn
