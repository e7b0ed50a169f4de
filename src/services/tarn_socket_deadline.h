#pragma once

#include "record/tarn_budget.h"
#include "support/tarn_files.h"

namespace tarn {

/// Bounds one call of a library that may wait without a limit: once the time is over, the socket is shut down
/// again and again, and the library sees its connection end. The budget of the cycle is told of a call that
/// took too long. One at a time.
class socket_deadline final {
  public:
    using duration = deadline::clock::duration;

    /// `timeout` is the time after which the library itself gives up waiting for a byte; the whole call may
    /// take `limit`. The descriptor may be one that the library is yet to open.
    socket_deadline(int socket, duration timeout, duration limit);
    ~socket_deadline();
    socket_deadline(const socket_deadline&) = delete;
    socket_deadline& operator=(const socket_deadline&) = delete;

  private:
    duration timeout_;
    deadline::clock::time_point start_ = deadline::clock::now();
};

/// Ends the call that is bounded now, if there is one. A stop signal does not wait for it; a handler may call
/// this.
void shut_guarded_socket();

/// The descriptor that the next socket of this process will get: the lowest free one.
int next_descriptor();

}  // namespace tarn
