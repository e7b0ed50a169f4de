#pragma once

#include "record/tarn_counter.h"
#include "record/tarn_trace.h"

namespace tarn {

/// Announces a family in debug mode and calls one of its counters after the other. The count is read anew
/// each time.
template <typename Call>
void visit(const char* text, const tarn_family& family, Call call) {
    trace("%s", text);
    for (std::size_t at = 0; at < family.count; ++at)
        call(family.slots[at]);
}

/// Calls one operation of a counter, if the counter has it.
template <auto Operation>
constexpr auto call = [](tarn_mycustom_counter& counter) {
    if (counter.*Operation != nullptr) (counter.*Operation)(counter);
};

/// Calls a counter's delta with the configured interval, if the counter has one.
struct call_delta {
    std::uint32_t interval;
    std::uint64_t iteration;
    void operator()(tarn_mycustom_counter& counter) const {
        if (counter.delta != nullptr) counter.delta(counter, interval, iteration);
    }
};

}  // namespace tarn
