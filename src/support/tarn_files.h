#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

/// RAII owners of descriptors and streams, and reading of directories and whole files.
namespace tarn {

/// Owns one file descriptor and closes it; -1 means none.
class unique_fd final {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }

  private:
    int fd_ = -1;
};

/// Deleter for std::unique_ptr that calls a C function such as fclose().
template <auto Close>
struct closer {
    template <typename Handle>
    void operator()(Handle* handle) const {
        Close(handle);
    }
};

/// Owns one stdio stream and closes it.
using unique_file = std::unique_ptr<std::FILE, closer<std::fclose>>;

/// Lists the names in a directory, in directory order, without allocating.
class directory_reader final {
  public:
    explicit directory_reader(const char* path);

    /// False when the directory could not be opened.
    explicit operator bool() const { return static_cast<bool>(directory_); }

    /// The descriptor for openat() and other calls with relative names; -1 when it is not open.
    [[nodiscard]] int fd() const { return directory_.get(); }

    /// The next name except "." and "..", valid until the next call; null at the end.
    const char* next();

  private:
    unique_fd directory_;
    std::size_t at_ = 0;
    std::size_t filled_ = 0;
    alignas(dirent64) std::array<char, 4096> entries_{};
};

/// Reads a whole file into a buffer that is kept for the life of the process. The text stays valid until the
/// next call. A file that opens but cannot be read (a directory) gives an empty text; anything past 16 MiB is
/// left out. Returns nothing when the file cannot be opened. A relative path starts at `directory`, a
/// directory descriptor.
std::optional<std::string_view> read_file(const char* path, int directory = AT_FDCWD);

/// As read_file(), for files of /proc and /sys that the kernel generates whole or line by line. It does not
/// do for /proc/diskstats, which comes disk by disk with all partitions. Skips the final read that only
/// reports the end, and stops after the piece that holds `last_needed`, if that is given.
std::optional<std::string_view> read_kernel_file(const char* path, std::string_view last_needed = {},
                                                 int directory = AT_FDCWD);

/// Detects that a file has changed, by its inode number, size and times.
class file_watch final {
  public:
    /// True on the first call, when the file at this path differs from that of the previous call, and when
    /// there is no file.
    bool has_changed(const char* path);

  private:
    struct stat last_ {};
};

}  // namespace tarn
