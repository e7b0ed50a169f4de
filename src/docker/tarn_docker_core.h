#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "support/tarn_deadline.h"
#include "support/tarn_files.h"
#include "support/tarn_shared_memory.h"

/// What the engine says of a container.
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
    char name[256];                       ///< name or id as a service's configuration wrote it
    char ip[16];                          ///< IPv4 address, dotted text; empty when unknown
    int running;                          ///< 1 when the engine says so
    tarn_docker_container_state_t state;  ///< see tarn_docker_state_name()
    double cpu_usage;                     ///< percent of one CPU, written by the statistics process alone
};

/// How many containers can be followed.
inline constexpr int tarn_docker_max_containers = 100;

/// Where the engine listens unless the configuration says otherwise.
inline constexpr const char* tarn_docker_default_socket = "/var/run/docker.sock";

/// The table as it lies in shared memory, texts and numbers only. Any local user can write there: the parent
/// reads nothing from it but the CPU figures and which of its two socket paths is in force.
struct tarn_docker_t {
    std::uint16_t
        count;          ///< containers in use; written by the parent (and zeroed as the other process starts)
    std::uint16_t rnd;  ///< reserved
    char sock_path[256];
    tarn_docker_container_t containers[tarn_docker_max_containers];
};

/// A container as the parent knows it, and how the engine answers for it.
struct tarn_docker_known : tarn_docker_container_t {
    bool is_silent = false;      ///< the engine did not answer in time when it was asked last
    unsigned long asked_in = 0;  ///< the refresh in which it was asked last
};

/// The container table of the parent: its own record of what it learned from the engine, and the shared block
/// through which the statistics process learns the names and hands back the CPU figures.
struct tarn_docker {
    key_t key = 0;  ///< System V key of the block
    tarn::attached_block block;
    std::vector<tarn_docker_known> containers;
    bool is_silent = false;     ///< the engine did not answer in time in this cycle: it is not asked again
    bool was_silent = false;    ///< nor in the cycle before
    unsigned long refresh = 0;  ///< counts the refreshes
    tarn::unique_fd statistics_process;  ///< pipe to that process: a byte for each change of the count

    [[nodiscard]] tarn_docker_t& shared() const { return *static_cast<tarn_docker_t*>(block.get()); }
};

/// System V key of the container table: the one after the script results'.
key_t tarn_docker_key();

/// Creates the table, of which there is one, empties it and points to it; a block that an earlier call made
/// under another key is removed. The block of another agent that runs is shared; a run that only shows the
/// configuration leaves such a block as it is. Returns 1; 0, with a message and a null pointer, when there
/// can be no table, and the agent then goes on without containers.
int docker_init(tarn_docker*& docker);

/// Tells both processes where the engine listens.
void docker_set_socket(tarn_docker& docker, std::string_view path);

/// Gives the table up, if there is one, and removes its block from the system unless another agent made it.
void docker_free(tarn_docker*& docker);

/// The index of a container, or -1.
int tarn_docker_find_container(const tarn_docker& docker, std::string_view name);

/// Adds a container and returns its index, or -1 with a message when the table is full.
int tarn_docker_add_container(tarn_docker& docker, std::string_view name);

/// Asks the engine about one container, which is added to the table if it is not there yet. Returns its
/// index, or -1 when there was no answer before the deadline or the table is full.
int tarn_docker_update_info(tarn_docker& docker, std::string_view name, tarn::deadline latest);

/// Begins a cycle in the table, if there is one: an engine that was silent may be asked again.
void tarn_docker_begin_cycle(tarn_docker* docker);

/// Asks the engine about every container of the table, if there is a table; `others` exchanges are to be made
/// after that. Containers for which it was silent come last, the longest unasked first. Returns 0.
int tarn_docker_update(tarn_docker* docker, std::size_t others);

/// The address of a running container, which costs one request; nothing when the container is unknown, does
/// not run, or has no address, and when there is no table. The text is valid until the next refresh.
std::optional<std::string_view> tarn_docker_resolve(tarn_docker* docker, std::string_view name);

/// The CPU figure of a container of the table, in percent.
double tarn_docker_cpu_usage(const tarn_docker& docker, std::size_t index);

/// "running", "paused", "restarting", "oomkilled", "dead", "exited"; "unknown" for any other code.
const char* tarn_docker_state_name(int state);
