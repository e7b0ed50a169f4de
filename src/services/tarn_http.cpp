// Requests and answers over HTTP. The content length is not interpreted: a read shorter than the step ends
// the answer.
#include "services/tarn_http.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "record/tarn_budget.h"
#include "record/tarn_config.h"
#include "record/tarn_reason.h"
#include "services/tarn_service.h"
#include "support/tarn_base64.h"

namespace tarn {
namespace {

constexpr std::size_t page_size = 16384;
constexpr std::size_t step_size = 4096;
constexpr std::size_t max_answer = std::size_t{4} << 20U;

/// Reads an answer step by step into one growing text. Returns false when that fails.
bool read_steps(const char* kind, const stream& connection, deadline end, std::string& answer) {
    std::size_t length = 0;
    ssize_t got = 0;
    do {
        if (end.has_passed()) {
            budget.note_timeout();
            note_timeout(body_timeouts * config.counter_tcp_to);
        }
        if (length > max_answer || end.has_passed()) return false;
        if (answer.size() < length + step_size) answer.resize(2 * answer.size() + step_size);
        got = receive_reply(connection, std::span(answer).subspan(length, step_size));
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

/// Notes the status of an answer that is not a success, such as "401 Unauthorized".
void note_status(std::string_view answer) {
    std::string_view line = answer.substr(0, answer.find_first_of("\r\n"));
    const bool is_http = line.starts_with("HTTP/");
    line.remove_prefix(std::min(line.find(' ') + 1, line.size()));
    if (!is_http) {
        note_reason("the answer is not HTTP");
    } else if (!line.starts_with('2')) {
        note_reason("%.*s", static_cast<int>(line.size()), line.data());
    }
}

}  // namespace

void set_credentials(char (&auth64)[1024], std::string_view user, std::string_view pass) {
    std::string login(user);
    login.append(":").append(pass);
    copy_terminated(auth64, base64(login));
}

void set_credentials_if_any(char (&auth64)[1024], std::string_view user, std::string_view pass) {
    auth64[0] = '\0';
    if (!user.empty() && !pass.empty()) set_credentials(auth64, user, pass);
}

stream connect_http(const char* kind, std::string_view host, int port) {
    stream connection = connect_service(host, port);
    switch (connection.failed) {
        case stream_step::none:
            break;
        case stream_step::socket:
        case stream_step::timeouts:
            std::printf("setsockopt failed\n");
            break;
        case stream_step::connect:
            std::printf("%s: could not bind socket or connect whatever: (%s)%d\n", kind,
                        std::strerror(connection.error), connection.error);
            break;
    }
    return connection;
}

std::optional<std::string> fetch_status_page(const char* kind, std::string_view host, int port,
                                             std::string_view request, std::string_view expected) {
    const stream connection = connect_http(kind, host, port);
    if (!connection) return std::nullopt;
    std::string page(page_size, '\0');
    const auto reply = ask_once(connection, request, page);
    if (!reply) return std::nullopt;
    page.resize(reply->size());
    expect_text(page, expected);
    return page;
}

std::optional<std::string> fetch_body(const char* kind, const stream& connection, std::string_view request,
                                      deadline end) {
    if (send_request(connection, request) < 0) {
        std::perror("write");
        return std::nullopt;
    }
    std::string answer;
    if (!read_steps(kind, connection, end, answer)) return std::nullopt;
    note_status(answer);
    const std::size_t header_end = answer.find("\r\n\r\n");
    if (header_end == std::string::npos) return std::nullopt;
    return answer.substr(header_end + 4);
}

}  // namespace tarn
