// tarn-receive: takes reports over UDP and TCP, checks them and prints them. A receiver for trying things out
// and for tests, not a collector: nothing is stored.
#include <arpa/inet.h>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "receive_packet.h"
#include "receive_print.h"
#include "support/tarn_files.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

using moment = std::chrono::steady_clock::time_point;

constexpr std::size_t most_connections = 32;
constexpr auto stall_limit = std::chrono::seconds(10);
constexpr int wake_up_ms = 500;

volatile std::sig_atomic_t stopped = 0;

enum class output { pretty, json, raw };

struct settings {
    std::string address = "127.0.0.1";
    int port = 8641;
    std::string secret;
    unsigned long count = 0;  ///< good reports to wait for; 0 for no end
    output format = output::pretty;
};

/// One TCP sender: a connection carries one report and is then closed by its sender.
struct sender {
    tarn::unique_fd socket;
    std::string name;
    moment deadline;
    std::vector<std::uint8_t> packet;
};

class receiver final {
  public:
    explicit receiver(settings options) : options_(std::move(options)) {}

    bool listen();
    void run();

  private:
    [[nodiscard]] bool done() const { return options_.count != 0 && good_ >= options_.count; }
    void take_datagram();
    void accept_sender();
    bool serve(sender& from);
    void drop_stalled();
    void take_packet(const std::string& from, std::span<const std::uint8_t> packet);
    void reject(const std::string& from, const std::string& fault);

    settings options_;
    tarn::unique_fd datagrams_;
    tarn::unique_fd listener_;
    std::vector<sender> senders_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(65536);
    unsigned long good_ = 0;
    unsigned long bad_ = 0;
};

std::string name_of(const sockaddr_in& peer) {
    return tarn::ipv4_text(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
}

/// Binds a socket of the given type; with port 0 the system's choice is written back.
tarn::unique_fd bind_socket(int type, sockaddr_in& address) {
    tarn::unique_fd socket(::socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    socklen_t length = sizeof address;
    if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return {};
    }
    return socket;
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
    address.sin_port = htons(static_cast<std::uint16_t>(options_.port));
    listener_ = bind_socket(SOCK_STREAM, address);
    if (listener_) datagrams_ = bind_socket(SOCK_DGRAM, address);
    if (!datagrams_ || ::listen(listener_.get(), static_cast<int>(most_connections)) != 0) {
        std::fprintf(stderr, "tarn-receive: cannot listen on %s: %s\n", name_of(address).c_str(),
                     std::strerror(errno));
        return false;
    }
    std::fprintf(stderr, "tarn-receive: listening on %s, UDP and TCP\n", name_of(address).c_str());
    return true;
}

void receiver::reject(const std::string& from, const std::string& fault) {
    ++bad_;
    std::fprintf(stderr, "tarn-receive: bad packet %lu from %s: %s\n", bad_, from.c_str(), fault.c_str());
}

void receiver::take_packet(const std::string& from, std::span<const std::uint8_t> packet) {
    const received_packet report = check_packet(packet, options_.secret);
    if (!report.fault.empty()) {
        reject(from, report.fault);
        return;
    }
    ++good_;
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
            std::printf("--- report %lu from %s, %zu bytes, %s\n%s", good_, from.c_str(), packet.size(),
                        trust, report_as_text(report.document).c_str());
    }
    std::fflush(stdout);
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
    if (senders_.size() >= most_connections) {
        reject(name_of(peer), "too many connections");
        return;
    }
    senders_.push_back(
        {std::move(socket), name_of(peer), std::chrono::steady_clock::now() + stall_limit, {}});
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

void receiver::run() {
    std::vector<pollfd> polled;
    while (stopped == 0 && !done()) {
        polled.assign({{datagrams_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}});
        for (const sender& from : senders_)
            polled.push_back({from.socket.get(), POLLIN, 0});
        if (::poll(polled.data(), polled.size(), wake_up_ms) > 0) {
            const auto ready = [&](std::size_t at) { return polled[at].revents != 0; };
            for (std::size_t at = senders_.size(); at-- > 0 && !done();) {
                if (ready(at + 2) && !serve(senders_[at]))
                    senders_.erase(senders_.begin() + static_cast<long>(at));
            }
            if (ready(0) && !done()) take_datagram();
            if (ready(1) && !done()) accept_sender();
        }
        drop_stalled();
    }
    std::fprintf(stderr, "tarn-receive: %lu good, %lu bad\n", good_, bad_);
}

void usage() {
    std::fprintf(stderr,
                 "usage: tarn-receive [--address 127.0.0.1] [--port 8641] [--secret TEXT | --secret-file F]\n"
                 "                    [--count N] [--format pretty|json|raw]\n");
}

std::optional<std::string> read_secret(const char* path) {
    const auto text = tarn::read_file(path);
    const std::string_view secret = text ? text->substr(0, text->find('\n')) : std::string_view();
    if (secret.empty()) {
        // Without a secret every packet would be good.
        std::fprintf(stderr, "tarn-receive: no secret in %s\n", path);
        return std::nullopt;
    }
    return std::string(secret);
}

std::optional<output> format_of(std::string_view word) {
    if (word == "pretty") return output::pretty;
    if (word == "json") return output::json;
    if (word == "raw") return output::raw;
    return std::nullopt;
}

/// Applies one option; false when its value is no good.
bool apply_option(int option, const char* value, settings& options) {
    switch (option) {
        case 'a':
            options.address = value;
            return true;
        case 'p':
            options.port = tarn::to_number<int>(value);
            return tarn::is_valid_int(value) && options.port >= 0 && options.port <= 65535;
        case 's':
            options.secret = value;
            return true;
        case 'S': {
            const auto secret = read_secret(value);
            options.secret = secret.value_or("");
            return secret.has_value();
        }
        case 'c':
            options.count = tarn::to_number<unsigned long>(value);
            return tarn::is_valid_int(value) && *value != '-';
        case 'f': {
            const auto format = format_of(value);
            options.format = format.value_or(output::pretty);
            return format.has_value();
        }
        default:
            return false;
    }
}

std::optional<settings> parse_options(int argc, char** argv) {
    static constexpr std::array<option, 7> long_options{{{"address", required_argument, nullptr, 'a'},
                                                         {"port", required_argument, nullptr, 'p'},
                                                         {"secret", required_argument, nullptr, 's'},
                                                         {"secret-file", required_argument, nullptr, 'S'},
                                                         {"count", required_argument, nullptr, 'c'},
                                                         {"format", required_argument, nullptr, 'f'},
                                                         {}}};
    settings options;
    int found = 0;
    while ((found = ::getopt_long(argc, argv, "", long_options.data(), nullptr)) != -1) {
        if (!apply_option(found, ::optarg, options)) return std::nullopt;
    }
    if (::optind != argc) return std::nullopt;
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    auto options = parse_options(argc, argv);
    if (!options) {
        usage();
        return EXIT_FAILURE;
    }
    struct sigaction action {};
    action.sa_handler = [](int) { stopped = 1; };
    for (const int signum : {SIGTERM, SIGINT})
        ::sigaction(signum, &action, nullptr);

    receiver server(std::move(*options));
    if (!server.listen()) return EXIT_FAILURE;
    server.run();
    return EXIT_SUCCESS;
}
