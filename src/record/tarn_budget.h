#pragma once

#include <chrono>
#include <cstddef>

#include "support/tarn_deadline.h"

/// What a cycle may spend on waiting for others, and how one exchange uses its share.
namespace tarn {

/// Kept of a cycle's time for each exchange that is expected to succeed: far more than an answer takes.
inline constexpr auto slot_of_living = std::chrono::milliseconds(50);

/// The waits of the current cycle. Between cycles nothing is limited.
class cycle_budget final {
  public:
    using duration = deadline::clock::duration;

    /// Begins a cycle whose waits may take so long altogether.
    void begin_cycle(duration total);
    void end_cycle();

    /// Begins an exchange after which `others` more are to be made. It may use what is left, less a slot for
    /// each of the others; when that is too little for all of them, an equal share.
    void begin_exchange(std::size_t others, duration slot);

    /// False when nothing is left for the exchange: its waits fail at once.
    [[nodiscard]] bool has_time() const { return !end_of_exchange_.has_passed(); }

    /// The limit of a step of the exchange that has this time-out.
    [[nodiscard]] wait_limit limit(duration timeout) const { return {timeout, end_of_exchange_}; }

    /// By when an exchange that may take so long altogether must end.
    [[nodiscard]] deadline end_within(duration time) const {
        return deadline(time).or_before(end_of_exchange_);
    }

    /// By when the exchange must end.
    [[nodiscard]] deadline end_of_exchange() const { return end_of_exchange_; }

    /// By when the first of two exchanges that share the time must end.
    [[nodiscard]] deadline end_of_half() const;

    /// Called for a wait of the exchange that failed with this error number.
    void note_failure(int error);

    /// Called for a wait of the exchange that took too long.
    void note_timeout() { timed_out_ = true; }

    [[nodiscard]] bool timed_out() const { return timed_out_; }

    /// Called when the exchange was not begun, so that it says nothing about the service.
    void note_skipped() { skipped_ = true; }

    [[nodiscard]] bool was_skipped() const { return skipped_; }

  private:
    deadline end_of_cycle_;
    deadline end_of_exchange_;
    bool timed_out_ = false;
    bool skipped_ = false;
};

/// The budget of this process.
extern cycle_budget budget;

}  // namespace tarn
