// A child is held by a pidfd: poll() reports its end, and a signal cannot hit a reused process id.
#include "support/tarn_process.h"

#include <poll.h>
#include <sys/wait.h>

#include <string>

extern "C" {
// The header of glibc 2.36 does not declare C linkage for C++.
#include <sys/pidfd.h>
}

namespace tarn {

bool is_other_agent(pid_t pid) {
    if (pid <= 0 || pid == ::getpid()) return false;
    const std::string_view own = read_file("/proc/self/comm").value_or("");
    const std::string name(own.substr(0, own.find_first_of("-\n")));  // of "tarn-check", "tarn"
    const auto other = read_file(("/proc/" + std::to_string(pid) + "/comm").c_str());
    return other && !name.empty() && *other == name + "\n";
}

child_process::child_process(pid_t pid) : fd_(::pidfd_open(pid, 0)) {}

bool child_process::has_ended() const {
    return wait_end(0);
}

bool child_process::wait_end(int milliseconds) const {
    pollfd polled{fd_.get(), POLLIN, 0};
    return ::poll(&polled, 1, milliseconds) > 0;
}

void child_process::signal(int signum) const {
    ::pidfd_send_signal(fd_.get(), signum, nullptr, 0);
}

void child_process::reap() {
    siginfo_t status{};
    ::waitid(P_PIDFD, static_cast<id_t>(fd_.get()), &status, WEXITED | WNOHANG);
    fd_.reset();
}

}  // namespace tarn
