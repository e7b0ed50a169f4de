#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>

/// System V shared memory, through which the agent's processes exchange texts and numbers. Any local user can
/// write into a block and can create one under any key: data from a block is checked before use, and a block
/// that root did not create is never attached.
namespace tarn {

/// The id of the block under a key, if root created it and it has exactly this size; else -1 with errno set.
/// Creates nothing. Key 0 is refused: to the system it is IPC_PRIVATE, a new block on each call.
int find_block(key_t key, std::size_t size);

/// The id of a block of this key and size that this process may use: the block of another running agent, or a
/// new one with mode 0666. A block that root did not create, that has another size or whose creator has ended
/// is removed first; shmget's error is printed for one that is too small, and the owner of one that root did
/// not create. Returns -1 with errno set on failure.
int claim_block(key_t key, std::size_t size);

/// True when another agent that is still running created the block.
bool is_block_of_other_agent(int id);

/// The number of processes that have the block attached.
std::size_t attached_processes(int id);

/// Removes the block under a key, if there is one.
void remove_block(key_t key);

/// Removes the block under a key if process `creator` created it.
void remove_block_made_by(key_t key, pid_t creator);

/// A block that is attached to this process for the lifetime of this object.
class attached_block final {
  public:
    attached_block() = default;
    /// Attaches the block with this id; get() is null on failure. An id of -1 leaves errno unchanged.
    explicit attached_block(int id);
    attached_block(attached_block&& other) noexcept
        : at_(std::exchange(other.at_, nullptr)), id_(other.id_) {}
    attached_block& operator=(attached_block&& other) noexcept {
        std::swap(at_, other.at_);
        std::swap(id_, other.id_);
        return *this;
    }
    attached_block(const attached_block&) = delete;
    attached_block& operator=(const attached_block&) = delete;
    ~attached_block();

    [[nodiscard]] void* get() const { return at_; }
    [[nodiscard]] int id() const { return id_; }
    explicit operator bool() const { return at_ != nullptr; }

    /// Removes this block from the system, even if its key now belongs to another block. Processes that have
    /// it attached keep it.
    void remove() const;

  private:
    void* at_ = nullptr;
    int id_ = -1;
};

}  // namespace tarn
