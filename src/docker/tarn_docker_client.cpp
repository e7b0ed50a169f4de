// A client of the engine's API: one request per connection to the engine's Unix socket. The answer is HTTP
// headers and a JSON body; the engine then closes the connection.
#include "docker/tarn_docker_client.h"

#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "record/tarn_budget.h"
#include "support/tarn_deadline.h"

namespace {

constexpr auto timeout = std::chrono::seconds(1);
constexpr std::size_t max_request = 1023;
constexpr std::size_t first_size = 4096;
constexpr std::size_t max_answer = std::size_t{4} << 20U;

/// True for a name that the engine allows for a container.
bool is_container_name(std::string_view name) {
    const auto is_alphanumeric = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    return !name.empty() && is_alphanumeric(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return is_alphanumeric(c) || c == '_' || c == '.' || c == '-'; });
}

enum class read_result { more, complete, failed };

/// Waits for the engine and appends one read to the answer.
read_result read_more(const tarn::stream& connection, tarn::deadline end, std::string& answer,
                      std::size_t& length) {
    pollfd polled{connection.socket.get(), POLLIN, 0};
    const int ready = ::poll(&polled, 1, end.left_ms());
    if (ready < 0) {
        std::perror("select() failed");
        return read_result::failed;
    }
    if (ready == 0) {
        if (length == 0) tarn::budget.note_timeout();
        std::printf("select() returned 0\n");
        return read_result::complete;
    }
    if (length == answer.size()) {
        if (length >= max_answer) return read_result::failed;
        answer.resize(std::max(first_size, length * 2));
    }
    const ssize_t got = tarn::receive_once(connection, std::span(answer).subspan(length));
    if (got < 0) {
        tarn::budget.note_failure(errno);
        std::perror("read() failed");
        return read_result::failed;
    }
    length += static_cast<std::size_t>(got);
    return got == 0 ? read_result::complete : read_result::more;
}

}  // namespace

tarn::stream tarn_docker_connect(std::string_view sock_path, tarn::deadline latest) {
    tarn::stream connection = tarn::connect_unix(sock_path, {timeout, latest});
    const bool is_connect = connection.failed == tarn::stream_step::connect;
    if (!connection) tarn::budget.note_failure(connection.error);
    if (!connection) tarn::print_error(is_connect ? "connect" : "socket", connection.error);
    return connection;
}

std::optional<std::string> tarn_docker_request(std::string_view prefix, std::string_view name,
                                               std::string_view suffix) {
    if (!is_container_name(name)) return std::nullopt;
    std::string request = "GET ";
    request.append(prefix).append(name).append(suffix).append(" HTTP/1.0\n\n");
    if (request.size() > max_request) return std::nullopt;
    return request;
}

std::optional<std::string> tarn_docker_cmd(const tarn::stream& connection, std::string_view request,
                                           tarn::deadline latest) {
    if (tarn::send_once(connection, request) < 0) {
        tarn::budget.note_failure(errno);
        std::perror("send");
        return std::nullopt;
    }
    const tarn::deadline end = tarn::deadline(timeout).or_before(latest);
    std::string answer;
    std::size_t length = 0;
    read_result last = read_result::more;
    while (last == read_result::more)
        last = read_more(connection, end, answer, length);
    if (last == read_result::failed) return std::nullopt;
    answer.resize(length);
    return answer;
}
