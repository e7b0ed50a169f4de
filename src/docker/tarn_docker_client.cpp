// The client of the engine's API: one request per connection over the engine's Unix socket. The answer is
// HTTP headers and a JSON body; the engine closes the connection behind it.
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "docker/tarn_docker_core.h"
#include "support/tarn_streams.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int socket_timeout_seconds = 1;
constexpr auto answer_budget = std::chrono::seconds(1);
constexpr std::size_t most_request = 1023;
constexpr std::size_t first_answer = 4096;
constexpr std::size_t most_answer = std::size_t{4} << 20U;

/// A name as the engine allows it.
bool is_container_name(std::string_view name) {
    const auto is_alphanumeric = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    return !name.empty() && is_alphanumeric(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return is_alphanumeric(c) || c == '_' || c == '.' || c == '-'; });
}

enum class step { more, complete, failed };

/// Waits for the engine and reads once behind what is there.
step read_more(const tarn::unique_fd& sock, clock_type::time_point deadline, std::string& answer,
               std::size_t& length) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock_type::now()).count();
    pollfd polled{sock.get(), POLLIN, 0};
    const int ready = ::poll(&polled, 1, static_cast<int>(std::max<long>(left, 0)));
    if (ready < 0) {
        std::perror("select() failed");
        return step::failed;
    }
    if (ready == 0) {
        std::printf("select() returned 0\n");
        return step::complete;
    }
    if (length == answer.size()) {
        if (length >= most_answer) return step::failed;
        answer.resize(std::max(first_answer, length * 2));
    }
    const ssize_t got = tarn::receive_once(sock, std::span(answer).subspan(length));
    if (got < 0) {
        std::perror("read() failed");
        return step::failed;
    }
    length += static_cast<std::size_t>(got);
    return got == 0 ? step::complete : step::more;
}

}  // namespace

tarn::unique_fd tarn_docker_connect(std::string_view sock_path) {
    tarn::stream connection = tarn::connect_unix(sock_path, socket_timeout_seconds);
    if (!connection.socket) {
        errno = connection.error;
        std::perror(connection.failed == tarn::stream_step::connect ? "connect" : "socket");
    }
    return std::move(connection.socket);
}

std::optional<std::string> tarn_docker_request(std::string_view before, std::string_view name,
                                               std::string_view after) {
    if (!is_container_name(name)) return std::nullopt;
    std::string request = "GET ";
    request.append(before).append(name).append(after).append(" HTTP/1.0\n\n");
    if (request.size() > most_request) return std::nullopt;
    return request;
}

std::optional<std::string> tarn_docker_cmd(const tarn::unique_fd& sock, std::string_view request) {
    if (tarn::send_once(sock, request) < 0) {
        std::perror("send");
        return std::nullopt;
    }
    const auto deadline = clock_type::now() + answer_budget;
    std::string answer;
    std::size_t length = 0;
    step last = step::more;
    while (last == step::more)
        last = read_more(sock, deadline, answer, length);
    if (last == step::failed) return std::nullopt;
    answer.resize(length);
    return answer;
}
