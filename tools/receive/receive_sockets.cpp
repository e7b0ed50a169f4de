// The sockets of the receiver, one for UDP and one for TCP.
#include "receive_sockets.h"

#include <linux/sock_diag.h>

#include <cerrno>

#include "support/tarn_streams.h"

namespace {

/// How many ports chosen by the system are tried until one is free for both TCP and UDP.
constexpr int port_attempts = 10;

/// Holds what ten thousand hosts send in some ten seconds.
constexpr int buffer_size = 32 * 1024 * 1024;

/// Binds a socket of the given type. Port 0 is replaced with the port that the system chooses.
tarn::unique_fd bind_socket(int type, sockaddr_in& address) {
    tarn::unique_fd socket(::socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Lets the listener start while old connections of its port are in TIME-WAIT. On the datagram socket this
    // option would let any local user bind the same port and take the datagrams.
    const int reuse = type == SOCK_STREAM ? 1 : 0;
    socklen_t length = sizeof address;
    if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return {};
    }
    return socket;
}

bool open_both(receive_sockets& sockets) {
    sockets.listener = bind_socket(SOCK_STREAM, sockets.address);
    if (!sockets.listener) return false;
    sockets.datagrams = bind_socket(SOCK_DGRAM, sockets.address);
    return sockets.datagrams && ::listen(sockets.listener.get(), SOMAXCONN) == 0;
}

}  // namespace

std::string name_of(const sockaddr_in& peer) {
    return tarn::ipv4_text(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
}

receive_sockets open_sockets(in_addr address, int port) {
    receive_sockets sockets;
    sockets.address.sin_family = AF_INET;
    sockets.address.sin_addr = address;
    for (int attempts = port == 0 ? port_attempts : 1; attempts > 0; --attempts) {
        sockets.address.sin_port = htons(static_cast<std::uint16_t>(port));
        if (open_both(sockets)) return sockets;
        if (errno != EADDRINUSE) break;
    }
    const int error = errno;
    sockets.listener.reset();
    errno = error;
    return sockets;
}

int enlarge_buffer(int socket) {
    int size = buffer_size;
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    socklen_t length = sizeof size;
    ::getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length);
    return size;
}

unsigned long dropped_datagrams(int socket) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> figures{};
    socklen_t length = sizeof figures;
    ::getsockopt(socket, SOL_SOCKET, SO_MEMINFO, figures.data(), &length);
    return figures[SK_MEMINFO_DROPS];
}

datagram_reader::datagram_reader() {
    for (std::size_t at = 0; at < batch_size; ++at)
        places_[at] = {buffers_.get() + at * largest, largest};
}

int datagram_reader::read(int socket, const sink& take) {
    for (std::size_t at = 0; at < batch_size; ++at) {
        messages_[at] = {};
        messages_[at].msg_hdr.msg_name = &peers_[at];
        messages_[at].msg_hdr.msg_namelen = sizeof peers_[at];
        messages_[at].msg_hdr.msg_iov = &places_[at];
        messages_[at].msg_hdr.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(socket, messages_.data(), batch_size, 0, nullptr);
    for (int at = 0; at < count; ++at) {
        const auto place = static_cast<std::size_t>(at);
        take(peers_[place], {buffers_.get() + place * largest, messages_[place].msg_len});
    }
    return count;
}
