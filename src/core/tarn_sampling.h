#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "record/tarn_budget.h"
#include "record/tarn_counter.h"

/// The order in which the services are asked: the configured order, except that services which did not answer
/// in time when last asked come at the end, so that no other service waits for them.
class sampling_order final {
  public:
    using duration = tarn::cycle_budget::duration;

    /// Begins a cycle that asks the counters of these families and may wait `total` altogether.
    void begin(std::initializer_list<tarn_family> families, duration total);

    /// The number of services still to be asked that are expected to answer.
    [[nodiscard]] std::size_t expected() const { return in_place_ + count(status::slow); }

    /// Samples a counter in its configured place, unless it has been moved to the end.
    void ask_in_place(tarn_mycustom_counter& counter);

    /// Samples the services that answer, but not within their share of the time.
    void ask_slow();

    /// Samples the services that did not answer. In each cycle another of them gets most of the time left.
    void ask_silent();

  private:
    enum class status { slow, silent };

    /// A service that has been moved to the end.
    struct delayed_service {
        tarn_mycustom_counter* counter;
        status current;
        unsigned long since;       ///< cycle in which it was moved to the end
        unsigned long last_first;  ///< last cycle in which it was the first of the silent ones
    };

    [[nodiscard]] std::size_t count(status which) const;
    delayed_service* find(const tarn_mycustom_counter& counter);
    void ask(tarn_mycustom_counter& counter, std::size_t others, duration slot);
    void update_status(tarn_mycustom_counter& counter, duration took);
    void ask_delayed(status which, duration slot);

    std::vector<delayed_service> delayed_;
    std::vector<tarn_mycustom_counter*> queue_;
    std::size_t in_place_ = 0;  ///< services still to be asked in their configured places
    duration share_{};          ///< time that a service may take in its configured place
    unsigned long cycle_ = 0;
};
