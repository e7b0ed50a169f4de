#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "record/tarn_budget.h"
#include "record/tarn_counter.h"

/// The order in which the services are asked, so that a service which answers is not kept waiting by one
/// which does not. It is the configured order, less the services that did not answer in time when they were
/// asked last: they come at the end.
class sampling_order final {
  public:
    using duration = tarn::cycle_budget::duration;

    /// Begins a cycle in which the counters of these families will be asked, with so much time to wait.
    void begin(std::initializer_list<tarn_family> families, duration total);

    /// Services still to be asked that are expected to answer.
    [[nodiscard]] std::size_t expected() const { return in_place_ + count(pace::slow); }

    /// Samples a counter in its place, unless its place is at the end.
    void ask_in_place(tarn_mycustom_counter& counter);

    /// Samples the services that answer, but not within their share of the time.
    void ask_slow();

    /// Samples the services that did not answer. One of them in turn gets most of what is left.
    void ask_silent();

  private:
    enum class pace { slow, silent };

    /// A service whose place is at the end.
    struct latecomer {
        tarn_mycustom_counter* counter;
        pace is;
        unsigned long since;      ///< the cycle in which it was late in its place
        unsigned long was_first;  ///< the cycle in which it was the first of the silent ones
    };

    [[nodiscard]] std::size_t count(pace which) const;
    latecomer* find(const tarn_mycustom_counter& counter);
    void ask(tarn_mycustom_counter& counter, std::size_t others, duration slot);
    void judge(tarn_mycustom_counter& counter, duration took);
    void ask_latecomers(pace which, duration slot);

    std::vector<latecomer> late_;
    std::vector<tarn_mycustom_counter*> turn_;
    std::size_t in_place_ = 0;  ///< services still to be asked in their places
    duration share_{};          ///< what a service may take in its place
    unsigned long cycle_ = 0;
};
