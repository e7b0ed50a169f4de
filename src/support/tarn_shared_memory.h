#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstddef>
#include <utility>

/// System V shared memory: blocks of a key and a size that processes of the agent hand each other. Any local
/// user can write into them: what is read from one is checked before it is used.
namespace tarn {

/// The id of the block of a key that holds at least `size` bytes, or -1 with errno set. It is not created.
/// The key 0 is no key: to the system it means "a new private block each time", and such a block is never
/// asked for.
int find_block(key_t key, std::size_t size);

/// As find_block(), but a block that is not there is created, for everybody to read and write.
int create_block(key_t key, std::size_t size);

/// Removes the block of a key, if there is one.
void remove_block(key_t key);

/// A block in the address space of this process, as long as this object lives.
class attached_block final {
  public:
    attached_block() = default;
    /// Attaches the block of an id; get() is null when that fails.
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
    explicit operator bool() const { return at_ != nullptr; }

    /// Removes this very block from the system, whatever block bears its key by now. It stays attached, here
    /// and elsewhere.
    void remove() const;

  private:
    void* at_ = nullptr;
    int id_ = -1;
};

}  // namespace tarn
