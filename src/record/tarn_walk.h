#pragma once

#include <cstdio>
#include <exception>

#include "record/tarn_counter.h"
#include "record/tarn_trace.h"

namespace tarn {

/// Calls an operation of one counter. An exception (no memory for a reply) costs only that counter.
template <typename Call>
void call_guarded(tarn_mycustom_counter& counter, Call call) {
    try {
        call(counter);
    } catch (const std::exception& error) {
        std::printf("Counter %s %s: %s\n", counter.report, counter.id, error.what());
    }
}

/// Prints `text` in debug mode and makes the call for each counter of a family; re-reads the count each time.
template <typename Call>
void visit(const char* text, const tarn_family& family, Call call) {
    trace("%s", text);
    for (std::size_t at = 0; at < family.count; ++at)
        call_guarded(family.slots[at], call);
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
