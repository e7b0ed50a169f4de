// tarn-receive: receives reports over UDP and TCP, checks them and prints them. It is meant for trials and
// tests and stores nothing.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "receive_options.h"
#include "receive_packet.h"
#include "receive_print.h"
#include "support/tarn_files.h"
#include "support/tarn_streams.h"

namespace {

using time_point = std::chrono::steady_clock::time_point;

constexpr std::size_t max_connections = 32;
/// A sender must finish its report within this time of connecting.
constexpr auto stall_limit = std::chrono::seconds(10);
/// Least time between two messages about bad packets.
constexpr auto rejection_gap = std::chrono::seconds(1);
constexpr int poll_ms = 500;
/// How many ports chosen by the system are tried until one is free for both TCP and UDP.
constexpr int port_attempts = 10;

volatile std::sig_atomic_t stopped = 0;

/// One TCP connection. It carries one report, which ends when the sender closes the connection.
struct sender {
    tarn::unique_fd socket;
    std::string name;
    time_point deadline;
    time_point last_active;  ///< time of its connect or of the last bytes from it
    std::vector<std::uint8_t> packet;
};

class receiver final {
  public:
    explicit receiver(receive_options options) : options_(std::move(options)) {}

    /// Opens the sockets; false, with a message, on failure.
    bool listen();

    /// Receives packets until a signal, the wanted count or a failed write; false after a failed write.
    bool run();

  private:
    [[nodiscard]] bool done() const {
        return stopped != 0 || write_failed_ || (options_.count != 0 && good_ >= options_.count);
    }
    bool open_sockets(sockaddr_in& address);
    void take_datagram();
    void accept_sender();
    void serve_senders(std::span<const pollfd> polled);
    bool serve(sender& from);
    void drop_most_idle();
    void drop_stalled();
    void take_packet(const std::string& from, std::span<const std::uint8_t> packet);
    void print_report(const std::string& from, std::size_t size, const received_packet& report);
    void reject(const std::string& from, const std::string& fault);

    receive_options options_;
    tarn::unique_fd datagrams_;
    tarn::unique_fd listener_;
    std::vector<sender> senders_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(65536);
    unsigned long good_ = 0;
    unsigned long bad_ = 0;
    unsigned long not_shown_ = 0;  ///< bad packets since the last message about one
    time_point next_rejection_;
    bool write_failed_ = false;
};

std::string name_of(const sockaddr_in& peer) {
    return tarn::ipv4_text(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
}

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

/// Opens both sockets on one port.
bool receiver::open_sockets(sockaddr_in& address) {
    listener_ = bind_socket(SOCK_STREAM, address);
    if (!listener_) return false;
    datagrams_ = bind_socket(SOCK_DGRAM, address);
    return datagrams_ && ::listen(listener_.get(), static_cast<int>(max_connections)) == 0;
}

bool receiver::listen() {
    const auto ip = tarn::parse_ipv4(options_.address);
    if (!ip) {
        std::fprintf(stderr, "tarn-receive: %s is not an IPv4 address\n", options_.address.c_str());
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = *ip;
    int attempts = options_.port == 0 ? port_attempts : 1;
    bool is_open = false;
    do {
        address.sin_port = htons(static_cast<std::uint16_t>(options_.port));
        is_open = open_sockets(address);
    } while (!is_open && errno == EADDRINUSE && --attempts > 0);
    if (!is_open) {
        std::fprintf(stderr, "tarn-receive: cannot listen on %s: %s\n", name_of(address).c_str(),
                     std::strerror(errno));
        return false;
    }
    std::fprintf(stderr, "tarn-receive: listening on %s, UDP and TCP\n", name_of(address).c_str());
    return true;
}

/// Counts a bad packet and prints a message, at most one a second, so that packets cannot flood the terminal.
void receiver::reject(const std::string& from, const std::string& fault) {
    ++bad_;
    const time_point now = std::chrono::steady_clock::now();
    if (now < next_rejection_) {
        ++not_shown_;
        return;
    }
    const std::string not_shown =
        not_shown_ > 0 ? " (" + std::to_string(not_shown_) + " more not shown)" : "";
    std::fprintf(stderr, "tarn-receive: bad packet %lu from %s: %s%s\n", bad_, from.c_str(), fault.c_str(),
                 not_shown.c_str());
    not_shown_ = 0;
    next_rejection_ = now + rejection_gap;
}

void receiver::print_report(const std::string& from, std::size_t size, const received_packet& report) {
    const char* const signature = !report.is_signed         ? "not signed"
                                  : options_.secret.empty() ? "signature not checked"
                                                            : "signature good";
    switch (options_.format) {
        case output::json:
            std::printf("%s\n", report_as_json(report.document).c_str());
            break;
        case output::raw:
            std::fwrite(report.document.data(), 1, report.document.size(), stdout);
            break;
        case output::pretty:
            std::printf("--- report %lu from %s, %zu bytes, %s\n%s", good_, from.c_str(), size, signature,
                        report_as_text(report.document).c_str());
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
    std::fprintf(stderr, "tarn-receive: cannot write: %s\n", std::strerror(errno));
    write_failed_ = true;
}

void receiver::take_packet(const std::string& from, std::span<const std::uint8_t> packet) {
    const received_packet report = check_packet(packet, options_.secret);
    if (!report.fault.empty()) {
        reject(from, report.fault);
        return;
    }
    ++good_;
    print_report(from, packet.size(), report);
}

void receiver::take_datagram() {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const ssize_t got = ::recvfrom(datagrams_.get(), buffer_.data(), buffer_.size(), 0,
                                   reinterpret_cast<sockaddr*>(&peer), &length);
    if (got >= 0) take_packet(name_of(peer), std::span(buffer_).first(static_cast<std::size_t>(got)));
}

void receiver::accept_sender() {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    tarn::unique_fd socket(::accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &length,
                                     SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return;
    if (senders_.size() >= max_connections) drop_most_idle();
    const time_point now = std::chrono::steady_clock::now();
    senders_.push_back({std::move(socket), name_of(peer), now + stall_limit, now, {}});
}

/// Idle connections must not keep others out.
void receiver::drop_most_idle() {
    const auto idlest = std::ranges::min_element(senders_, {}, &sender::last_active);
    reject(idlest->name, "idle, made way for another");
    senders_.erase(idlest);
}

/// Receives once from a sender; false when its connection is finished.
bool receiver::serve(sender& from) {
    const ssize_t got = ::recv(from.socket.get(), buffer_.data(), buffer_.size(), 0);
    if (got < 0) {
        if (errno == EAGAIN || errno == EINTR) return true;
        reject(from.name, std::strerror(errno));
        return false;
    }
    if (got == 0) {
        take_packet(from.name, from.packet);
        return false;
    }
    from.last_active = std::chrono::steady_clock::now();
    from.packet.insert(from.packet.end(), buffer_.begin(), buffer_.begin() + got);
    if (from.packet.size() <= max_packet_size) return true;
    reject(from.name, "larger than any report");
    return false;
}

/// A report is small: a sender that has not finished in time never will.
void receiver::drop_stalled() {
    const time_point now = std::chrono::steady_clock::now();
    std::erase_if(senders_, [&](const sender& from) {
        if (now < from.deadline) return false;
        reject(from.name, "stalled");
        return true;
    });
}

/// Receives from the senders that are ready. `polled` has one entry per sender, in the same order.
void receiver::serve_senders(std::span<const pollfd> polled) {
    for (std::size_t at = 0; at < polled.size() && !done(); ++at) {
        if (polled[at].revents != 0 && !serve(senders_[at])) senders_[at].socket.reset();
    }
    std::erase_if(senders_, [](const sender& from) { return !from.socket; });
}

bool receiver::run() {
    std::vector<pollfd> polled;
    while (!done()) {
        polled.assign({{datagrams_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}});
        for (const sender& from : senders_)
            polled.push_back({from.socket.get(), POLLIN, 0});
        if (::poll(polled.data(), polled.size(), poll_ms) > 0) {
            serve_senders(std::span(polled).subspan(2));
            if (polled[0].revents != 0 && !done()) take_datagram();
            if (polled[1].revents != 0 && !done()) accept_sender();
        }
        drop_stalled();
    }
    std::fprintf(stderr, "tarn-receive: %lu good, %lu bad\n", good_, bad_);
    return !write_failed_;
}

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = [](int) { stopped = 1; };
    for (const int signum : {SIGTERM, SIGINT})
        ::sigaction(signum, &action, nullptr);
    // When the reader of the reports goes away, a write fails.
    std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    receive_options options = parse_options(argc, argv);
    catch_signals();
    receiver server(std::move(options));
    return server.listen() && server.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
