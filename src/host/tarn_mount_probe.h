#pragma once

#include <sys/statvfs.h>

#include "support/tarn_deadline.h"
#include "support/tarn_files.h"
#include "support/tarn_process.h"

namespace tarn {

/// A filesystem that another process serves (FUSE), and may stop serving: whoever asks for its statistics
/// then waits for ever, out of reach of any signal. A child asks in place of the agent. It is kept from cycle
/// to cycle and asks for one filesystem after another; one that is stuck is killed and left to its
/// filesystem, which is not asked again before the child has ended.
class mount_probe final {
  public:
    /// Asks for the statistics of a mount point; false when there were none in time.
    bool measure(const char* path, struct statvfs& statistics, deadline end);

  private:
    child_process stuck_;
};

}  // namespace tarn
