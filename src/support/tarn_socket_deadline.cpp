#include "support/tarn_deadline.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
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

void set_timer(int seconds) {
    const itimerval timer{{0, 0}, {seconds, 0}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

socket_deadline::socket_deadline(int socket, int seconds) {
    guarded = socket;
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGALRM, &action, nullptr);
    set_timer(std::max(seconds, 1));
}

socket_deadline::~socket_deadline() {
    set_timer(0);
    guarded = -1;
}

}  // namespace tarn
