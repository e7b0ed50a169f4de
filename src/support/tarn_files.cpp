#include "support/tarn_files.h"

#include <cerrno>
#include <new>
#include <vector>

namespace tarn {
namespace {

constexpr std::size_t first_size = std::size_t{16} << 10U;
constexpr std::size_t largest_size = std::size_t{16} << 20U;

/// Doubles a full buffer; false when it may not or cannot grow.
bool grow(std::vector<char>& buffer) {
    if (buffer.size() >= largest_size) return false;
    try {
        buffer.resize(buffer.empty() ? first_size : buffer.size() * 2);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
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
    static std::vector<char> buffer;

    const unique_fd file(::openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (!file) return std::nullopt;

    std::size_t length = 0;
    while (length < buffer.size() || grow(buffer)) {
        const ssize_t got = ::read(file.get(), buffer.data() + length, buffer.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        length += static_cast<std::size_t>(got);
    }
    return std::string_view(buffer.data(), length);
}

}  // namespace tarn
