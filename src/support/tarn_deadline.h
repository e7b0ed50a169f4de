#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace tarn {

/// The point in time by which a wait, or all waits of an exchange, must end.
class deadline final {
  public:
    using clock = std::chrono::steady_clock;

    /// A deadline that never passes.
    deadline() = default;
    /// `from_now` may be the longest duration: the deadline never passes then.
    explicit deadline(clock::duration from_now)
        : end_(from_now == clock::duration::max() ? clock::time_point::max() : clock::now() + from_now) {}

    [[nodiscard]] bool has_passed() const { return left() == clock::duration::zero(); }

    /// Time left until the deadline; zero once it has passed.
    [[nodiscard]] clock::duration left() const {
        return end_ == clock::time_point::max() ? clock::duration::max()
                                                : std::max(end_ - clock::now(), clock::duration::zero());
    }

    /// The earlier of two deadlines.
    [[nodiscard]] deadline or_before(deadline other) const { return other.end_ < end_ ? other : *this; }

    /// Time left in milliseconds, rounded up, as a time-out of poll().
    [[nodiscard]] int left_ms() const {
        constexpr std::chrono::milliseconds max_ms(std::numeric_limits<int>::max());
        if (left() > max_ms) return std::numeric_limits<int>::max();
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left()).count());
    }

  private:
    clock::time_point end_ = clock::time_point::max();
};

/// How long an exchange may wait: `step` for each step, and no step past `end`.
struct wait_limit {
    deadline::clock::duration step = deadline::clock::duration::max();
    deadline end;

    /// How long the next step may wait; zero when no time is left.
    [[nodiscard]] deadline::clock::duration next() const { return std::min(step, end.left()); }
};

/// A configured time-out in seconds, clamped to 1 second ... 1 day.
constexpr std::chrono::seconds timeout_of(int seconds) {
    constexpr int max_seconds = 24 * 60 * 60;
    return std::chrono::seconds(std::clamp(seconds, 1, max_seconds));
}

}  // namespace tarn
