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

/// Owners of what the system hands out, and the one way in which kernel files are read.
namespace tarn {

/// Owns one file descriptor and closes it; -1 stands for none.
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

/// Calls a C library's closing function on what it owns.
template <auto Close>
struct closer {
    template <typename Handle>
    void operator()(Handle* handle) const {
        Close(handle);
    }
};

/// Owns one stdio stream and closes it.
using unique_file = std::unique_ptr<std::FILE, closer<std::fclose>>;

/// Walks the names in a directory, in its own order, without allocating anything.
class directory_reader final {
  public:
    explicit directory_reader(const char* path);

    /// False when the directory could not be opened.
    explicit operator bool() const { return static_cast<bool>(directory_); }

    /// For calls that take names relative to the directory.
    [[nodiscard]] int fd() const { return directory_.get(); }

    /// The next name, "." and ".." left out, valid until the next call; null at the end.
    const char* next();

  private:
    unique_fd directory_;
    std::size_t at_ = 0;
    std::size_t filled_ = 0;
    alignas(dirent64) std::array<char, 4096> entries_{};
};

/// Reads a file to its end with one open, reads into one buffer kept for the life of the process, and one
/// close. The text stays valid until the next call. A file that opens but cannot be read (a directory) is
/// empty; what lies beyond 16 MiB is left out. Nothing is returned when the file cannot be opened.
/// A relative path starts at the directory of descriptor `directory`.
std::optional<std::string_view> read_file(const char* path, int directory = AT_FDCWD);

/// As read_file(), for the files of /proc and /sys: without the last read that only shows the end, and only
/// up to the piece that holds the text `enough`. The kernel makes up such a file anew for every read.
std::optional<std::string_view> read_kernel_file(const char* path, std::string_view enough = {},
                                                 int directory = AT_FDCWD);

/// Tells whether a file has changed, by what the system keeps about it.
class file_watch final {
  public:
    /// True for the first call, when the file at this path is not the same as at the call before, and when
    /// there is none.
    bool has_changed(const char* path);

  private:
    struct stat last_ {};
};

}  // namespace tarn
