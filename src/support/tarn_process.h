#pragma once

#include <sys/types.h>

#include "support/tarn_files.h"

/// Processes of this program, as distinct from unrelated ones that have been given the same process id.
namespace tarn {

/// True when `pid` is another process that runs the agent, judged by /proc/PID/comm and the name of this
/// process, which is the agent's or begins with it and "-".
bool is_other_agent(pid_t pid);

/// One child process, held by a descriptor: its process id may be reused once it has ended.
class child_process final {
  public:
    child_process() = default;
    explicit child_process(pid_t pid);

    /// True while a process is held.
    explicit operator bool() const { return static_cast<bool>(fd_); }

    /// True when the process has ended. Does not reap it.
    [[nodiscard]] bool has_ended() const;

    /// Waits at most `milliseconds` for the process to end; true when it has ended.
    [[nodiscard]] bool wait_end(int milliseconds) const;

    void signal(int signum) const;

    /// Reaps a process that has ended, so that no zombie is left, and releases it.
    void reap();

  private:
    unique_fd fd_;
};

}  // namespace tarn
