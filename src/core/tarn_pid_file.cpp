// The pid file is read before it is removed: another agent may have written its own pid since.
#include "core/tarn_pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "support/tarn_files.h"
#include "support/tarn_process.h"
#include "support/tarn_text.h"

namespace {

constexpr const char* path = "/var/run/tarn.pid";
/// A symbolic link in place of the file is not followed, and a pipe does not block.
constexpr int safe_flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// The other running agent that the file named when this one started; 0 for none.
pid_t previous_agent = 0;

/// The process that the file names; 0 for none.
pid_t read_pid() {
    std::array<char, 32> text{};
    const tarn::unique_fd file(::open(path, O_RDONLY | safe_flags));
    const ssize_t length = file ? ::read(file.get(), text.data(), text.size()) : 0;
    return length > 0 ? tarn::to_number<pid_t>({text.data(), static_cast<std::size_t>(length)}) : 0;
}

void write_pid(pid_t pid) {
    const tarn::unique_fd file(
        ::open(path, O_WRONLY | O_CREAT | O_TRUNC | safe_flags, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
    if (file) ::dprintf(file.get(), "%u", static_cast<unsigned>(pid));
}

}  // namespace

void pid_create() {
    const pid_t named = read_pid();
    if (tarn::is_other_agent(named)) {
        std::printf("WARNING: another agent is running, pid %d\n", named);
        previous_agent = named;
    }
    write_pid(::getpid());
}

void pid_remove() {
    if (read_pid() != ::getpid()) return;
    if (tarn::is_other_agent(previous_agent)) {
        write_pid(previous_agent);
    } else {
        ::unlink(path);
    }
}
