// Files are read into a buffer that grows and is never released, so that a cycle allocates nothing for them.
#include "support/tarn_files.h"

#include <cerrno>
#include <new>
#include <vector>

namespace tarn {
namespace {

constexpr std::size_t initial_size = std::size_t{16} << 10U;
constexpr std::size_t max_size = std::size_t{16} << 20U;
/// The kernel returns a file of lines in pieces of at most a page.
constexpr std::size_t page = 4096;

/// Doubles a full buffer; false at the size limit or without memory.
bool grow(std::vector<char>& buffer) {
    if (buffer.size() >= max_size) return false;
    try {
        buffer.resize(buffer.empty() ? initial_size : buffer.size() * 2);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

/// Reads piece by piece until the file ends or `is_last(text, got)` is true; `got` is the last piece's size.
/// There is always room for a page, so that a small piece is the kernel's choice.
template <typename IsLast>
std::optional<std::string_view> read_pieces(const char* path, int directory, IsLast is_last) {
    static std::vector<char> buffer;
    const unique_fd file(::openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (!file) return std::nullopt;

    std::size_t length = 0;
    while (buffer.size() - length >= page || grow(buffer)) {
        const ssize_t got = ::read(file.get(), buffer.data() + length, buffer.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        length += static_cast<std::size_t>(got);
        if (is_last(std::string_view(buffer.data(), length), static_cast<std::size_t>(got))) break;
    }
    return std::string_view(buffer.data(), length);
}

}  // namespace

directory_reader::directory_reader(const char* path)
    : directory_(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

const char* directory_reader::next() {
    for (;;) {
        if (at_ >= filled_) {
            const ssize_t got = ::getdents64(fd(), entries_.data(), entries_.size());
            if (got <= 0) return nullptr;
            filled_ = static_cast<std::size_t>(got);
            at_ = 0;
        }
        const auto* const entry = reinterpret_cast<const dirent64*>(entries_.data() + at_);
        at_ += entry->d_reclen;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") return entry->d_name;
    }
}

std::optional<std::string_view> read_file(const char* path, int directory) {
    return read_pieces(path, directory, [](std::string_view /*text*/, std::size_t got) { return got == 0; });
}

std::optional<std::string_view> read_kernel_file(const char* path, std::string_view last_needed,
                                                 int directory) {
    // The kernel ends a piece only where the next line does not fit. A piece with room for another line is
    // the last one.
    constexpr std::size_t longest_line = 512;
    return read_pieces(path, directory, [last_needed](std::string_view text, std::size_t got) {
        if (got < page - longest_line) return true;
        return !last_needed.empty() && text.find(last_needed) != std::string_view::npos;
    });
}

bool file_watch::has_changed(const char* path) {
    struct stat now {};
    if (::stat(path, &now) != 0) now = {};
    const auto same_time = [](const timespec& one, const timespec& other) {
        return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
    };
    const bool is_same = now.st_ino != 0 && now.st_ino == last_.st_ino && now.st_dev == last_.st_dev &&
                         now.st_size == last_.st_size && same_time(now.st_mtim, last_.st_mtim) &&
                         same_time(now.st_ctim, last_.st_ctim);
    last_ = now;
    return !is_same;
}

}  // namespace tarn
