// Reads configuration texts by the rules of scanf, and bounds every wait for a service by its time-out and by
// the budget of the cycle.
#include "services/tarn_service.h"

#include <cerrno>
#include <cstdio>

#include "docker/tarn_docker_core.h"
#include "record/tarn_budget.h"
#include "record/tarn_config.h"
#include "record/tarn_reason.h"
#include "support/tarn_resolver.h"

namespace tarn {
namespace {

/// Bytes of an unexpected reply that are shown.
constexpr std::size_t max_shown = 80;

wait_limit service_limit() {
    return budget.limit(timeout_of(config.counter_tcp_to));
}

/// The status code of a page, the second word of "HTTP/1.1 404 Not Found" or of FastCGI's "Status: 404".
std::string_view status_of(std::string_view page) {
    const std::string_view word = scanner(page.substr(std::min(page.find(' '), page.size()))).word();
    return is_valid_int(word) ? word : "unknown";
}

/// Reports a wait that timed out to the budget, and the reason of any failure. Keeps errno.
void note_failure(int error, std::string_view address) {
    budget.note_failure(error);
    if (is_timeout(error)) {
        note_timeout(config.counter_tcp_to);
    } else {
        note_system_error(error, address);
    }
    errno = error;
}

/// Returns its argument after reporting its failure, if it failed.
stream watched(stream connection, std::string_view host, int port) {
    if (connection) return connection;
    note_failure(connection.error, std::string(host) + (port > 0 ? ":" + std::to_string(port) : ""));
    return connection;
}

ssize_t watched(ssize_t result) {
    if (result < 0) note_failure(errno, {});
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

service_conf::~service_conf() {
    const std::string_view rest = remove_newline_ch(words_.rest().substr(leading_spaces(words_.rest())));
    if (is_incomplete_) note_reason("%s", text_is_missing.data());
    if (!rest.empty()) note_reason("\"%.*s\" is left over", static_cast<int>(rest.size()), rest.data());
}

int service_conf::number() {
    int value = 0;
    // As with scanf, nothing is read after a field that does not match.
    if (!words_.number(value)) {
        is_incomplete_ = true;
        words_ = scanner({});
    }
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
    note_reason("container %.*s has no address", static_cast<int>(container.size()), container.data());
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
    note_reason("the look-up of %s timed out", host.c_str());
    return std::nullopt;
}

stream connect_service(std::string_view host, int port) {
    const auto address = parse_ipv4(host);
    if (!address) note_reason("%.*s is not an IPv4 address", static_cast<int>(host.size()), host.data());
    return watched(connect_tcp(address.value_or(in_addr{INADDR_NONE}), port, service_limit()), host, port);
}

stream connect_service_path(std::string_view path) {
    return watched(connect_unix(path, service_limit()), path, 0);
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

void note_library_error(std::string_view text) {
    constexpr std::string_view rejections[] = {"Access denied", "authentication failed",
                                               "no pg_hba.conf entry"};
    for (const std::string_view rejection : rejections) {
        if (text.find(rejection) != std::string_view::npos) note_reason("login rejected");
    }
    const std::string_view line = text.substr(0, text.find('\n'));
    note_reason("%.*s", static_cast<int>(line.size()), line.data());
}

void expect_text(std::string_view page, std::string_view text) {
    if (page.find(text) != std::string_view::npos) return;
    const std::string_view status = status_of(page);
    note_reason("the page has no \"%.*s\" (status %.*s)", static_cast<int>(text.size()), text.data(),
                static_cast<int>(status.size()), status.data());
}

void expect_start(std::string_view reply, std::string_view start) {
    if (reply.starts_with(start)) return;
    const std::string_view line = reply.substr(0, std::min(reply.find_first_of("\r\n"), max_shown));
    note_reason(R"(the reply begins with "%.*s", not with "%.*s")", static_cast<int>(line.size()),
                line.data(), static_cast<int>(start.size()), start.data());
}

std::optional<std::string_view> ask_once(const stream& connection, std::string_view request,
                                         std::span<char> buffer) {
    if (send_request(connection, request) < 0) return std::nullopt;
    return read_reply(connection, buffer);
}

}  // namespace tarn
