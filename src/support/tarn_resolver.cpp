// The child calls gethostbyname() and writes the address into a pipe; the parent polls it until the deadline.
#include "support/tarn_resolver.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <array>
#include <csignal>

#include "support/tarn_process.h"
#include "support/tarn_streams.h"

namespace tarn {
namespace {

/// Runs in the child: writes the 4 bytes of the address, or nothing when there is none.
[[noreturn]] void resolve(const char* name, const unique_fd& into) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGTERM, SIG_DFL);
    const hostent* const host = ::gethostbyname(name);
    if (host != nullptr && host->h_addrtype == AF_INET && host->h_addr_list[0] != nullptr) {
        const ssize_t written = ::write(into.get(), host->h_addr_list[0], sizeof(in_addr));
        ::_exit(written < 0 ? 1 : 0);
    }
    ::_exit(1);
}

host_lookup read_address(const unique_fd& from, deadline end) {
    pollfd polled{from.get(), POLLIN, 0};
    if (::poll(&polled, 1, end.left_ms()) <= 0) return {std::nullopt, true};
    in_addr address{};
    if (::read(from.get(), &address, sizeof address) != sizeof address) return {};
    return {address, false};
}

}  // namespace

host_lookup look_up_host(const char* name, deadline end) {
    if (const auto address = parse_ipv4(name)) return {address, false};
    if (end.has_passed()) return {std::nullopt, true};
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    const unique_fd from(ends[0]);
    unique_fd into(ends[1]);
    const pid_t pid = ::fork();
    if (pid < 0) return {};
    if (pid == 0) resolve(name, into);
    into.reset();
    child_process child(pid);
    const host_lookup found = read_address(from, end);
    if (found.is_late) child.signal(SIGKILL);
    child.reap();
    return found;
}

}  // namespace tarn
