// The statistics process: the engine's answer to "/containers/NAME/stats?stream=true" goes on for ever, one
// JSON object per second, with the CPU time of the container and of the host now and at the sample before.
#include "docker/tarn_docker_loop.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "record/tarn_turn.h"
#include "support/tarn_json.h"
#include "support/tarn_json_framer.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

constexpr int connect_timeout_seconds = 1;
constexpr int wait_ms = 1000;
/// A message is a few kilobytes; a stream whose object grows beyond this is none of the engine's.
constexpr std::size_t most_pending = std::size_t{1} << 20U;

void docker_log_ch(const char* message) {
    std::printf("[docker-child] %s\n", message);
}

/// One container that is followed.
struct followed {
    tarn::unique_fd stream;
    tarn::json_framer framer;
    docker_stats_t stats;
};

int container_count(tarn_docker_t& table) {
    const int count = std::atomic_ref(table.count).load(std::memory_order_acquire);
    return std::min(count, tarn_docker_most_containers);
}

[[noreturn]] void give_up(const char* call) {
    std::perror(call);
    std::exit(EXIT_FAILURE);
}

/// The path in the table is this process's own, but anybody may have written there since.
tarn::unique_fd get_fd_for_container_stats(std::string_view name) {
    tarn::stream connection = tarn::connect_unix(tarn_docker_default_socket, connect_timeout_seconds);
    errno = connection.error;
    if (connection.failed == tarn::stream_step::connect) give_up("connect");
    if (!connection.socket) give_up("socket");
    const auto request = tarn_docker_request("/containers/", name, "/stats?stream=true");
    errno = EINVAL;
    if (!request || tarn::send_once(connection.socket, *request) < 0) give_up("send");
    return std::move(connection.socket);
}

/// Waits for the first container; false when the stop flag is set first.
bool wait_for_containers(tarn_docker_t& table) {
    while (stop == 0 && container_count(table) == 0)
        sleep_one_turn(writer_margin_ms);
    return stop == 0;
}

/// Takes what a stream has brought; false when it is over.
bool serve(followed& container, double& cpu_usage) {
    std::array<char, 9999> bytes;
    const ssize_t got = tarn::receive_once(container.stream, bytes);
    if (got < 0 && errno == EINTR) return true;
    if (got <= 0) return false;
    std::string message = container.framer.feed({bytes.data(), static_cast<std::size_t>(got)});
    if (container.framer.pending() > most_pending) return false;
    if (message.empty()) return true;
    parse_response(std::move(message), container.stats);
    container.stats.cpu_usage_percent = docker_cpu_percent(container.stats);
    std::atomic_ref(cpu_usage).store(container.stats.cpu_usage_percent, std::memory_order_relaxed);
    return true;
}

std::vector<followed> open_streams(tarn_docker_t& table) {
    std::vector<followed> containers(static_cast<std::size_t>(container_count(table)));
    for (std::size_t at = 0; at < containers.size(); ++at) {
        const std::string name(tarn::text_of(table.containers[at].name).substr(0, 99));
        containers[at].stream = get_fd_for_container_stats(name);
    }
    return containers;
}

void follow(tarn_docker_t& table, std::vector<followed>& containers) {
    std::vector<pollfd> polled(containers.size());
    while (stop == 0) {
        // A stream that is over has the descriptor -1, which poll() passes over.
        for (std::size_t at = 0; at < polled.size(); ++at)
            polled[at] = {containers[at].stream.get(), POLLIN, 0};
        if (::poll(polled.data(), polled.size(), wait_ms) <= 0) continue;
        for (std::size_t at = 0; at < polled.size(); ++at) {
            if (polled[at].revents == 0) continue;
            if (!serve(containers[at], table.containers[at].cpu_usage)) containers[at].stream.reset();
        }
    }
}

double difference(std::int64_t now, std::int64_t before) {
    const std::uint64_t wrapped = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(before);
    return static_cast<double>(static_cast<std::int64_t>(wrapped));
}

}  // namespace

void parse_response(std::string text, docker_stats_t& stats) {
    const std::size_t start = text.find("{\"");
    stats.ok = start != std::string::npos ? 1 : 0;
    if (stats.ok == 0) return;
    const nx_json_tree tree = nx_json_parse_utf8(text, start);
    const nx_json none;
    const nx_json& root = tree ? *tree : none;
    stats.cpu_usage = json_get_long_by_path(root, "cpu_stats.cpu_usage.total_usage");
    stats.sys_usage = json_get_long_by_path(root, "cpu_stats.system_cpu_usage");
    stats.pre_cpu_usage = json_get_long_by_path(root, "precpu_stats.cpu_usage.total_usage");
    stats.pre_sys_usage = json_get_long_by_path(root, "precpu_stats.system_cpu_usage");
    stats.ncpu = static_cast<int>(json_get_long_by_path(root, "precpu_stats.online_cpus"));
}

double docker_cpu_percent(const docker_stats_t& stats) {
    const double share =
        difference(stats.cpu_usage, stats.pre_cpu_usage) / difference(stats.sys_usage, stats.pre_sys_usage);
    return share * stats.ncpu * 100;
}

void docker_loop(const tarn::attached_block& block) {
    auto& table = *static_cast<tarn_docker_t*>(block.get());
    if (wait_for_containers(table)) {
        docker_log_ch("Started gathering stats");
        std::vector<followed> containers = open_streams(table);
        docker_log_ch("Started loop");
        follow(table, containers);
        docker_log_ch("Stopped loop");
    }
    docker_log_ch("Freeing shm");
    block.remove();
    docker_log_ch("Exiting");
}

void dockerThread() {
    const key_t key = tarn_docker_key();
    ::sleep(1);
    const int id = tarn::find_block(key, sizeof(tarn_docker_t));
    const tarn::attached_block block(id);
    if (!block) {
        std::perror("[docker-child] shmget() failed");
        std::printf("[docker-child] shmget() failed for key = %d, id=%d\n", key, id);
        return;
    }
    auto& table = *static_cast<tarn_docker_t*>(block.get());
    std::atomic_ref(table.count) = 0;
    tarn::copy_text(table.sock_path, tarn_docker_default_socket);
    std::printf("[docker-child] shmat() succeeded key = %d\n", key);
    docker_loop(block);
}
