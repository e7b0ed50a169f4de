#include "services/tarn_service.h"

#include <cstdio>

#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"

namespace tarn {

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

stream connect_service(std::string_view host, int port) {
    return connect_tcp(parse_ipv4(host).value_or(in_addr{INADDR_NONE}), port,
                       timeout_of(config.counter_tcp_to));
}

stream connect_service_path(std::string_view path) {
    return connect_unix(path, timeout_of(config.counter_tcp_to));
}

deadline answer_deadline(int timeouts) {
    return deadline(timeouts * timeout_of(config.counter_tcp_to));
}

std::optional<std::string_view> read_reply(const stream& connection, std::span<char> buffer) {
    const ssize_t got = receive_once(connection, buffer);
    if (got < 0) return std::nullopt;
    const std::string_view reply(buffer.data(), static_cast<std::size_t>(got));
    return reply.substr(0, reply.find('\0'));
}

std::optional<std::string_view> ask_once(const stream& connection, std::string_view request,
                                         std::span<char> buffer) {
    if (send_once(connection, request) < 0) return std::nullopt;
    return read_reply(connection, buffer);
}

}  // namespace tarn
