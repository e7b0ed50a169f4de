// Reads configuration texts by the rules of scanf, and bounds every wait for a service by its time-out and by
// the budget of the cycle.
#include "services/tarn_service.h"

#include <cerrno>
#include <cstdio>

#include "docker/tarn_docker_core.h"
#include "record/tarn_budget.h"
#include "record/tarn_config.h"
#include "support/tarn_resolver.h"

namespace tarn {
namespace {

wait_limit service_limit() {
    return budget.limit(timeout_of(config.counter_tcp_to));
}

/// Returns its argument, and reports a wait that timed out to the budget.
stream watched(stream connection) {
    if (!connection) budget.note_failure(connection.error);
    return connection;
}

ssize_t watched(ssize_t result) {
    if (result < 0) budget.note_failure(errno);
    return result;
}

}  // namespace

service_conf::service_conf(const tarn_mycustom_counter& counter, std::string_view separators)
    : text_(text_of(counter.cfg_string)) {
    bool after_colon = false;
    for (char& c : text_) {
        if (separators.find(c) == std::string_view::npos) {
            after_colon = false;
            continue;
        }
        has_login_ = has_login_ || c == '@';
        empty_password_ = empty_password_ || (after_colon && c != ':');
        after_colon = after_colon || c == ':';
        c = ' ';
    }
    words_ = scanner(text_);
}

int service_conf::number() {
    int value = 0;
    // As with scanf, nothing is read after a field that does not match.
    if (!words_.number(value)) words_ = scanner({});
    return value;
}

int read_container(std::string_view host, char (&name)[128]) {
    copy_terminated(name, host.starts_with('[') ? host.substr(1, host.find(']') - 1) : std::string_view());
    return name[0] != '\0' ? 1 : 0;
}

std::optional<std::string> service_host(const char* kind, int in_docker, std::string_view container,
                                        std::string_view host) {
    if (in_docker == 0) return std::string(host);
    if (const auto ip = tarn_docker_resolve(config.docker, container)) return std::string(*ip);
    std::printf("[%s] Cannot resolve IP for container '%.*s'\n", kind, static_cast<int>(container.size()),
                container.data());
    return std::nullopt;
}

std::optional<std::string> resolved_host(const std::string& host) {
    // To the libraries, "localhost" and a path mean a Unix socket.
    if (host.empty() || host == "localhost" || host.starts_with('/')) return host;
    const host_lookup found =
        look_up_host(host.c_str(), budget.end_within(timeout_of(config.counter_tcp_to)));
    if (found.address) return ipv4_text(*found.address);
    if (!found.is_late) return host;
    budget.note_timeout();
    return std::nullopt;
}

stream connect_service(std::string_view host, int port) {
    return watched(connect_tcp(parse_ipv4(host).value_or(in_addr{INADDR_NONE}), port, service_limit()));
}

stream connect_service_path(std::string_view path) {
    return watched(connect_unix(path, service_limit()));
}

ssize_t send_request(const stream& connection, std::string_view request) {
    return watched(send_once(connection, request));
}

ssize_t receive_reply(const stream& connection, std::span<char> buffer) {
    return watched(receive_once(connection, buffer));
}

deadline answer_deadline(int timeouts) {
    return budget.end_within(timeouts * timeout_of(config.counter_tcp_to));
}

std::optional<std::string_view> read_reply(const stream& connection, std::span<char> buffer) {
    const ssize_t got = receive_reply(connection, buffer);
    if (got < 0) return std::nullopt;
    const std::string_view reply(buffer.data(), static_cast<std::size_t>(got));
    return reply.substr(0, reply.find('\0'));
}

std::optional<std::string_view> ask_once(const stream& connection, std::string_view request,
                                         std::span<char> buffer) {
    if (send_request(connection, request) < 0) return std::nullopt;
    return read_reply(connection, buffer);
}

}  // namespace tarn
