#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstddef>
#include <utility>

/// System V shared memory: blocks of a key and a size through which the agent's processes hand each other
/// texts and numbers. Any local user can write into them, and make one under any key: what is read from a
/// block is checked before it is used, and a block that root did not make is never attached.
namespace tarn {

/// The id of the block of a key that root made and that has exactly this size, or -1 with errno set. It is
/// not created. The key 0 is refused: to the system it means a new private block each time.
int find_block(key_t key, std::size_t size);

/// The id of a block of this key and size that this process may use: the block of another agent that runs, or
/// a new one for everybody to read and write. A block that was planted (root did not make it), that has
/// another size or whose maker is gone is removed first; one that is too small is reported as shmget's own
/// error, and a planted one by name. Returns -1 with errno set when that fails.
int claim_block(key_t key, std::size_t size);

/// True when another agent that still runs made the block.
bool is_block_of_other_agent(int id);

/// How many processes have the block attached.
std::size_t attached_processes(int id);

/// Removes the block of a key, if there is one.
void remove_block(key_t key);

/// Removes the block of a key if process `maker` made it.
void remove_block_made_by(key_t key, pid_t maker);

/// A block in the address space of this process, as long as this object lives.
class attached_block final {
  public:
    attached_block() = default;
    /// Attaches the block of an id; get() is null when that fails. An id of -1 leaves errno as it is.
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

    /// Removes this very block from the system, even if another one has its key by now. It stays attached in
    /// every process that has it.
    void remove() const;

  private:
    void* at_ = nullptr;
    int id_ = -1;
};

}  // namespace tarn
