// Runs one script. A relay process switches to the script's user, starts the shell and copies its output into
// a pipe, so that a script that hangs can be abandoned.
#include "customs/tarn_custom_exec.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "support/tarn_deadline.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

constexpr std::size_t output_limit = 1024;

/// How reading a script's output ended.
enum class read_result { end_of_output, buffer_full, timed_out };

struct script_output {
    std::array<char, output_limit> text{};
    std::size_t length = 0;
};

struct pipe_ends {
    tarn::unique_fd read;
    tarn::unique_fd write;
};

/// Ends the script process on failure: no script can run without a pipe.
pipe_ends make_pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::printf("EROROR! Cannot pipe\n");
        std::exit(EXIT_FAILURE);
    }
    return {tarn::unique_fd(ends[0]), tarn::unique_fd(ends[1])};
}

/// Switches to a user for good: sets the real, effective and saved id, so that no program can switch back,
/// and drops root's supplementary groups. The user need not be in the user table. -1 is refused: to the
/// kernel it means "leave the id unchanged".
bool become_user(int uid) {
    const auto user = static_cast<uid_t>(uid);
    const bool has_groups = ::setgroups(0, nullptr) != 0 && ::getgroups(0, nullptr) != 0;
    return user != static_cast<uid_t>(-1) && !has_groups && ::setresuid(user, user, user) == 0;
}

/// True for a descriptor that writes to a regular file or a terminal.
bool is_file_or_terminal(int fd) {
    struct stat status {};
    return ::isatty(fd) == 1 || (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode));
}

/// Leaves the script only the three standard streams, with input from /dev/null, and default signal actions.
/// Its standard error must not fill the disk that holds the agent's messages, nor reach a terminal.
void clean_inheritance() {
    for (int signum = 1; signum < NSIG; ++signum)
        std::signal(signum, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const tarn::unique_fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null) ::dup2(null.get(), STDIN_FILENO);
    if (null && is_file_or_terminal(STDERR_FILENO)) ::dup2(null.get(), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
}

/// Detaches from the terminal that the agent may have been started from: a script must not be able to insert
/// input there.
void detach_terminal() {
    const tarn::unique_fd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (terminal) ::ioctl(terminal.get(), TIOCNOTTY);
}

/// Runs the relay process.
[[noreturn]] void relay(const char* exec, int uid, const tarn::unique_fd& output) {
    clean_inheritance();
    detach_terminal();
    if (!become_user(uid)) {
        std::printf("EROROR! Cannot setuid\n");
        std::fflush(stdout);
        ::_exit(255);
    }
    std::FILE* const script = ::popen(exec, "re");  // NOLINT(cert-env33-c): the shell is intended
    if (script == nullptr) {
        std::printf("EROROR! Cannot open pipe with result of execution shell command: %s\n", exec);
        std::fflush(stdout);
        ::_exit(127);
    }
    std::array<char, 256> chunk{};
    ssize_t got = 0;
    while ((got = ::read(::fileno(script), chunk.data(), chunk.size())) > 0) {
        if (::write(output.get(), chunk.data(), static_cast<std::size_t>(got)) < 0) break;
    }
    ::pclose(script);
    ::_exit(0);
}

/// Waits for output; false when there is none by the deadline.
bool wait_for_output(const tarn::unique_fd& input, tarn::deadline end) {
    pollfd polled{input.get(), POLLIN, 0};
    return ::poll(&polled, 1, end.left_ms()) > 0;
}

/// Reads the output until it ends or exceeds the buffer. One deadline covers all waits.
read_result read_output(const tarn::unique_fd& input, int max_seconds, script_output& output) {
    const tarn::deadline end{std::chrono::seconds(max_seconds)};
    while (wait_for_output(input, end)) {
        if (output.length == output.text.size()) return read_result::buffer_full;
        const ssize_t got =
            ::read(input.get(), output.text.data() + output.length, output.text.size() - output.length);
        if (got <= 0) return read_result::end_of_output;
        output.length += static_cast<std::size_t>(got);
    }
    return read_result::timed_out;
}

/// True when the output can be parsed; prints why it cannot.
bool is_usable(read_result result, const script_output& output, int max_seconds, int counter_type) {
    if (result == read_result::timed_out) {
        std::printf("EROROR! Custom script running too long (%d sec), killed\n", max_seconds);
        return false;
    }
    if (output.length > 0 || counter_type == custom_type_status) return true;
    std::printf("EROROR! Custom script has returned an empty string, killed\n");
    return false;
}

/// Ends the relay process and reaps it; false when it could not start the script, which it has then reported.
/// A relay that has closed its pipe is exiting by itself. The script is not signalled and may run on.
bool end_relay(pid_t relay_pid, read_result result) {
    if (result != read_result::end_of_output) ::kill(relay_pid, SIGKILL);
    int status = 0;
    while (::waitpid(relay_pid, &status, 0) < 0 && errno == EINTR) {
    }
    return !WIFEXITED(status) || WEXITSTATUS(status) == 0;
}

/// The line as a number; 0 when it is not one.
double number_of(std::string_view line) {
    std::array<char, output_limit + 1> terminated{};
    std::copy(line.begin(), line.end(), terminated.begin());
    return std::strtod(terminated.data(), nullptr);
}

}  // namespace

void custom_parse_output(std::string_view output, int counter_type, tarn_mycustom_data_custom& data) {
    data.value = 0.0;
    data.agent_alerts_count = 0;
    std::string_view rest = output.substr(0, std::min(output.find('\0'), output_limit));
    if (counter_type != custom_type_status) data.value = number_of(tarn::next_token(rest, "\n"));
    while (data.agent_alerts_count < custom_max_alerts) {
        const std::string_view line = tarn::next_token(rest, "\n");
        if (line.empty()) return;
        tarn::copy_terminated(data.agent_alerts[data.agent_alerts_count++].text, line);
    }
}

double call_exec(const char* exec, int uid, int /*gid*/, int max_seconds, int counter_type, int& err,
                 tarn_mycustom_data_custom& data) {
    err = 1;
    pipe_ends ends = make_pipe();
    std::fflush(nullptr);
    const pid_t relay_pid = ::fork();
    if (relay_pid < 0) {
        std::printf("EROROR! Cannot fork while trying to execute %s", exec);
        return 0.0;
    }
    if (relay_pid == 0) relay(exec, uid, ends.write);

    ends.write.reset();
    data.agent_alerts_count = 0;
    data.value = 0.0;
    siginfo_t state{};
    // The status is left for end_relay(), so that the pid stays reserved.
    if (::waitid(P_PID, static_cast<id_t>(relay_pid), &state, WEXITED | WNOHANG | WNOWAIT) < 0) {
        std::printf("EROROR! waitpid %d\n", errno);
        end_relay(relay_pid, read_result::end_of_output);
        return 0.0;
    }
    script_output output;
    const read_result result = read_output(ends.read, max_seconds, output);
    const bool usable = is_usable(result, output, max_seconds, counter_type);
    if (!end_relay(relay_pid, result) || !usable) return 0.0;
    err = 0;
    custom_parse_output({output.text.data(), output.length}, counter_type, data);
    return data.value;
}
