// One timer of the process, whose signal shuts the guarded socket down.
#include "support/tarn_socket_deadline.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>

namespace tarn {
namespace {

volatile std::sig_atomic_t guarded = -1;

void on_alarm(int /*signum*/) {
    const int error = errno;
    ::shutdown(guarded, SHUT_RDWR);
    errno = error;
}

void set_timer(std::chrono::seconds after) {
    const itimerval timer{{0, 0}, {after.count(), 0}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

socket_deadline::socket_deadline(int socket, std::chrono::seconds limit) {
    guarded = socket;
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGALRM, &action, nullptr);
    set_timer(limit);
}

socket_deadline::~socket_deadline() {
    set_timer(std::chrono::seconds::zero());
    guarded = -1;
}

}  // namespace tarn
