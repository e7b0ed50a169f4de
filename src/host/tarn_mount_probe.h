#pragma once

#include <sys/statvfs.h>

#include "support/tarn_deadline.h"
#include "support/tarn_process.h"

namespace tarn {

/// Measures a filesystem that another process serves (FUSE). If that process hangs, statvfs() blocks for ever
/// and no signal interrupts it. A helper process therefore calls it, one after another for all filesystems. A
/// helper that does not answer is killed and replaced; its filesystem is skipped until that helper has ended.
class mount_probe final {
  public:
    /// Reads the statistics of a mount point; false when that fails or is not done by `end`.
    bool measure(const char* path, struct statvfs& statistics, deadline end);

  private:
    child_process stuck_;
};

}  // namespace tarn
