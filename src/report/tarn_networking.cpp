// The collector's address is looked up before every send, so that a report follows a change of address.
#include "report/tarn_networking.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <udns.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <vector>

#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_trace.h"
#include "report/tarn_collector.h"
#include "report/tarn_sign.h"
#include "support/tarn_deadline.h"
#include "support/tarn_resolver.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

/// Index of the name server to ask next.
int dns_rr_counter = 0;

/// The packet of the current report. Its buffer is reused for every report.
std::vector<std::uint8_t> packet;

using dns_answer = std::unique_ptr<dns_rr_a4, tarn::closer<std::free>>;

const char* collector_ip() {
    return config.serverIp[0] != '\0' ? config.serverIp : config.defaultServerIp;
}

/// A text that does not parse leaves the destination at 0.0.0.0.
in_addr collector_address() {
    return tarn::parse_ipv4(collector_ip()).value_or(in_addr{});
}

std::span<const char[256]> name_servers() {
    const bool use_built_in =
        config.dns_servers_count == 0 && endsWith(tarn::text_of(config.serverName), default_domain) != 0;
    if (use_built_in) return dns_servers_hard;
    return {config.dns_servers, static_cast<std::size_t>(config.dns_servers_count)};
}

/// Resolves a host name with the system's resolver and writes its first IPv4 address as dotted text. Returns
/// 0, or 1 with the text unchanged when the name has no address or does not resolve in time.
int hostname_to_ip(const char* name, char (&text)[17], tarn::deadline end) {
    const tarn::host_lookup found = tarn::look_up_host(name, end);
    if (!found.address) return 1;
    tarn::copy_terminated(text, tarn::ipv4_text(*found.address));
    return 0;
}

void resolve_locally(tarn::deadline end) {
    trace("Updating server ip via local dns... ");
    hostname_to_ip(config.serverName, config.serverIp, end);
    trace("%s ... done \n", config.serverIp);
}

/// A query and, once it is done, its answer, which is null when there is none.
struct address_query {
    dns_answer answer;
    bool is_done = false;
};

void take_answer(dns_ctx* /*context*/, dns_rr_a4* answer, void* data) {
    auto& query = *static_cast<address_query*>(data);
    query.answer.reset(answer);
    query.is_done = true;
}

/// As dns_resolve_a4() for the collector's name, but stops at the deadline and on a stop signal: the library
/// itself waits half a minute for a name server that is down.
dns_answer resolve_collector(tarn::deadline end) {
    address_query query;
    if (dns_open(nullptr) < 0) return nullptr;
    if (dns_submit_a4(nullptr, config.serverName, 0, take_answer, &query) == nullptr) return nullptr;
    pollfd polled{dns_sock(nullptr), POLLIN, 0};
    while (!query.is_done && stop == 0 && !end.has_passed()) {
        const int next_ms = 1000 * std::max(dns_timeouts(nullptr, -1, 0), 0);
        if (query.is_done) break;
        if (::poll(&polled, 1, std::min(next_ms, end.left_ms())) > 0) dns_ioevent(nullptr, 0);
    }
    return std::move(query.answer);
}

/// Asks the name server at `server_ip` for the collector's address.
void ask_server(const char* server_ip, tarn::deadline end) {
    dns_reset(nullptr);
    dns_add_serv(nullptr, server_ip);
    const dns_answer answer = resolve_collector(end);
    if (!answer) {
        std::printf("error 2");
    } else if (answer->dnsa4_nrr < 1) {
        std::printf("error 1");
    } else {
        tarn::copy_terminated(config.serverIp, tarn::ipv4_text(answer->dnsa4_addr[0]));
        trace("%s", config.serverIp);
    }
    dns_close(nullptr);
}

/// Refreshes `serverIp` from `serverName`: asks the next name server of the list, or the system's resolver
/// when the list is empty. On failure the last good address is kept.
void update_ip(tarn::deadline end) {
    if (config.serverName[0] == '\0') return;
    const auto servers = name_servers();
    if (servers.empty()) {
        resolve_locally(end);
        return;
    }

    const char* const server = servers[static_cast<std::size_t>(dns_rr_counter)];
    trace("Updating server ip via %s... ", server);
    char server_ip[17] = "";
    if (hostname_to_ip(server, server_ip, end) == 0) {
        ask_server(server_ip, end);
    } else {
        std::printf("error 3");
    }
    dns_rr_counter = (dns_rr_counter + 1) % static_cast<int>(servers.size());
    trace(" ... done \n");
}

/// Sends the whole packet over one connection; each step takes at most `server_tcp_to` seconds.
void send_data_tcp(std::span<const std::uint8_t> document, tarn::deadline end) {
    const tarn::stream connection =
        tarn::connect_tcp(collector_address(), config.port, {tarn::timeout_of(config.server_tcp_to), end});
    if (connection.failed == tarn::stream_step::connect) {
        std::printf("could not bind socket or connect whatever (%s) %d %d\n", collector_ip(), -1,
                    connection.error);
        return;
    }
    if (connection.failed == tarn::stream_step::timeouts) std::printf("setsockopt failed\n");
    if (!connection) {
        if (connection.failed == tarn::stream_step::socket) tarn::print_error("socket", connection.error);
        return;
    }

    sign(document, tarn::text_of(config.secret), packet);
    trace("Sending via TCP to %s:%d ...", collector_ip(), config.port);
    const ssize_t sent = tarn::send_once(connection, std::as_bytes(std::span(packet)));
    if (sent < 0 || static_cast<std::size_t>(sent) < packet.size()) {
        // A write is short when its time ran out.
        std::printf("sending via tcp FAILED %d\n", sent < 0 ? errno : ETIMEDOUT);
    } else {
        trace("DONE\n");
    }
}

/// Sends the whole packet in one datagram.
void send_data_udp(std::span<const std::uint8_t> document) {
    const tarn::unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!socket) {
        std::printf("sending via udp FAILED %d\n", errno);
        return;
    }
    sockaddr_in collector{};
    collector.sin_family = AF_INET;
    collector.sin_port = htons(static_cast<std::uint16_t>(config.port));
    collector.sin_addr = collector_address();

    sign(document, tarn::text_of(config.secret), packet);
    trace("sending via UDP to %s:%d ...", collector_ip(), config.port);
    if (::sendto(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&collector), sizeof collector) < 0) {
        std::printf("sending via udp FAILED %d\n", errno);
    } else {
        trace("DONE\n");
    }
}

}  // namespace

int endsWith(std::string_view text, std::string_view suffix) {
    return text.ends_with(suffix) ? 1 : 0;
}

void send_data(std::span<const std::uint8_t> document, tarn::deadline end) {
    update_ip(end);
    if (config.proto == IPPROTO_TCP) {
        send_data_tcp(document, end);
    } else {
        send_data_udp(document);
    }
}
