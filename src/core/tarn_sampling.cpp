// A service that times out moves to the end of the order, and back once it answers within its share of time.
#include "core/tarn_sampling.h"

#include <algorithm>
#include <chrono>

#include "record/tarn_clock.h"
#include "record/tarn_walk.h"

namespace {

using std::chrono::milliseconds;

using tarn::slot_of_living;

/// Time reserved for each service that did not answer: enough to notice that it answers again.
constexpr auto silent_slot = milliseconds(10);

}  // namespace

void sampling_order::begin(std::initializer_list<tarn_family> families, duration total) {
    ++cycle_;
    std::size_t services = 0;
    for (const tarn_family& family : families)
        services += family.count;
    in_place_ = services - std::min(delayed_.size(), services);
    const auto others = static_cast<duration::rep>(std::max<std::size_t>(services, 1) - 1);
    share_ = std::max<duration>(total - others * slot_of_living, total / (others + 1));
}

std::size_t sampling_order::count(status which) const {
    const auto has_status = [which](const delayed_service& service) { return service.current == which; };
    return static_cast<std::size_t>(std::count_if(delayed_.begin(), delayed_.end(), has_status));
}

sampling_order::delayed_service* sampling_order::find(const tarn_mycustom_counter& counter) {
    const auto is_same = [&counter](const delayed_service& service) { return service.counter == &counter; };
    const auto found = std::find_if(delayed_.begin(), delayed_.end(), is_same);
    return found != delayed_.end() ? &*found : nullptr;
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
    // A service was not asked when no time was left or its container could not be found.
    if (had_time && !tarn::budget.was_skipped() && stop == 0)
        update_status(counter, tarn::deadline::clock::now() - start);
}

void sampling_order::update_status(tarn_mycustom_counter& counter, duration took) {
    delayed_service* const known = find(counter);
    if (tarn::budget.timed_out()) {
        if (known == nullptr) delayed_.push_back({&counter, status::silent, cycle_, cycle_});
        if (known != nullptr) known->current = status::silent;
    } else if (known != nullptr && took > share_) {
        known->current = status::slow;
    } else if (known != nullptr) {
        delayed_.erase(delayed_.begin() + (known - delayed_.data()));
    }
}

void sampling_order::ask_slow() {
    ask_delayed(status::slow, slot_of_living);
}

void sampling_order::ask_silent() {
    std::stable_sort(delayed_.begin(), delayed_.end(),
                     [](const delayed_service& one, const delayed_service& other) {
                         return one.last_first < other.last_first;
                     });
    ask_delayed(status::silent, silent_slot);
}

void sampling_order::ask_delayed(status which, duration slot) {
    queue_.clear();
    for (const delayed_service& service : delayed_) {
        if (service.current == which && service.since != cycle_) queue_.push_back(service.counter);
    }
    if (which == status::silent && !queue_.empty()) find(*queue_.front())->last_first = cycle_;
    for (std::size_t at = 0; at < queue_.size(); ++at)
        ask(*queue_[at], queue_.size() - at - 1, slot);
}
