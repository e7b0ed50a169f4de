#pragma once

#include <sys/types.h>

#include <csignal>

#include "support/tarn_files.h"

/// Processes of this program, told from strangers that got their numbers.
namespace tarn {

/// True when `pid` is another process that runs the same program as this one, by its name in
/// /proc/PID/comm.
bool is_other_agent(pid_t pid);

/// Holds on to one child process by a descriptor: its number may belong to a stranger once it has ended.
class child_process final {
  public:
    child_process() = default;
    explicit child_process(pid_t pid);

    /// True for a process that was started and has not been given up.
    explicit operator bool() const { return static_cast<bool>(fd_); }

    /// True when the process has ended. Nothing is reaped.
    [[nodiscard]] bool has_ended() const;

    /// Waits for its end, at most so many milliseconds; true when it has ended.
    [[nodiscard]] bool wait_end(int milliseconds) const;

    void signal(int signum) const;

    /// Takes the status of a process that has ended, so that no zombie stays.
    void reap();

  private:
    unique_fd fd_;
};

}  // namespace tarn
