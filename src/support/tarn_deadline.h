#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace tarn {

/// The point in time by which a wait, or all waits of an exchange, must have ended.
class deadline final {
  public:
    using clock = std::chrono::steady_clock;

    /// One that never passes.
    deadline() = default;
    explicit deadline(clock::duration from_now) : end_(clock::now() + from_now) {}

    [[nodiscard]] bool has_passed() const { return left() == clock::duration::zero(); }

    /// What is left until then; zero once it has passed.
    [[nodiscard]] clock::duration left() const {
        return end_ == clock::time_point::max() ? clock::duration::max()
                                                : std::max(end_ - clock::now(), clock::duration::zero());
    }

    /// The earlier of two deadlines.
    [[nodiscard]] deadline or_before(deadline other) const { return other.end_ < end_ ? other : *this; }

    /// What is left in milliseconds, rounded up, as poll() takes it.
    [[nodiscard]] int left_ms() const {
        constexpr std::chrono::milliseconds longest(std::numeric_limits<int>::max());
        if (left() > longest) return std::numeric_limits<int>::max();
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left()).count());
    }

  private:
    clock::time_point end_ = clock::time_point::max();
};

/// How long an exchange may wait: each step for so long, and none of them beyond a deadline.
struct wait_limit {
    deadline::clock::duration step = deadline::clock::duration::max();
    deadline end;

    /// What the next step may wait; zero when no time is left.
    [[nodiscard]] deadline::clock::duration next() const { return std::min(step, end.left()); }
};

/// A time-out as it is configured, in seconds: less than 1 counts as 1, and a day is the longest.
constexpr std::chrono::seconds timeout_of(int seconds) {
    constexpr int longest = 24 * 60 * 60;
    return std::chrono::seconds(std::clamp(seconds, 1, longest));
}

}  // namespace tarn
