// Connections are served one at a time, in the order in which the benchmarks open them.
#include "bench_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace {

int listen_on_path(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::unlink(path.c_str());
    ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::listen(listener, SOMAXCONN);
    return listener;
}

int listen_on_loopback(int& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::listen(listener, SOMAXCONN);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    port = ::ntohs(address.sin_port);
    return listener;
}

}  // namespace

peer::peer(std::vector<std::string> answers, const std::string& path)
    : answers_(std::move(answers)),
      request_sizes_(answers_.size()),
      path_(path),
      listener_(path.empty() ? listen_on_loopback(port_) : listen_on_path(path)),
      thread_([this] { serve(); }) {}

peer::~peer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
    if (!path_.empty()) ::unlink(path_.c_str());
}

void peer::serve() {
    for (int connection = 0; (connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        ++connections_;
        answer_requests(connection);
        ::close(connection);
    }
}

void peer::answer_requests(int connection) {
    std::array<char, 65536> buffer{};
    for (std::size_t answer = 0; answer < answers_.size(); ++answer) {
        const ssize_t length = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (length <= 0) return;
        request_sizes_[answer] = static_cast<std::size_t>(length);
        ::send(connection, answers_[answer].data(), answers_[answer].size(), MSG_NOSIGNAL);
    }
    // Ends the stream for a client that reads to the end, and waits until the client closes the connection.
    ::shutdown(connection, SHUT_WR);
    while (::recv(connection, buffer.data(), buffer.size(), 0) > 0) {
    }
}
