// An HTTP server for one page, run by the receiver's own loop.
#include "metrics_server.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

using namespace std::chrono_literals;

constexpr unsigned max_connections = 64;
constexpr unsigned idle_seconds = 10;
/// Who asks more often gets the text that was made last.
constexpr auto text_age = 1s;

}  // namespace

std::string metrics_server::open(const std::string& address, text_maker make_text) {
    make_text_ = std::move(make_text);
    const std::size_t colon = std::min(address.find(':'), address.size());
    const auto ip = tarn::parse_ipv4(std::string_view(address).substr(0, colon));
    const auto port = address.substr(std::min(colon + 1, address.size()));
    if (!ip || !tarn::is_valid_int(port) || port.size() > 5 || tarn::to_number<int>(port) > 65535 ||
        port[0] == '-')
        return address + " is not an IPv4 address and a port";
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_addr = *ip;
    bound.sin_port = htons(tarn::to_number<std::uint16_t>(port));
    daemon_.reset(MHD_start_daemon(MHD_USE_EPOLL, 0, nullptr, nullptr, on_request, this, MHD_OPTION_SOCK_ADDR,
                                   reinterpret_cast<const sockaddr*>(&bound), MHD_OPTION_CONNECTION_LIMIT,
                                   max_connections, MHD_OPTION_CONNECTION_TIMEOUT, idle_seconds,
                                   MHD_OPTION_END));
    if (!daemon_) return "cannot listen on " + address + ": " + std::strerror(errno);
    descriptor_ = MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    std::fprintf(stderr, "tarn-receive: metrics on http://%s:%d/metrics\n", tarn::ipv4_text(*ip).c_str(),
                 MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_BIND_PORT)->port);
    return {};
}

void metrics_server::serve() {
    // The text of many hosts is large.
    if (std::chrono::steady_clock::now() - last_made_ >= text_age) last_.reset();
    MHD_run(daemon_.get());
}

/// The answer to a scrape; the last one, unless it has become old.
MHD_Response* metrics_server::metrics() {
    if (last_) return last_.get();
    auto text = std::make_unique<std::string>(make_text_());
    last_.reset(MHD_create_response_from_buffer_with_free_callback_cls(
        text->size(), text->data(), [](void* sent) { delete static_cast<std::string*>(sent); }, text.get()));
    if (last_) {
        static_cast<void>(text.release());
        MHD_add_response_header(last_.get(), MHD_HTTP_HEADER_CONTENT_TYPE,
                                "text/plain; version=0.0.4; charset=utf-8");
    }
    last_made_ = std::chrono::steady_clock::now();
    return last_.get();
}

MHD_Result metrics_server::answer(MHD_Connection* connection, const char* path, const char* method) {
    const bool is_read = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
    if (is_read && std::strcmp(path, "/metrics") == 0)
        return MHD_queue_response(connection, MHD_HTTP_OK, metrics());
    static char missing[] = "Only /metrics is served.\n";
    const std::unique_ptr<MHD_Response, tarn::closer<MHD_destroy_response>> response(
        MHD_create_response_from_buffer(sizeof missing - 1, missing, MHD_RESPMEM_PERSISTENT));
    return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, response.get());
}

MHD_Result metrics_server::on_request(void* self, MHD_Connection* connection, const char* path,
                                      const char* method, const char* /*version*/, const char* /*data*/,
                                      std::size_t* size, void** /*request*/) {
    *size = 0;
    return static_cast<metrics_server*>(self)->answer(connection, path, method);
}
