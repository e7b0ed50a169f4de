// What reads an answer from a socket, in pieces of any size: an HTTP body, a FastCGI session, the engine.
#include <sys/socket.h>

#include "docker/tarn_docker_client.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_fpm.h"
#include "services/tarn_http.h"

namespace {

using reader = void (*)(const tarn::stream& connection, tarn::deadline end);
constexpr reader readers[] = {
    [](const auto& connection, auto end) { tarn::fetch_body("Fuzz", connection, "GET", end); },
    [](const auto& connection, auto end) { tarn_docker_cmd(connection, "GET", end); },
    [](const auto& connection, auto end) {
        tarn_mycustom_data_fpm data{};
        simple_session_1(connection, "/status", end,
                         [&data](const fcgi_record& record) { fpm_parse_res(record.content, data); });
    }};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) return 0;
    constexpr std::size_t piece_sizes[] = {4096, 1, 9, 500};
    const std::size_t piece = piece_sizes[bytes[size - 1] % std::size(piece_sizes)];
    for (const reader read : readers) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) != 0) return -1;
        const tarn::unique_fd peer(ends[1]);
        const tarn::stream connection{tarn::unique_fd(ends[0]), tarn::stream_step::none, 0, {}};
        for (std::size_t at = 0; at < size; at += piece)
            ::send(peer.get(), bytes + at, std::min(piece, size - at), 0);
        ::shutdown(peer.get(), SHUT_WR);
        read(connection, tarn::deadline(std::chrono::seconds(1)));
    }
    return 0;
}
