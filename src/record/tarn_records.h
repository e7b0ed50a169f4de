#pragma once

#include <string_view>

#include "record/tarn_counter.h"
#include "support/tarn_text.h"

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

/// Allocates the only block, zero-filled, of a kind whose values are all instantaneous, and sets the report
/// name. The agent does not start without memory: a failed allocation ends the process.
template <typename Record>
Record& allocate_data(tarn_mycustom_counter& counter, std::string_view report) noexcept {
    copy_terminated(counter.report, report);
    auto* const data = new Record{};
    counter.data = data;
    return *data;
}

/// As allocate_data(), for all three blocks.
template <typename Record>
Record& allocate_records(tarn_mycustom_counter& counter, std::string_view report) noexcept {
    counter.data_prev = new Record{};
    counter.data_delta = new Record{};
    return allocate_data<Record>(counter, report);
}

/// The operation `free` of a kind: releases each block that exists and clears its pointer.
template <typename Record>
int free_records(tarn_mycustom_counter& counter) {
    for (void** block : {&counter.data, &counter.data_prev, &counter.data_delta}) {
        delete static_cast<Record*>(*block);
        *block = nullptr;
    }
    return 1;
}

}  // namespace tarn
