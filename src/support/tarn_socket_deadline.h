#pragma once

#include <chrono>

namespace tarn {

/// Bounds the waits of a library that has no limit of its own: when the time is over before this object is
/// gone, the socket is shut down, and whoever waits for it sees the connection end. One at a time.
class socket_deadline final {
  public:
    socket_deadline(int socket, std::chrono::seconds limit);
    ~socket_deadline();
    socket_deadline(const socket_deadline&) = delete;
    socket_deadline& operator=(const socket_deadline&) = delete;
};

}  // namespace tarn
