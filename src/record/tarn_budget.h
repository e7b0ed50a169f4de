#pragma once

#include <chrono>
#include <cstddef>

#include "support/tarn_deadline.h"

/// The time that a cycle may spend waiting for peers, and the share of one exchange.
namespace tarn {

/// Time reserved for each later exchange that is expected to succeed: far more than an answer takes.
inline constexpr auto slot_of_living = std::chrono::milliseconds(50);

/// Limits the waits of the current cycle. Between cycles nothing is limited.
class cycle_budget final {
  public:
    using duration = deadline::clock::duration;

    /// Begins a cycle whose waits may take `total` altogether.
    void begin_cycle(duration total);
    void end_cycle();

    /// Begins an exchange that `others` more will follow. It may use the time left less one slot for each of
    /// them, but at least an equal share.
    void begin_exchange(std::size_t others, duration slot);

    /// False when no time is left for the exchange: its waits fail at once.
    [[nodiscard]] bool has_time() const { return !end_of_exchange_.has_passed(); }

    /// The limit of the exchange's waits, each of which has this time-out.
    [[nodiscard]] wait_limit limit(duration timeout) const { return {timeout, end_of_exchange_}; }

    /// The deadline of an exchange that may take `time` altogether.
    [[nodiscard]] deadline end_within(duration time) const {
        return deadline(time).or_before(end_of_exchange_);
    }

    /// The deadline of all exchanges of the cycle.
    [[nodiscard]] deadline end_of_cycle() const { return end_of_cycle_; }

    /// Gives the exchange its share of what is left anew: the time that has passed was another peer's.
    void restart_exchange();

    /// Notes that a wait of the exchange failed with this error number.
    void note_failure(int error);

    /// Notes that a wait of the exchange timed out.
    void note_timeout() { timed_out_ = true; }

    [[nodiscard]] bool timed_out() const { return timed_out_; }

    /// Notes that the exchange was not begun, so that its outcome does not count against the service.
    void note_skipped() { skipped_ = true; }

    [[nodiscard]] bool was_skipped() const { return skipped_; }

  private:
    deadline end_of_cycle_;
    deadline end_of_exchange_;
    duration slot_{};
    std::size_t others_ = 0;
    bool timed_out_ = false;
    bool skipped_ = false;
};

/// The budget of this process.
extern cycle_budget budget;

}  // namespace tarn
