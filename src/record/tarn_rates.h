#pragma once

#include <concepts>
#include <cstdint>

#include "record/tarn_counter.h"
#include "record/tarn_records.h"

namespace tarn {

/// The scheme of nearly every kind that has rates: data_delta is a copy of data in which `compute(data, prev,
/// delta)` replaces the rates, and is ok when this sample and the one before it are. The first cycle only
/// keeps its sample. Returns 1.
template <typename Record, typename Compute>
int delta_scheme(tarn_mycustom_counter& counter, std::uint64_t iteration, Compute compute) {
    const auto& data = data_of<Record>(counter);
    auto& prev = data_prev_of<Record>(counter);
    auto& delta = data_delta_of<Record>(counter);
    delta = data;
    delta.ok = iteration != 0 && data.ok != 0 && prev.ok != 0 ? 1 : 0;
    if (delta.ok != 0) compute(data, prev, delta);
    prev = data;
    return 1;
}

/// The scheme of kinds without rates: every value is reported as it was read, from the first cycle on.
template <typename Record>
int delta_absolute(tarn_mycustom_counter& counter) {
    data_delta_of<Record>(counter) = data_of<Record>(counter);
    data_prev_of<Record>(counter) = data_of<Record>(counter);
    return 1;
}

/// Change per minute, truncated, in unsigned arithmetic of the total's own width: a total that went back
/// wraps.
template <std::unsigned_integral Total>
Total per_minute(Total now, Total before, std::uint32_t interval) {
    const auto change = static_cast<Total>(now - before);
    return static_cast<Total>(static_cast<Total>(change * 60) / interval);
}

/// Per-minute changes of a list of members.
template <typename Record, typename Total, std::size_t Members>
void rate_per_minute(Total Record::*const (&members)[Members], const Record& data, const Record& prev,
                     Record& delta, std::uint32_t interval) {
    for (const auto member : members)
        delta.*member = per_minute(data.*member, prev.*member, interval);
}

/// The scheme with nothing but per-minute changes of a list of members.
template <typename Record, typename Total, std::size_t Members>
int delta_per_minute(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration,
                     Total Record::*const (&members)[Members]) {
    return delta_scheme<Record>(counter, iteration,
                                [&](const Record& data, const Record& prev, Record& delta) {
                                    rate_per_minute(members, data, prev, delta, interval);
                                });
}

/// Increase per second of a total kept as double; 0 when it did not grow, as after a restart.
inline double increase_per_second(double now, double before, std::uint32_t interval) {
    return now > before ? (now - before) / interval : 0.0;
}

}  // namespace tarn
