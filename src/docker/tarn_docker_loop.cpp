// The statistics process. The engine's answer to "/containers/NAME/stats?stream=true" never ends: one JSON
// object per second, with the CPU time of the container and of the host, now and at the previous sample.
#include "docker/tarn_docker_loop.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>
#include <vector>

#include "docker/tarn_docker_client.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_clock.h"
#include "support/tarn_json.h"
#include "support/tarn_json_framer.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr auto connect_timeout = std::chrono::seconds(1);
constexpr auto orphan_lifetime = std::chrono::seconds(30);
/// A message is a few kilobytes; a stream whose object grows beyond this did not come from the engine. A
/// hundred of them must not take more than some 40 MB.
constexpr std::size_t max_pending = std::size_t{384} << 10U;

void docker_log_ch(const char* message) {
    std::printf("[docker-child] %s\n", message);
}

/// Waits for the streams, the parent and the stop signals.
class waiter final {
  public:
    explicit waiter(tarn::unique_fd parent) : parent_(std::move(parent)) {}

    /// True when the process must end.
    [[nodiscard]] bool is_over() const { return stop != 0 || is_orphaned(); }

    /// True when the parent has been gone for as long as the process may outlive it.
    [[nodiscard]] bool is_orphaned() const { return !parent_ && clock_type::now() >= end_; }

    /// Waits until a stream is readable, the parent writes or ends, or a stop signal arrives. The last
    /// element is for the parent.
    void wait(std::vector<pollfd>& polled) {
        // Only ppoll() unblocks the signals, so that none arrives between the test of the flag and the wait.
        sigset_t stop_signals;
        sigset_t before;
        ::sigemptyset(&stop_signals);
        for (const int signum : {SIGTERM, SIGABRT, SIGINT})
            ::sigaddset(&stop_signals, signum);
        ::sigprocmask(SIG_BLOCK, &stop_signals, &before);
        polled.back() = {parent_.get(), POLLIN, 0};
        const int ready = stop == 0 ? wait_with(before, polled) : 0;
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
        if (ready <= 0) {
            for (pollfd& one : polled)
                one.revents = 0;
        }
        if (polled.back().revents != 0) read_parent();
    }

  private:
    /// Without a parent, waits until `end_` at most.
    int wait_with(const sigset_t& mask, std::vector<pollfd>& polled) const {
        const auto left = std::max(end_ - clock_type::now(), clock_type::duration::zero());
        const timespec limit{std::chrono::ceil<std::chrono::seconds>(left).count(), 0};
        return ::ppoll(polled.data(), polled.size(), parent_ ? nullptr : &limit, &mask);
    }

    void read_parent() {
        std::array<char, 128> bytes;
        if (::read(parent_.get(), bytes.data(), bytes.size()) > 0) return;
        parent_.reset();
        end_ = clock_type::now() + orphan_lifetime;
    }

    tarn::unique_fd parent_;
    clock_type::time_point end_ = clock_type::time_point::max();
};

/// A container and its open stream.
struct followed_container {
    tarn::stream stream;
    tarn::json_framer framer;
    docker_stats_t stats;
};

int container_count(tarn_docker_t& table) {
    const int count = std::atomic_ref(table.count).load(std::memory_order_acquire);
    return std::min(count, tarn_docker_max_containers);
}

[[noreturn]] void give_up(const char* call) {
    std::perror(call);
    std::exit(EXIT_FAILURE);
}

/// Opens the stream of a container. Any local user can write to the table, so its socket path is not used,
/// and a name that the engine would not allow is not followed.
tarn::stream get_fd_for_container_stats(std::string_view name) {
    const auto request = tarn_docker_request("/containers/", name, "/stats?stream=true");
    if (!request) return {};
    tarn::stream connection = tarn::connect_unix(tarn_docker_default_socket, {connect_timeout, {}});
    const bool is_sent = connection && tarn::send_once(connection, *request) >= 0;
    if (is_sent || stop != 0) return connection;
    if (connection) give_up("send");
    errno = connection.error;
    give_up(connection.failed == tarn::stream_step::connect ? "connect" : "socket");
}

/// Waits for the first containers; false when the process must end first.
bool wait_for_containers(tarn_docker_t& table, waiter& waiting) {
    std::vector<pollfd> polled(1);
    while (!waiting.is_over() && container_count(table) == 0)
        waiting.wait(polled);
    return !waiting.is_over();
}

/// Reads once from a stream; false when the stream has ended.
bool read_stream(followed_container& container, double& cpu_usage) {
    std::array<char, 9999> bytes;
    const ssize_t got = tarn::receive_once(container.stream, bytes);
    if (got < 0 && errno == EINTR) return true;
    if (got <= 0) return false;
    std::string message = container.framer.feed({bytes.data(), static_cast<std::size_t>(got)});
    if (container.framer.pending() > max_pending) return false;
    if (message.empty()) return true;
    parse_response(std::move(message), container.stats);
    container.stats.cpu_usage_percent = docker_cpu_percent(container.stats);
    std::atomic_ref(cpu_usage).store(container.stats.cpu_usage_percent, std::memory_order_relaxed);
    return true;
}

/// Reads once from a stream. Closes it when it has ended, or when memory runs out over a message.
void read_or_close(followed_container& container, double& cpu_usage) {
    try {
        if (read_stream(container, cpu_usage)) return;
    } catch (const std::exception& error) {
        docker_log_ch(error.what());
    }
    container.stream.socket.reset();
    container.framer = {};
}

std::vector<followed_container> open_streams(tarn_docker_t& table) {
    std::vector<followed_container> containers(static_cast<std::size_t>(container_count(table)));
    for (std::size_t at = 0; at < containers.size() && stop == 0; ++at) {
        const std::string name(tarn::text_of(table.containers[at].name).substr(0, 99));
        containers[at].stream = get_fd_for_container_stats(name);
    }
    return containers;
}

void follow(tarn_docker_t& table, std::vector<followed_container>& containers, waiter& waiting) {
    std::vector<pollfd> polled(containers.size() + 1);
    while (!waiting.is_over()) {
        // A closed stream has the descriptor -1, which ppoll() ignores.
        for (std::size_t at = 0; at < containers.size(); ++at)
            polled[at] = {containers[at].stream.socket.get(), POLLIN, 0};
        waiting.wait(polled);
        for (std::size_t at = 0; at < containers.size(); ++at) {
            if (polled[at].revents != 0) read_or_close(containers[at], table.containers[at].cpu_usage);
        }
    }
}

/// The process's loop. Removes the block at its end; an orphaned process leaves a block that others use.
void docker_loop(const tarn::attached_block& block, waiter& waiting) {
    auto& table = *static_cast<tarn_docker_t*>(block.get());
    if (wait_for_containers(table, waiting)) {
        docker_log_ch("Started gathering stats");
        std::vector<followed_container> containers = open_streams(table);
        docker_log_ch("Started loop");
        follow(table, containers, waiting);
        docker_log_ch("Stopped loop");
    }
    docker_log_ch("Freeing shm");
    if (!waiting.is_orphaned() || tarn::attached_processes(block.id()) == 1) block.remove();
    docker_log_ch("Exiting");
}

/// The difference of two totals, which wraps instead of overflowing.
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

void dockerThread(tarn::unique_fd parent) {
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
    tarn::copy_terminated(table.sock_path, tarn_docker_default_socket);
    std::printf("[docker-child] shmat() succeeded key = %d\n", key);
    waiter waiting(std::move(parent));
    docker_loop(block, waiting);
}
