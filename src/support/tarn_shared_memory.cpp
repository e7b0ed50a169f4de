// Any local user can create a block under the agent's key, so owner, size and creator are checked before use.
#include "support/tarn_shared_memory.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "support/tarn_process.h"

namespace tarn {
namespace {

constexpr int permissions = 0666;
/// Bounds the race with a user who creates a new block as fast as the agent removes one.
constexpr int max_attempts = 100;

int get_block(key_t key, std::size_t size, int flags) {
    if (key == IPC_PRIVATE) {
        errno = ENOENT;
        return -1;
    }
    return ::shmget(key, size, flags);
}

std::optional<shmid_ds> status_of(int id) {
    shmid_ds status{};
    if (id < 0 || ::shmctl(id, IPC_STAT, &status) != 0) return std::nullopt;
    return status;
}

bool is_root_block(const shmid_ds& status, std::size_t size) {
    return status.shm_perm.cuid == 0 && status.shm_perm.uid == 0 && status.shm_segsz == size;
}

/// Removes a block that the agent cannot use, so that it can create its own.
void remove_unusable(key_t key) {
    const auto status = status_of(get_block(key, 0, 0));
    if (status && status->shm_perm.cuid != 0) {
        std::printf("Removing a shared-memory block of user %u under key %d\n", status->shm_perm.cuid, key);
    }
    remove_block(key);
}

}  // namespace

int find_block(key_t key, std::size_t size) {
    const int id = get_block(key, size, permissions);
    if (id < 0) return -1;
    const auto status = status_of(id);
    if (status && is_root_block(*status, size)) return id;
    errno = EACCES;
    return -1;
}

int claim_block(key_t key, std::size_t size) {
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
        const int created = get_block(key, size, permissions | IPC_CREAT | IPC_EXCL);
        if (created >= 0 || errno != EEXIST) return created;
        const int existing = get_block(key, size, permissions);
        if (existing < 0 && errno == EINVAL) std::perror("shmget");
        const auto status = status_of(existing);
        if (status && is_root_block(*status, size) && is_other_agent(status->shm_cpid)) return existing;
        remove_unusable(key);
    }
    errno = EEXIST;
    return -1;
}

bool is_block_of_other_agent(int id) {
    const auto status = status_of(id);
    return status && is_other_agent(status->shm_cpid);
}

std::size_t attached_processes(int id) {
    const auto status = status_of(id);
    return status ? status->shm_nattch : 0;
}

void remove_block(key_t key) {
    const int id = get_block(key, 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
}

void remove_block_made_by(key_t key, pid_t creator) {
    const int id = get_block(key, 0, 0);
    const auto status = status_of(id);
    if (status && status->shm_cpid == creator) ::shmctl(id, IPC_RMID, nullptr);
}

attached_block::attached_block(int id) : id_(id) {
    if (id < 0) return;  // keeps errno of the failed lookup
    void* const at = ::shmat(id, nullptr, 0);
    // shmat returns the address -1 on failure.
    if (reinterpret_cast<std::intptr_t>(at) != -1) at_ = at;
}

attached_block::~attached_block() {
    if (at_ != nullptr) ::shmdt(at_);
}

void attached_block::remove() const {
    if (at_ != nullptr) ::shmctl(id_, IPC_RMID, nullptr);
}

}  // namespace tarn
