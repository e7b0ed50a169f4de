// Both streams of the C library are replaced by ones that poll before each write and drop what would block.
#include "support/tarn_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace tarn {
namespace {

/// A pipe that polls as writable accepts at least this many bytes (PIPE_BUF) without blocking.
constexpr std::size_t piece_size = 4096;

/// Standard output or standard error.
struct output {
    int fd;
    std::size_t dropped = 0;  ///< lines dropped since the last one that was written
    bool is_cut = false;      ///< the end of the last dropped line has not come yet
};

output outputs[] = {{STDOUT_FILENO}, {STDERR_FILENO}};

/// Writes as much as possible without blocking and returns the rest.
std::string_view write_now(int fd, std::string_view text) {
    while (!text.empty()) {
        pollfd polled{fd, POLLOUT, 0};
        if (::poll(&polled, 1, 0) <= 0) break;
        const ssize_t written = ::write(fd, text.data(), std::min(text.size(), piece_size));
        // Without a reader the text counts as written.
        if (written <= 0) return {};
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return text;
}

void drop(output& to, std::string_view text) {
    to.dropped += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    to.is_cut = !text.ends_with('\n');
}

/// Drops the rest of a line whose beginning was dropped.
std::string_view without_cut_line(output& to, std::string_view text) {
    if (!to.is_cut) return text;
    const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    drop(to, text.substr(0, end));
    return text.substr(end);
}

bool report_dropped(output& to) {
    if (to.dropped == 0) return true;
    char line[96];
    const int length = std::snprintf(
        line, sizeof line, "(%zu lines are missing here: they were not read in time)\n", to.dropped);
    if (!write_now(to.fd, {line, static_cast<std::size_t>(length)}).empty()) return false;
    to.dropped = 0;
    return true;
}

ssize_t write_or_drop(void* cookie, const char* text, std::size_t size) {
    auto& to = *static_cast<output*>(cookie);
    std::string_view rest = without_cut_line(to, {text, size});
    if (!rest.empty() && report_dropped(to)) rest = write_now(to.fd, rest);
    if (!rest.empty()) drop(to, rest);
    return static_cast<ssize_t>(size);
}

void replace(std::FILE*& stream, output& to) {
    std::fflush(stream);
    std::FILE* const guarded = ::fopencookie(&to, "w", {nullptr, write_or_drop, nullptr, nullptr});
    if (guarded == nullptr) return;
    std::setvbuf(guarded, nullptr, _IOLBF, 0);
    stream = guarded;
}

}  // namespace

void never_wait_for_readers() {
    replace(stdout, outputs[0]);
    replace(stderr, outputs[1]);
}

}  // namespace tarn
