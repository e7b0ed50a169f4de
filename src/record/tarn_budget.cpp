// An exchange may use all the time that later ones do not need, so that one silent peer cannot use it up.
#include "record/tarn_budget.h"

#include <algorithm>

#include "support/tarn_streams.h"

namespace tarn {

cycle_budget budget;

void cycle_budget::begin_cycle(duration total) {
    end_of_cycle_ = deadline(total);
    begin_exchange(0, {});
}

void cycle_budget::end_cycle() {
    end_of_cycle_ = end_of_exchange_ = deadline();
}

void cycle_budget::begin_exchange(std::size_t others, duration slot) {
    others_ = others;
    slot_ = slot;
    timed_out_ = skipped_ = false;
    restart_exchange();
}

void cycle_budget::restart_exchange() {
    end_of_exchange_ = end_of_cycle_;
    const duration left = end_of_cycle_.left();
    if (left == duration::max()) return;
    const auto count = static_cast<duration::rep>(others_);
    end_of_exchange_ = deadline(std::max(left - count * slot_, left / (count + 1)));
}

void cycle_budget::note_failure(int error) {
    if (is_timeout(error)) timed_out_ = true;
}

}  // namespace tarn
