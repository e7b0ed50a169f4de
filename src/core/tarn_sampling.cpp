#include "core/tarn_sampling.h"

#include <algorithm>
#include <chrono>

#include "record/tarn_clock.h"
#include "record/tarn_walk.h"

namespace {

using std::chrono::milliseconds;

using tarn::slot_of_living;

/// Kept for each service that did not answer: enough to see that it is back.
constexpr auto slot_of_silent = milliseconds(10);

}  // namespace

void sampling_order::begin(std::initializer_list<tarn_family> families, duration total) {
    ++cycle_;
    std::size_t services = 0;
    for (const tarn_family& family : families)
        services += family.count;
    in_place_ = services - std::min(late_.size(), services);
    const auto others = static_cast<duration::rep>(std::max<std::size_t>(services, 1) - 1);
    share_ = std::max<duration>(total - others * slot_of_living, total / (others + 1));
}

std::size_t sampling_order::count(pace which) const {
    const auto is_one = [which](const latecomer& one) { return one.is == which; };
    return static_cast<std::size_t>(std::count_if(late_.begin(), late_.end(), is_one));
}

sampling_order::latecomer* sampling_order::find(const tarn_mycustom_counter& counter) {
    const auto is_it = [&counter](const latecomer& one) { return one.counter == &counter; };
    const auto found = std::find_if(late_.begin(), late_.end(), is_it);
    return found != late_.end() ? &*found : nullptr;
}

void sampling_order::ask_in_place(tarn_mycustom_counter& counter) {
    if (find(counter) != nullptr) return;
    if (in_place_ > 0) --in_place_;
    ask(counter, expected(), slot_of_living);
}

void sampling_order::ask(tarn_mycustom_counter& counter, std::size_t others, duration slot) {
    if (stop != 0 || counter.update == nullptr) return;
    tarn::budget.begin_exchange(others, slot);
    const bool had_time = tarn::budget.has_time();
    const auto start = tarn::deadline::clock::now();
    tarn::call_guarded(counter, tarn::call<&tarn_mycustom_counter::update>);
    // A service for which no time was left, or whose container could not be found, has not been asked.
    if (had_time && !tarn::budget.was_skipped() && stop == 0)
        judge(counter, tarn::deadline::clock::now() - start);
}

void sampling_order::judge(tarn_mycustom_counter& counter, duration took) {
    latecomer* const known = find(counter);
    if (tarn::budget.timed_out()) {
        if (known == nullptr) late_.push_back({&counter, pace::silent, cycle_, cycle_});
        if (known != nullptr) known->is = pace::silent;
    } else if (known != nullptr && took > share_) {
        known->is = pace::slow;
    } else if (known != nullptr) {
        late_.erase(late_.begin() + (known - late_.data()));
    }
}

void sampling_order::ask_slow() {
    ask_latecomers(pace::slow, slot_of_living);
}

void sampling_order::ask_silent() {
    std::stable_sort(late_.begin(), late_.end(), [](const latecomer& one, const latecomer& other) {
        return one.was_first < other.was_first;
    });
    ask_latecomers(pace::silent, slot_of_silent);
}

void sampling_order::ask_latecomers(pace which, duration slot) {
    turn_.clear();
    for (const latecomer& one : late_) {
        if (one.is == which && one.since != cycle_) turn_.push_back(one.counter);
    }
    if (which == pace::silent && !turn_.empty()) find(*turn_.front())->was_first = cycle_;
    for (std::size_t at = 0; at < turn_.size(); ++at)
        ask(*turn_[at], turn_.size() - at - 1, slot);
}
