// tarn-receive: takes reports over UDP and TCP, checks them and prints them. A receiver for trying things out
// and for tests, not a collector: nothing is stored.
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

using moment = std::chrono::steady_clock::time_point;

constexpr std::size_t most_connections = 32;
constexpr auto stall_limit = std::chrono::seconds(10);
constexpr auto complaint_pause = std::chrono::seconds(1);
constexpr int wake_up_ms = 500;
/// How many ports of the system's choice are tried for one that is free for UDP as well as for TCP.
constexpr int port_attempts = 10;

volatile std::sig_atomic_t stopped = 0;

/// One TCP sender: a connection carries one report and is then closed by its sender.
struct sender {
    tarn::unique_fd socket;
    std::string name;
    moment deadline;
    moment heard;  ///< when it connected or last sent something
    std::vector<std::uint8_t> packet;
};

class receiver final {
  public:
    explicit receiver(receive_options options) : options_(std::move(options)) {}

    /// Opens the sockets; false, with a message, on failure.
    bool listen();

    /// Takes packets until a signal, the wanted count or a failed write; false for the last.
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
    void drop_most_silent();
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
    unsigned long unshown_ = 0;  ///< bad packets since the last one that was named
    moment next_complaint_;
    bool write_failed_ = false;
};

std::string name_of(const sockaddr_in& peer) {
    return tarn::ipv4_text(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
}

/// Binds a socket of the given type; with port 0 the system's choice is written back.
tarn::unique_fd bind_socket(int type, sockaddr_in& address) {
    tarn::unique_fd socket(::socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Lets a listener start while old connections of its port are in TIME-WAIT. With this option on the
    // datagram socket, any local user could bind the port as well and take the datagrams.
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
    return datagrams_ && ::listen(listener_.get(), static_cast<int>(most_connections)) == 0;
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

/// Counts a bad packet and names it, but only one in a second: a flood of them must not flood the terminal.
void receiver::reject(const std::string& from, const std::string& fault) {
    ++bad_;
    const moment now = std::chrono::steady_clock::now();
    if (now < next_complaint_) {
        ++unshown_;
        return;
    }
    const std::string unshown = unshown_ > 0 ? " (" + std::to_string(unshown_) + " more not shown)" : "";
    std::fprintf(stderr, "tarn-receive: bad packet %lu from %s: %s%s\n", bad_, from.c_str(), fault.c_str(),
                 unshown.c_str());
    unshown_ = 0;
    next_complaint_ = now + complaint_pause;
}

void receiver::print_report(const std::string& from, std::size_t size, const received_packet& report) {
    const char* const trust = !report.is_signed         ? "not signed"
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
            std::printf("--- report %lu from %s, %zu bytes, %s\n%s", good_, from.c_str(), size, trust,
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
    if (senders_.size() >= most_connections) drop_most_silent();
    const moment now = std::chrono::steady_clock::now();
    senders_.push_back({std::move(socket), name_of(peer), now + stall_limit, now, {}});
}

/// Idle connections must not keep others out.
void receiver::drop_most_silent() {
    const auto silent = std::ranges::min_element(senders_, {}, &sender::heard);
    reject(silent->name, "idle, made way for another");
    senders_.erase(silent);
}

/// Takes what a sender has sent; false when its connection is over.
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
    from.heard = std::chrono::steady_clock::now();
    from.packet.insert(from.packet.end(), buffer_.begin(), buffer_.begin() + got);
    if (from.packet.size() <= largest_packet) return true;
    reject(from.name, "larger than any report");
    return false;
}

/// A report is small: a sender that has not finished in time never will.
void receiver::drop_stalled() {
    const moment now = std::chrono::steady_clock::now();
    std::erase_if(senders_, [&](const sender& from) {
        if (now < from.deadline) return false;
        reject(from.name, "stalled");
        return true;
    });
}

/// Takes what the ready senders have sent. `polled` holds the senders' sockets in their order.
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
        if (::poll(polled.data(), polled.size(), wake_up_ms) > 0) {
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
    // A reader of the reports that goes away shows as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    receive_options options = parse_options(argc, argv);
    catch_signals();
    receiver server(std::move(options));
    return server.listen() && server.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
