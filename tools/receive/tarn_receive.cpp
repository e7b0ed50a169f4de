// tarn-receive: receives reports over UDP and TCP, checks them, prints them and hands them on to the engines
// that keep them. One thread and one loop serve everything.
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "line_protocol.h"
#include "metrics_server.h"
#include "receive_forward.h"
#include "receive_hosts.h"
#include "receive_metrics.h"
#include "receive_options.h"
#include "receive_packet.h"
#include "receive_print.h"
#include "receive_secrets.h"
#include "receive_senders.h"
#include "receive_sockets.h"
#include "support/tarn_streams.h"

namespace {

using namespace std::chrono_literals;

/// Connections at a time: few where a person watches, more where many hosts report.
constexpr std::size_t max_connections = 32;
constexpr std::size_t max_connections_of_fleet = 512;
/// Least time between two messages about bad packets.
constexpr auto rejection_gap = 1s;
/// Longest time until a signal or a time-out is seen, and until a batch of lines is seen to be old enough.
constexpr auto tick = 250ms;
/// At the end the queue is sent for this long.
constexpr auto flush_time = 3500ms;

volatile std::sig_atomic_t stopped = 0;
volatile std::sig_atomic_t reread = 0;

class receiver final {
  public:
    explicit receiver(receive_options options) : options_(std::move(options)) {}

    /// Reads the secrets and opens sockets and exports; false, with a message, on failure.
    bool open();

    /// Receives packets until a signal, the wanted count or a failed write; false after a failed write.
    bool run();

  private:
    [[nodiscard]] bool has_enough() const {
        return write_failed_ || (options_.count != 0 && counts_.good >= options_.count);
    }
    [[nodiscard]] bool done() const { return stopped != 0 || has_enough(); }
    bool listen();
    bool open_exports();
    bool watch(int descriptor) const;
    int wait(std::span<epoll_event> events);
    void serve(int descriptor);
    int read_datagrams();
    void finish();
    void reread_secrets();
    void take_packet(const std::string& from, std::span<const std::uint8_t> packet);
    const char* export_report(std::span<const std::uint8_t> document);
    void print_report(const std::string& from, std::size_t size, const received_packet& report);
    void reject(const std::string& from, const char* reason, const std::string& fault);
    [[nodiscard]] receive_counts counts_now() const;

    receive_options options_;
    receive_secrets secrets_;
    receive_sockets sockets_;
    tarn::unique_fd epoll_{::epoll_create1(EPOLL_CLOEXEC)};
    datagram_reader reader_;
    tcp_senders senders_{
        epoll_.get(), options_.is_exporting() ? max_connections_of_fleet : max_connections,
        [this](const auto& from, auto packet) { take_packet(from, packet); },
        [this](const auto& from, auto reason, const auto& fault) { reject(from, reason, fault); }};
    host_table hosts_{!options_.metrics.empty()};
    forwarder forwarder_;
    metrics_server metrics_;
    receive_counts counts_;
    unsigned long not_shown_ = 0;  ///< bad packets since the last message about one
    std::chrono::steady_clock::time_point next_rejection_;
    bool write_failed_ = false;
};

/// Prints a message when there is one; true when there is none.
bool is_good(const std::string& fault) {
    if (!fault.empty()) std::fprintf(stderr, "tarn-receive: %s\n", fault.c_str());
    return fault.empty();
}

/// Asks for the events of a descriptor that can be read.
bool receiver::watch(int descriptor) const {
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool receiver::listen() {
    const auto ip = tarn::parse_ipv4(options_.address);
    if (!ip) return is_good(options_.address + " is not an IPv4 address");
    sockets_ = open_sockets(*ip, options_.port);
    const std::string name = name_of(sockets_.address);
    if (!sockets_.listener || !watch(sockets_.listener.get()) || !watch(sockets_.datagrams.get()))
        return is_good("cannot listen on " + name + ": " + std::strerror(errno));
    std::fprintf(stderr, "tarn-receive: listening on %s, UDP and TCP\n", name.c_str());
    return true;
}

bool receiver::open_exports() {
    if (!options_.is_exporting()) return true;
    const int size = enlarge_buffer(sockets_.datagrams.get());
    if (size < 1024 * 1024) {
        std::fprintf(stderr, "tarn-receive: the receive buffer has only %d bytes; raise net.core.rmem_max\n",
                     size);
    }
    if (!secrets_.are_checked())
        std::fprintf(stderr, "tarn-receive: without a secret, anyone can report for any host\n");
    if (!options_.forward.url.empty() && !is_good(forwarder_.open(options_.forward))) return false;
    if (options_.metrics.empty()) return true;
    const auto text = [this] { return metrics_text(counts_now(), hosts_, std::chrono::steady_clock::now()); };
    return is_good(metrics_.open(options_.metrics, text)) && watch(metrics_.descriptor());
}

bool receiver::open() {
    secrets_ = receive_secrets(options_.secret);
    if (!options_.secrets.empty() && !is_good(secrets_.read(options_.secrets))) return false;
    return listen() && open_exports();
}

void receiver::reread_secrets() {
    reread = 0;
    if (is_good(secrets_.read(options_.secrets))) std::fprintf(stderr, "tarn-receive: secrets read again\n");
}

receive_counts receiver::counts_now() const {
    receive_counts now = counts_;
    now.socket_drops = dropped_datagrams(sockets_.datagrams.get());
    now.forwarded = forwarder_.reports();
    now.queued_reports = forwarder_.queued_reports();
    now.queued_bytes = forwarder_.queued_bytes();
    return now;
}

/// Counts a bad packet and prints a message, at most one a second, so that packets cannot flood the terminal.
void receiver::reject(const std::string& from, const char* reason, const std::string& fault) {
    counts_.add_bad(reason, from.substr(0, from.find(':')));
    const auto now = std::chrono::steady_clock::now();
    if (now < next_rejection_) {
        ++not_shown_;
        return;
    }
    const std::string not_shown =
        not_shown_ > 0 ? " (" + std::to_string(not_shown_) + " more not shown)" : "";
    std::fprintf(stderr, "tarn-receive: bad packet %lu from %s: %s%s\n", counts_.bad, from.c_str(),
                 fault.c_str(), not_shown.c_str());
    not_shown_ = 0;
    next_rejection_ = now + rejection_gap;
}

void receiver::print_report(const std::string& from, std::size_t size, const received_packet& report) {
    const char* const signature = !report.is_signed         ? "not signed"
                                  : !secrets_.are_checked() ? "not checked"
                                                            : "good";
    const arrival arrived{from, std::chrono::system_clock::now(), signature};
    std::string text;
    switch (options_.format) {
        case output::none:
            return;
        case output::json:
            text = report_as_json(report.document) + "\n";
            break;
        case output::jsonl:
            text = report_as_json_line(arrived, report.document) + "\n";
            break;
        case output::influx:
            text = "# " + from + " " + time_text(arrived.time) + " signature: " + signature + "\n";
            append_lines(head_of(report.document), report.document, "", text);
            break;
        case output::raw:
            text.assign(report.document.begin(), report.document.end());
            break;
        case output::pretty:
            text = "--- report " + std::to_string(counts_.good) + " from " + from + ", " +
                   std::to_string(size) + " bytes, " + (report.is_signed ? "signature " : "") + signature +
                   "\n" + report_as_text(report.document);
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
    std::fprintf(stderr, "tarn-receive: cannot write: %s\n", std::strerror(errno));
    write_failed_ = true;
}

/// Hands a report on; returns why it is not taken, null when it is.
const char* receiver::export_report(std::span<const std::uint8_t> document) {
    if (!options_.is_exporting()) return nullptr;
    const report_head head = head_of(document);
    const char* const fault = hosts_.take(head, document, std::chrono::steady_clock::now());
    if (fault == nullptr && !options_.forward.url.empty()) forwarder_.add(head, document);
    return fault;
}

void receiver::take_packet(const std::string& from, std::span<const std::uint8_t> packet) {
    ++counts_.packets;
    const received_packet report = check_packet(packet, secrets_);
    if (!report.fault.empty()) {
        reject(from, report.reason, report.fault);
    } else if (const char* const fault = export_report(report.document)) {
        reject(from, fault, fault);
    } else {
        ++counts_.good;
        print_report(from, packet.size(), report);
    }
}

/// A signal to stop does not discard the rest of a batch, which has left the socket's buffer.
int receiver::read_datagrams() {
    return reader_.read(sockets_.datagrams.get(), [this](const sockaddr_in& from, auto packet) {
        if (!has_enough()) take_packet(name_of(from), packet);
    });
}

/// Waits for events, and sends what is to be forwarded meanwhile.
int receiver::wait(std::span<epoll_event> events) {
    const bool forwards = !options_.forward.url.empty();
    if (forwards) forwarder_.wait(epoll_.get(), tick);
    const auto limit = forwards ? 0ms : std::chrono::milliseconds(tick);
    return ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                        static_cast<int>(limit.count()));
}

void receiver::serve(int descriptor) {
    if (descriptor == sockets_.datagrams.get()) {
        read_datagrams();
    } else if (descriptor == sockets_.listener.get()) {
        senders_.accept(descriptor);
    } else if (descriptor != metrics_.descriptor()) {
        senders_.serve(descriptor);
    }
}

/// Takes what has come already and sends what is queued.
void receiver::finish() {
    if (!options_.forward.url.empty()) {
        const auto end = std::chrono::steady_clock::now() + 1s;
        while (read_datagrams() > 0 && std::chrono::steady_clock::now() < end) {
        }
        forwarder_.flush(flush_time);
        const auto& reports = forwarder_.reports();
        std::fprintf(stderr, "tarn-receive: %lu forwarded, %lu refused, %lu dropped, %lu not sent\n",
                     reports.sent, reports.refused, reports.dropped, forwarder_.queued_reports());
    }
    std::fprintf(stderr, "tarn-receive: %lu good, %lu bad\n", counts_.good, counts_.bad);
}

bool receiver::run() {
    std::array<epoll_event, 64> events{};
    while (!done()) {
        const int count = wait(events);
        for (int at = 0; at < count && !done(); ++at)
            serve(events[static_cast<std::size_t>(at)].data.fd);
        senders_.drop_stalled();
        if (!options_.metrics.empty()) metrics_.serve();
        if (reread != 0) reread_secrets();
    }
    finish();
    return !write_failed_;
}

/// `rereads`: SIGHUP has the secrets read again; otherwise it ends the process, as it does when a terminal
/// closes.
void catch_signals(bool rereads) {
    struct sigaction action {};
    action.sa_handler = [](int) { stopped = 1; };
    for (const int signum : {SIGTERM, SIGINT})
        ::sigaction(signum, &action, nullptr);
    action.sa_handler = [](int) { reread = 1; };
    if (rereads) ::sigaction(SIGHUP, &action, nullptr);
    // When the reader of the reports goes away, a write fails.
    std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    receive_options options = parse_options(argc, argv);
    catch_signals(!options.secrets.empty());
    receiver server(std::move(options));
    return server.open() && server.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
