#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/tarn_files.h"

/// The TCP connections. Each carries one report, which ends when the sender closes the connection.
class tcp_senders final {
  public:
    using packet_sink = std::function<void(const std::string& from, std::span<const std::uint8_t> packet)>;
    using fault_sink =
        std::function<void(const std::string& from, const char* reason, const std::string& fault)>;

    /// Connections are added to the epoll descriptor. At most `limit` are open at a time.
    tcp_senders(int epoll, std::size_t limit, packet_sink take, fault_sink reject)
        : epoll_(epoll), limit_(limit), take_(std::move(take)), reject_(std::move(reject)) {}

    /// Accepts one connection. When there are too many, the one that is idle for longest makes way.
    void accept(int listener);

    /// Receives once from the sender with this descriptor, if there is one.
    void serve(int descriptor);

    /// Drops the senders that have not finished in time.
    void drop_stalled();

  private:
    using time_point = std::chrono::steady_clock::time_point;

    struct sender {
        tarn::unique_fd socket;
        std::string name;
        time_point deadline;
        time_point last_active;  ///< time of its connect or of the last bytes from it
        std::vector<std::uint8_t> packet;
    };

    bool receive(sender& from);
    bool keep(sender& from, std::size_t size);
    void drop_most_idle();
    void drop_largest();
    void remove(int descriptor);

    int epoll_;
    std::size_t limit_;
    packet_sink take_;
    fault_sink reject_;
    std::unordered_map<int, sender> senders_;
    std::size_t bytes_ = 0;  ///< received from senders that have not finished
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(65536);
};
