#pragma once

#include "record/tarn_counter.h"

/// Typed access to the three data blocks of a counter. `Record` is the kind's tarn_mycustom_data_<kind>.
namespace tarn {

template <typename Record>
Record& data_of(const tarn_mycustom_counter& counter) {
    return *static_cast<Record*>(counter.data);
}

template <typename Record>
Record& data_prev_of(const tarn_mycustom_counter& counter) {
    return *static_cast<Record*>(counter.data_prev);
}

template <typename Record>
Record& data_delta_of(const tarn_mycustom_counter& counter) {
    return *static_cast<Record*>(counter.data_delta);
}

/// Allocates the one block, zero-filled, of a kind whose values are all instantaneous. Without memory at the
/// start there is no agent: a failed allocation ends the process.
template <typename Record>
void allocate_data(tarn_mycustom_counter& counter) noexcept {
    counter.data = new Record{};
}

/// Allocates the three blocks, zero-filled; as allocate_data().
template <typename Record>
void allocate_records(tarn_mycustom_counter& counter) noexcept {
    counter.data = new Record{};
    counter.data_prev = new Record{};
    counter.data_delta = new Record{};
}

/// Releases each block that there is and clears its pointer.
template <typename Record>
void release_records(tarn_mycustom_counter& counter) {
    for (void** block : {&counter.data, &counter.data_prev, &counter.data_delta}) {
        delete static_cast<Record*>(*block);
        *block = nullptr;
    }
}

}  // namespace tarn
