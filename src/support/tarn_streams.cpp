#include "support/tarn_streams.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "support/tarn_text.h"

namespace tarn {
namespace {

bool set_timeouts(int socket, std::chrono::seconds timeout) {
    const timeval limit{timeout.count(), 0};
    return ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
           ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

stream connect_stream(int family, const sockaddr* address, socklen_t length, std::chrono::seconds timeout) {
    unique_fd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) return {{}, stream_step::socket, errno};
    if (!set_timeouts(socket.get(), timeout)) return {{}, stream_step::timeouts, errno};
    if (::connect(socket.get(), address, length) != 0) return {{}, stream_step::connect, errno};
    return {std::move(socket), stream_step::none, 0};
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

stream connect_tcp(in_addr address, int port, std::chrono::seconds timeout) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    peer.sin_addr = address;
    return connect_stream(AF_INET, reinterpret_cast<const sockaddr*>(&peer), sizeof peer, timeout);
}

stream connect_unix(std::string_view path, std::chrono::seconds timeout) {
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    path.copy(peer.sun_path, sizeof peer.sun_path);
    return connect_stream(AF_UNIX, reinterpret_cast<const sockaddr*>(&peer), sizeof peer, timeout);
}

ssize_t send_once(const stream& connection, std::span<const std::byte> bytes) {
    return ::send(connection.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

ssize_t send_once(const stream& connection, std::string_view text) {
    return send_once(connection, std::as_bytes(std::span(text)));
}

ssize_t receive_once(const stream& connection, std::span<char> buffer) {
    return ::recv(connection.socket.get(), buffer.data(), buffer.size(), 0);
}

void print_error(const char* message, int error) {
    errno = error;
    std::perror(message);
}

}  // namespace tarn
