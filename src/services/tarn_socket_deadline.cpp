// Uses the interval timers of the process, of real time and of CPU time; the handler of their signals shuts
// the guarded socket down.
#include "services/tarn_socket_deadline.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "record/tarn_budget.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace tarn {
namespace {

/// The shutdown is repeated, because the library may open another socket after the first.
constexpr auto repeat = std::chrono::milliseconds(20);

/// Only a server that floods the library makes it work for so long.
constexpr auto cpu_limit = std::chrono::seconds(1);
/// The answers that the agent asks for are a few kilobytes. AddressSanitizer ends a process that has no
/// memory for its own use.
#ifdef __SANITIZE_ADDRESS__
constexpr rlim_t max_growth = rlim_t{1} << 40U;
#else
constexpr rlim_t max_growth = rlim_t{16} << 20U;
#endif
/// Freed memory beyond this goes back to the system. By default the allocator keeps twice as much as the
/// largest block that was ever freed.
constexpr int max_free = 128 << 10U;

volatile std::sig_atomic_t guarded = -1;
volatile std::sig_atomic_t has_expired = 0;

void shut_down() {
    const int error = errno;
    ::shutdown(guarded, SHUT_RDWR);
    errno = error;
}

void on_alarm(int /*signum*/) {
    has_expired = 1;
    shut_down();
}

timeval timeval_of(std::chrono::microseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {seconds.count(), (time - seconds).count()};
}

void set_timer(decltype(ITIMER_REAL) which, std::chrono::microseconds first, std::chrono::microseconds then) {
    const itimerval timer{timeval_of(then), timeval_of(first)};
    ::setitimer(which, &timer, nullptr);
}

/// Memory that the limit of the process counts, bytes: the sixth number of statm, in pages. 0 when it cannot
/// be read.
rlim_t data_size() {
    std::array<char, 128> text;
    const unique_fd file(::open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    const ssize_t length = file ? ::read(file.get(), text.data(), text.size()) : 0;
    scanner fields({text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))});
    rlim_t pages = 0;
    if (fields.skip(5)) fields.number(pages);
    return pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

/// Limits the growth of the process; returns the limit that it had.
rlimit limit_memory() {
    [[maybe_unused]] static const int is_set = ::mallopt(M_TRIM_THRESHOLD, max_free);
    rlimit before{};
    ::getrlimit(RLIMIT_DATA, &before);
    const rlim_t size = data_size();
    const rlimit limit{std::min(before.rlim_cur, size + max_growth), before.rlim_max};
    if (size != 0) ::setrlimit(RLIMIT_DATA, &limit);
    return before;
}

}  // namespace

socket_deadline::socket_deadline(int socket, duration timeout, duration limit) : timeout_(timeout) {
    using std::chrono::microseconds;
    const auto left = std::chrono::duration_cast<microseconds>(budget.end_within(limit).left());
    guarded = socket;
    has_expired = 0;
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    for (const int signum : {SIGALRM, SIGPROF})
        ::sigaction(signum, &action, nullptr);
    memory_limit_ = limit_memory();
    set_timer(ITIMER_PROF, cpu_limit, repeat);
    set_timer(ITIMER_REAL, std::max(left, microseconds(1000)), repeat);
}

socket_deadline::~socket_deadline() {
    guarded = -1;
    set_timer(ITIMER_REAL, {}, {});
    set_timer(ITIMER_PROF, {}, {});
    ::setrlimit(RLIMIT_DATA, &memory_limit_);
    if (has_expired != 0 || deadline::clock::now() - start_ >= timeout_) budget.note_timeout();
}

int next_descriptor() {
    return unique_fd(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
}

bool has_guarded_call_expired() {
    return has_expired != 0;
}

void shut_guarded_socket() {
    if (guarded < 0) return;
    shut_down();
    set_timer(ITIMER_REAL, repeat, repeat);
}

}  // namespace tarn
