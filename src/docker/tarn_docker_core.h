#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "support/tarn_deadline.h"
#include "support/tarn_files.h"
#include "support/tarn_shared_memory.h"

struct nx_json;

/// The state of a container, as reported by the engine.
enum tarn_docker_container_state_t : int {
    TARN_DOCKER_CONT_STATE_RUNNING,
    TARN_DOCKER_CONT_STATE_PAUSED,
    TARN_DOCKER_CONT_STATE_RESTARTING,
    TARN_DOCKER_CONT_STATE_OOMKILLED,
    TARN_DOCKER_CONT_STATE_DEAD,
    TARN_DOCKER_CONT_STATE_EXITED
};

/// One container of the table.
struct tarn_docker_container_t {
    char name[256];                       ///< name or id as written in a service's configuration
    char ip[16];                          ///< IPv4 address, dotted text; empty when unknown
    int running;                          ///< 1 when the engine reports it as running
    tarn_docker_container_state_t state;  ///< see tarn_docker_state_name()
    double cpu_usage;                     ///< percent of one CPU, written by the statistics process alone
};

/// Capacity of the container table.
inline constexpr int tarn_docker_max_containers = 100;

/// Default path of the engine's socket.
inline constexpr const char* tarn_docker_default_socket = "/var/run/docker.sock";

/// The table in shared memory; texts and numbers only. Any local user can write to it, so the parent reads
/// only the CPU figures and whether the default socket path is in force.
struct tarn_docker_t {
    std::uint16_t count;  ///< containers in use; set by the parent, zeroed when the statistics process starts
    std::uint16_t rnd;    ///< not used
    char sock_path[256];
    tarn_docker_container_t containers[tarn_docker_max_containers];
};

/// The parent's record of a container.
struct tarn_docker_record : tarn_docker_container_t {
    bool is_silent = false;          ///< the engine did not answer the last request for it in time
    unsigned long last_refresh = 0;  ///< number of the refresh that last asked for it
};

/// The parent's container table: its own records of what the engine answered, and the shared block, through
/// which it passes the names to the statistics process and receives the CPU figures.
struct tarn_docker {
    key_t key = 0;  ///< System V key of the block
    tarn::attached_block block;
    std::vector<tarn_docker_record> containers;
    bool is_silent = false;   ///< the engine timed out in this cycle and is not asked again
    bool was_silent = false;  ///< the engine timed out in the previous cycle
    /// Time that requests to the engine may take in this cycle.
    tarn::deadline::clock::duration time_left = tarn::deadline::clock::duration::max();
    std::size_t last_size = 0;           ///< number of containers at the end of the previous cycle
    unsigned long refresh = 0;           ///< number of the current refresh
    tarn::unique_fd statistics_process;  ///< pipe to that process; one byte per change of the count

    [[nodiscard]] tarn_docker_t& shared() const { return *static_cast<tarn_docker_t*>(block.get()); }
};

/// System V key of the container table: the key after that of the script results.
key_t tarn_docker_key();

/// Creates the only table, empties it and sets `docker` to it. A block that an earlier call made under
/// another key is removed. The block of another running agent is shared; a run that only shows the
/// configuration leaves such a block unchanged. Returns 1; 0, with a message and `docker` null, when there is
/// no block: the agent then runs without containers.
int docker_init(tarn_docker*& docker);

/// Sets `docker` to an empty table that no other process can see, so that the addresses of containers can be
/// asked for beside a running agent. Returns 1; 0, with `docker` null, when there is no shared memory for it.
int docker_init_private(tarn_docker*& docker);

/// Sets the path of the engine's socket in the shared table.
void docker_set_socket(tarn_docker& docker, std::string_view path);

/// Releases the table, if there is one, and removes its block from the system unless another agent made it.
void docker_free(tarn_docker*& docker);

/// The index of a container, or -1.
int tarn_docker_find_container(const tarn_docker& docker, std::string_view name);

/// Adds a container and returns its index, or -1 with a message when the table is full.
int tarn_docker_add_container(tarn_docker& docker, std::string_view name);

/// Asks the engine about one container and adds it to the table if it is new. Returns its index, or -1 when
/// there is no answer in time or the table is full.
int tarn_docker_update_info(tarn_docker& docker, std::string_view name);

/// Fills a container from the engine's answer about it; `status` receives the engine's word for the state.
void docker_read_answer(const nx_json& root, tarn_docker_container_t& container, char (&status)[19]);

/// Begins a cycle: an engine that timed out may be asked again. Of the time that the cycle may wait
/// altogether, all requests to the engine together get half, so that an answer that is late once does no
/// harm; a quarter when the engine was silent in the previous cycle. `docker` may be null.
void tarn_docker_begin_cycle(tarn_docker* docker, tarn::deadline::clock::duration waits);

/// Ends a cycle: announces the containers to the statistics process, which follows those that it is told of
/// first. That waits for the next cycle if the engine has answered for some new ones and not for others.
/// `docker` may be null.
void tarn_docker_end_cycle(tarn_docker* docker);

/// Asks the engine about every container of the table; `docker` may be null. Containers that it did not
/// answer for come last, least recently asked first. Returns 0.
int tarn_docker_update(tarn_docker* docker);

/// The address of a running container; costs one request. Returns nothing when the container is unknown, is
/// not running or has no address, and when `docker` is null. The text is valid until the next refresh.
std::optional<std::string_view> tarn_docker_resolve(tarn_docker* docker, std::string_view name);

/// CPU usage of a container of the table, percent of one CPU.
double tarn_docker_cpu_usage(const tarn_docker& docker, std::size_t index);

/// "running", "paused", "restarting", "oomkilled", "dead", "exited"; "unknown" for any other code.
const char* tarn_docker_state_name(int state);
