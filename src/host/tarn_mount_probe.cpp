// The helper process receives a path on a socket and sends back the result of statvfs().
#include "host/tarn_mount_probe.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <utility>

#include "support/tarn_files.h"

namespace tarn {
namespace {

/// The helper process and the socket to it.
struct helper_process {
    child_process process;
    unique_fd socket;
};

helper_process helper;

struct answer {
    int is_good;
    struct statvfs statistics;
};

/// Runs the helper. It ends with its parent, and keeps no descriptor but the standard streams and the socket.
[[noreturn]] void serve(int socket) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int signum : {SIGTERM, SIGABRT, SIGINT})
        std::signal(signum, SIG_DFL);
    if (socket != STDERR_FILENO + 1) ::dup2(socket, STDERR_FILENO + 1);
    ::close_range(STDERR_FILENO + 2, ~0U, 0);
    std::array<char, 4096> path{};
    while (::recv(STDERR_FILENO + 1, path.data(), path.size() - 1, 0) > 0) {
        answer reply{};
        reply.is_good = ::statvfs(path.data(), &reply.statistics) == 0 ? 1 : 0;
        if (::send(STDERR_FILENO + 1, &reply, sizeof reply, MSG_NOSIGNAL) < 0) break;
        path.fill('\0');
    }
    ::_exit(0);
}

bool start_helper() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    unique_fd parent_end(ends[0]);
    const unique_fd child_end(ends[1]);
    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) serve(child_end.get());
    helper = {child_process(pid), std::move(parent_end)};
    return true;
}

/// Starts a helper unless one is running; false when that fails.
bool ensure_helper() {
    if (helper.socket && helper.process && !helper.process.has_ended()) return true;
    if (helper.process) helper.process.reap();
    return start_helper();
}

}  // namespace

bool mount_probe::measure(const char* path, struct statvfs& statistics, deadline end) {
    if (stuck_ && !stuck_.has_ended()) return false;
    if (stuck_) stuck_.reap();
    if (end.has_passed() || !ensure_helper()) return false;
    answer reply{};
    pollfd polled{helper.socket.get(), POLLIN, 0};
    const bool is_answered = ::send(helper.socket.get(), path, std::strlen(path) + 1, MSG_NOSIGNAL) > 0 &&
                             ::poll(&polled, 1, end.left_ms()) > 0 &&
                             ::recv(helper.socket.get(), &reply, sizeof reply, 0) == sizeof reply;
    if (!is_answered) {
        helper.process.signal(SIGKILL);
        stuck_ = std::move(helper.process);
        helper = {};
        return false;
    }
    statistics = reply.statistics;
    return reply.is_good != 0;
}

}  // namespace tarn
