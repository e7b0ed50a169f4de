#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

/// A server in its own thread. On every connection it sends the same answers in order, one for each request
/// that it reads.
class peer final {
  public:
    /// Listens on a free port of the loopback interface, or on a Unix socket when a path is given.
    explicit peer(std::vector<std::string> answers, const std::string& path = {});
    ~peer();
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] const std::vector<std::string>& answers() const { return answers_; }

    /// Connections accepted so far.
    [[nodiscard]] int connections() const { return connections_; }

    /// The length of the request that came before this answer on the latest connection, bytes.
    [[nodiscard]] std::size_t request_size(std::size_t answer) const { return request_sizes_[answer]; }

  private:
    void serve();
    void answer_requests(int connection);

    std::vector<std::string> answers_;
    std::vector<std::atomic<std::size_t>> request_sizes_;
    std::string path_;
    int port_ = 0;
    std::atomic<int> connections_ = 0;
    int listener_;
    std::jthread thread_;
};
