#pragma once

#include <sys/resource.h>

#include "support/tarn_deadline.h"

namespace tarn {

/// Bounds one library call that might block without a limit, or keep whatever its server sends. When the time
/// is over, or the call has used one second of CPU time, the socket is shut down repeatedly, so that the
/// library sees its connection end. Such a call is reported to the budget of the cycle. A call that would add
/// more than 16 MiB to the process runs out of memory. Only one object may exist at a time.
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
    rlimit memory_limit_{};  ///< that of the process, restored after the call
};

/// Ends the current bounded call, if any, so that a stop does not wait for it. May be called from a signal
/// handler.
void shut_guarded_socket();

/// True when the socket of the current bounded call has been shut down.
bool has_guarded_call_expired();

/// The descriptor that the next socket of this process will have: the lowest free one.
int next_descriptor();

}  // namespace tarn
