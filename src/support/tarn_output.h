#pragma once

namespace tarn {

/// From now on a reader of standard output or standard error that stalls cannot stop this process: what a
/// full pipe, socket or terminal does not take is dropped. How many lines were dropped is printed once the
/// reader takes lines again. Both streams are written line by line.
void never_wait_for_readers();

}  // namespace tarn
