#include "support/tarn_shared_memory.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstdint>

namespace tarn {
namespace {

constexpr int permissions = 0666;

int get_block(key_t key, std::size_t size, int flags) {
    if (key == IPC_PRIVATE) {
        errno = ENOENT;
        return -1;
    }
    return ::shmget(key, size, flags);
}

}  // namespace

int find_block(key_t key, std::size_t size) {
    return get_block(key, size, permissions);
}

int create_block(key_t key, std::size_t size) {
    return get_block(key, size, permissions | IPC_CREAT);
}

void remove_block(key_t key) {
    const int id = get_block(key, 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
}

attached_block::attached_block(int id) : id_(id) {
    if (id < 0) return;  // the reason that errno tells is the search's
    void* const at = ::shmat(id, nullptr, 0);
    // The system's way to say "not attached" is the address -1.
    if (reinterpret_cast<std::intptr_t>(at) != -1) at_ = at;
}

attached_block::~attached_block() {
    if (at_ != nullptr) ::shmdt(at_);
}

void attached_block::remove() const {
    if (at_ != nullptr) ::shmctl(id_, IPC_RMID, nullptr);
}

}  // namespace tarn
