// The container table is filled from the engine's answers to "/containers/NAME/json", of which State and
// NetworkSettings.IPAddress are used.
#include "docker/tarn_docker_core.h"

#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <numeric>
#include <utility>

#include "docker/tarn_docker_client.h"
#include "record/tarn_budget.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_trace.h"
#include "support/tarn_json.h"
#include "support/tarn_text.h"

namespace {

void docker_log(const char* message) {
    std::printf("[docker] %s\n", message);
}

std::atomic_ref<std::uint16_t> shared_count(const tarn_docker& docker) {
    return std::atomic_ref(docker.shared().count);
}

/// True when this run only shows the configuration and the block belongs to another running agent.
bool is_left_alone(const tarn_docker& docker) {
    return config.showconfigonly != 0 && tarn::is_block_of_other_agent(docker.block.id());
}

/// The configured path, until the statistics process starts and sets the default one.
std::string_view socket_path(const tarn_docker& docker) {
    const bool is_default = tarn::text_of(docker.shared().sock_path) == tarn_docker_default_socket;
    if (is_default || config.docker_sock_path.empty()) return tarn_docker_default_socket;
    return config.docker_sock_path;
}

/// Copies the parent's record of a container to the shared table. Only the statistics process writes the CPU
/// figure.
void publish(tarn_docker& docker, std::size_t index) {
    const tarn_docker_container_t& record = docker.containers[index];
    tarn_docker_container_t& shared = docker.shared().containers[index];
    tarn::copy_terminated(shared.name, record.name);
    tarn::copy_terminated(shared.ip, record.ip);
    shared.running = record.running;
    shared.state = record.state;
}

/// Announces all containers to the statistics process, which follows those that it finds on its first look.
void announce(tarn_docker& docker) {
    const auto count = static_cast<std::uint16_t>(docker.containers.size());
    if (shared_count(docker).exchange(count, std::memory_order_acq_rel) == count) return;
    if (!docker.statistics_process) return;
    const bool is_gone = ::write(docker.statistics_process.get(), "", 1) < 0 && errno == EPIPE;
    if (is_gone) docker.statistics_process.reset();
}

/// Sends one request, which may take half of the engine's time that is left.
std::string ask_engine(tarn_docker& docker, std::string_view request) {
    const tarn::deadline end(docker.time_left);
    const tarn::deadline latest = tarn::deadline(docker.time_left / 2).or_before(tarn::budget.end_of_cycle());
    const tarn::stream connection = tarn_docker_connect(socket_path(docker), latest);
    std::string answer = connection ? tarn_docker_cmd(connection, request, latest).value_or("") : "";
    docker.time_left = end.left();
    docker.is_silent = answer.empty() && tarn::budget.timed_out();
    return answer;
}

/// The engine's answer about one container; empty when there is none. An engine that timed out in this cycle
/// is not asked.
std::string inspect(tarn_docker& docker, std::string_view name) {
    const auto request = tarn_docker_request("/containers/", name, "/json");
    if (docker.is_silent) tarn::budget.note_skipped();
    return request && !docker.is_silent ? ask_engine(docker, *request) : "";
}

/// The state of a container that is not running; `before` when no flag is set.
tarn_docker_container_state_t state_of(const nx_json& root, tarn_docker_container_state_t before) {
    struct {
        const char* path;
        tarn_docker_container_state_t state;
    } static constexpr flags[] = {{"State.Dead", TARN_DOCKER_CONT_STATE_DEAD},
                                  {"State.Paused", TARN_DOCKER_CONT_STATE_PAUSED},
                                  {"State.OOMKilled", TARN_DOCKER_CONT_STATE_OOMKILLED},
                                  {"State.Restarting", TARN_DOCKER_CONT_STATE_RESTARTING}};
    for (const auto& flag : flags) {
        if (json_get_bool_by_path(root, flag.path) == 1) return flag.state;
    }
    return before;
}

}  // namespace

void docker_read_answer(const nx_json& root, tarn_docker_container_t& container, char (&status)[19]) {
    container.running = json_get_bool_by_path(root, "State.Running") == 1 ? 1 : 0;
    json_get_str_by_path(root, "State.Status", status, sizeof status);
    if (std::string_view(status) == "exited") container.state = TARN_DOCKER_CONT_STATE_EXITED;
    container.state =
        container.running != 0 ? TARN_DOCKER_CONT_STATE_RUNNING : state_of(root, container.state);
    json_get_str_by_path(root, "NetworkSettings.IPAddress", container.ip, sizeof container.ip);
}

namespace {

/// Orders a refresh: containers that the engine answered for in table order, then the others, least recently
/// asked first.
void order_refresh(const tarn_docker& docker, std::vector<std::size_t>& order) {
    order.resize(docker.containers.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&docker](std::size_t one, std::size_t other) {
        const auto rank = [&docker](std::size_t at) {
            const tarn_docker_record& container = docker.containers[at];
            return container.is_silent ? 1 + container.last_refresh : 0;
        };
        return rank(one) < rank(other);
    });
}

}  // namespace

key_t tarn_docker_key() {
    return static_cast<key_t>(static_cast<unsigned>(config.shm_key) + 1);
}

int docker_init(tarn_docker*& docker) {
    static tarn_docker table;
    const key_t key = tarn_docker_key();
    if (docker != nullptr && docker->key != key) docker_free(docker);
    if (docker == nullptr) {
        table = tarn_docker{};
        table.key = key;
        table.block = tarn::attached_block(tarn::claim_block(key, sizeof(tarn_docker_t)));
    }
    if (!table.block) {
        std::perror("shmget");
        docker_log("no container table, going on without containers");
        return 0;
    }
    table.containers.clear();
    docker_set_socket(table, tarn_docker_default_socket);
    if (!is_left_alone(table)) shared_count(table) = 0;
    trace("shmget() succeeded key = %d\n", key);
    docker = &table;
    return 1;
}

int docker_init_private(tarn_docker*& docker) {
    static tarn_docker table;
    const int id = ::shmget(IPC_PRIVATE, sizeof(tarn_docker_t), 0600);
    table = tarn_docker{};
    table.block = tarn::attached_block(id);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);  // freed when this process detaches it
    if (!table.block) return 0;
    docker_set_socket(table, tarn_docker_default_socket);
    docker = &table;
    return 1;
}

void docker_set_socket(tarn_docker& docker, std::string_view path) {
    if (!is_left_alone(docker)) tarn::copy_terminated(docker.shared().sock_path, path);
}

void docker_free(tarn_docker*& docker) {
    if (docker == nullptr) return;
    if (!tarn::is_block_of_other_agent(docker->block.id())) docker->block.remove();
    *docker = {};
    docker = nullptr;
}

int tarn_docker_find_container(const tarn_docker& docker, std::string_view name) {
    const int length = static_cast<int>(name.size());
    for (std::size_t at = 0; at < docker.containers.size(); ++at) {
        if (docker.containers[at].name != name) continue;
        trace("[docker] Found container '%.*s', index=%zu\n", length, name.data(), at);
        return static_cast<int>(at);
    }
    trace("[docker] Not found container in internal structure '%.*s', adding\n", length, name.data());
    return -1;
}

int tarn_docker_add_container(tarn_docker& docker, std::string_view name) {
    if (docker.containers.size() >= tarn_docker_max_containers) {
        std::printf("[docker] Max containers number reached: %d, cannot allocate one more\n",
                    tarn_docker_max_containers);
        return -1;
    }
    const std::size_t index = docker.containers.size();
    tarn_docker_record& container = docker.containers.emplace_back();
    tarn::copy_terminated(container.name, name);
    container.state = TARN_DOCKER_CONT_STATE_EXITED;
    std::atomic_ref(docker.shared().containers[index].cpu_usage) = 0.0;
    trace("[docker] Added container '%s', index=%zu\n", container.name, index);
    return static_cast<int>(index);
}

int tarn_docker_update_info(tarn_docker& docker, std::string_view name) {
    std::string answer = inspect(docker, name);
    const std::size_t body = answer.find("{\"");
    if (body == std::string::npos) return -1;
    const nx_json_tree root = nx_json_parse_utf8(answer, body);
    if (!root) return -1;

    int index = tarn_docker_find_container(docker, name);
    if (index < 0) index = tarn_docker_add_container(docker, name);
    if (index < 0) return -1;
    const auto at = static_cast<std::size_t>(index);
    char status[19] = "";
    docker_read_answer(*root, docker.containers[at], status);
    publish(docker, at);
    trace("[docker] Updated container info for '%s'\n\tindex\t%d\n\tstatus\t'%s'\n\tcpu\t%.2f%%\n",
          docker.containers[at].name, index, status, tarn_docker_cpu_usage(docker, at));
    return index;
}

void tarn_docker_begin_cycle(tarn_docker* docker, tarn::deadline::clock::duration waits) {
    if (docker == nullptr) return;
    docker->was_silent = std::exchange(docker->is_silent, false);
    docker->time_left = waits / (docker->was_silent ? 4 : 2);
}

void tarn_docker_end_cycle(tarn_docker* docker) {
    if (docker == nullptr) return;
    const bool is_incomplete = docker->is_silent && docker->containers.size() != docker->last_size;
    docker->last_size = docker->containers.size();
    if (!is_incomplete) announce(*docker);
}

int tarn_docker_update(tarn_docker* docker) {
    if (docker == nullptr || docker->containers.empty()) return 0;
    static std::vector<std::size_t> order;
    order_refresh(*docker, order);
    ++docker->refresh;
    for (std::size_t at = 0; at < order.size() && stop == 0 && !docker->is_silent; ++at) {
        tarn_docker_record& container = docker->containers[order[at]];
        container.last_refresh = docker->refresh;
        tarn::budget.begin_exchange(0, {});
        try {
            tarn_docker_update_info(*docker, container.name);
        } catch (const std::exception& error) {
            std::printf("[docker] %s: %s\n", container.name, error.what());
        }
        container.is_silent = docker->is_silent;
    }
    return 0;
}

std::optional<std::string_view> tarn_docker_resolve(tarn_docker* docker, std::string_view name) {
    if (docker == nullptr) return std::nullopt;
    const int index = tarn_docker_update_info(*docker, name);
    tarn::budget.restart_exchange();
    if (index < 0) return std::nullopt;
    const tarn_docker_container_t& container = docker->containers[static_cast<std::size_t>(index)];
    if (container.running == 0 || container.ip[0] == '\0') return std::nullopt;
    return container.ip;
}

double tarn_docker_cpu_usage(const tarn_docker& docker, std::size_t index) {
    return std::atomic_ref(docker.shared().containers[index].cpu_usage).load(std::memory_order_relaxed);
}

const char* tarn_docker_state_name(int state) {
    constexpr std::array names{"running", "paused", "restarting", "oomkilled", "dead", "exited"};
    return state >= 0 && state < static_cast<int>(names.size()) ? names[static_cast<std::size_t>(state)]
                                                                : "unknown";
}
