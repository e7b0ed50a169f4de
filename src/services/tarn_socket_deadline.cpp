// Uses the interval timer of the process; the handler of its signal shuts the guarded socket down.
#include "services/tarn_socket_deadline.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "record/tarn_budget.h"
#include "support/tarn_files.h"

namespace tarn {
namespace {

/// The shutdown is repeated, because the library may open another socket after the first.
constexpr auto repeat = std::chrono::milliseconds(20);

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

void set_timer(std::chrono::microseconds first, std::chrono::microseconds then) {
    const itimerval timer{timeval_of(then), timeval_of(first)};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
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
    ::sigaction(SIGALRM, &action, nullptr);
    set_timer(std::max(left, microseconds(1000)), repeat);
}

socket_deadline::~socket_deadline() {
    guarded = -1;
    set_timer({}, {});
    if (has_expired != 0 || deadline::clock::now() - start_ >= timeout_) budget.note_timeout();
}

int next_descriptor() {
    return unique_fd(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
}

void shut_guarded_socket() {
    if (guarded < 0) return;
    shut_down();
    set_timer(repeat, repeat);
}

}  // namespace tarn
