#include "services/tarn_http.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "record/tarn_config.h"
#include "services/tarn_service.h"
#include "support/tarn_base64.h"

namespace tarn {
namespace {

constexpr std::size_t page_size = 16384;
constexpr std::size_t step_size = 4096;
constexpr std::size_t most_answer = std::size_t{4} << 20U;
constexpr int most_timeouts = 10;
constexpr int longest_timeout = 86400;

/// Reads an answer step by step into one growing text; false when that failed.
bool read_steps(const char* kind, const unique_fd& socket, std::string& answer) {
    const auto deadline =
        std::chrono::steady_clock::now() +
        most_timeouts * std::chrono::seconds(std::clamp(config.counter_tcp_to, 1, longest_timeout));
    std::size_t length = 0;
    ssize_t got = 0;
    do {
        if (length > most_answer || std::chrono::steady_clock::now() > deadline) return false;
        if (answer.size() < length + step_size) answer.resize(2 * answer.size() + step_size);
        got = receive_once(socket, std::span(answer).subspan(length, step_size));
        if (got < 0) {
            const int error = errno;
            std::perror("recv");
            std::printf("%s read1 %ld bytes errno = %d \n", kind, static_cast<long>(got), error);
            return false;
        }
        length += static_cast<std::size_t>(got);
    } while (got == static_cast<ssize_t>(step_size));
    answer.resize(length);
    return true;
}

}  // namespace

void set_credentials(char (&auth64)[1024], std::string_view user, std::string_view pass) {
    std::string login(user);
    login.append(":").append(pass);
    copy_text(auth64, base64(login));
}

void set_credentials_if_any(char (&auth64)[1024], std::string_view user, std::string_view pass) {
    auth64[0] = '\0';
    if (!user.empty() && !pass.empty()) set_credentials(auth64, user, pass);
}

unique_fd connect_http(const char* kind, std::string_view host, int port) {
    stream connection = connect_service(host, port);
    if (connection.failed == stream_step::connect) {
        std::printf("%s: could not bind socket or connect whatever: (%s)%d\n", kind,
                    std::strerror(connection.error), connection.error);
    } else if (connection.failed == stream_step::timeouts) {
        std::printf("setsockopt failed\n");
    } else if (!connection.socket) {
        errno = connection.error;
        std::perror("socket");
    }
    return std::move(connection.socket);
}

std::optional<std::string> fetch_status_page(const char* kind, std::string_view host, int port,
                                             std::string_view request) {
    const unique_fd socket = connect_http(kind, host, port);
    if (!socket) return std::nullopt;
    std::string page(page_size, '\0');
    const auto reply = ask_once(socket, request, page);
    if (!reply) return std::nullopt;
    page.resize(reply->size());
    return page;
}

std::optional<std::string> fetch_body(const char* kind, const unique_fd& socket, std::string_view request) {
    if (send_once(socket, request) < 0) {
        std::perror("write");
        return std::nullopt;
    }
    std::string answer;
    if (!read_steps(kind, socket, answer)) return std::nullopt;
    const std::size_t header_end = answer.find("\r\n\r\n");
    if (header_end == std::string::npos) return std::nullopt;
    return answer.substr(header_end + 4);
}

}  // namespace tarn
