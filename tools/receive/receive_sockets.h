#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "support/tarn_files.h"

/// "192.0.2.7:40952".
std::string name_of(const sockaddr_in& peer);

/// The sockets that reports come in by, both on one port.
struct receive_sockets {
    tarn::unique_fd datagrams;
    tarn::unique_fd listener;
    sockaddr_in address{};
};

/// Opens both sockets; port 0 takes one that is free for both. On failure the listener is not open and errno
/// is set.
receive_sockets open_sockets(in_addr address, int port);

/// Enlarges the buffer in which datagrams wait while the receiver is busy; returns its size in bytes. More
/// than net.core.rmem_max takes the right to administer the network.
int enlarge_buffer(int socket);

/// The number of datagrams that came while the buffer was full.
unsigned long dropped_datagrams(int socket);

/// Reads many datagrams with one system call.
class datagram_reader final {
  public:
    using sink = std::function<void(const sockaddr_in& from, std::span<const std::uint8_t> packet)>;

    datagram_reader();

    /// Calls `take` for each datagram that waits, up to batch_size; returns their number.
    int read(int socket, const sink& take);

  private:
    static constexpr std::size_t batch_size = 32;
    static constexpr std::size_t largest = 65536;

    std::unique_ptr<std::uint8_t[]> buffers_ =
        std::make_unique_for_overwrite<std::uint8_t[]>(batch_size * largest);
    std::array<sockaddr_in, batch_size> peers_{};
    std::array<iovec, batch_size> places_{};
    std::array<mmsghdr, batch_size> messages_{};
};
