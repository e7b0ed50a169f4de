#pragma once

namespace tarn {

/// Keeps a stalled reader of standard output or standard error from blocking this process: text that a full
/// pipe, socket or terminal does not accept is dropped. The number of dropped lines is printed once the
/// reader accepts lines again. Both streams become line-buffered.
void never_wait_for_readers();

}  // namespace tarn
