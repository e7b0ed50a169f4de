#pragma once

#include "support/tarn_deadline.h"

namespace tarn {

/// Bounds one library call that might block without a limit. When the time is over, the socket is shut down
/// repeatedly, so that the library sees its connection end. A call that took too long is reported to the
/// budget of the cycle. Only one object may exist at a time.
class socket_deadline final {
  public:
    using duration = deadline::clock::duration;

    /// A call that lasts for `timeout` counts as timed out; it is ended after `limit`. The descriptor may be
    /// one that the library has yet to open.
    socket_deadline(int socket, duration timeout, duration limit);
    ~socket_deadline();
    socket_deadline(const socket_deadline&) = delete;
    socket_deadline& operator=(const socket_deadline&) = delete;

  private:
    duration timeout_;
    deadline::clock::time_point start_ = deadline::clock::now();
};

/// Ends the current bounded call, if any, so that a stop does not wait for it. May be called from a signal
/// handler.
void shut_guarded_socket();

/// The descriptor that the next socket of this process will have: the lowest free one.
int next_descriptor();

}  // namespace tarn
