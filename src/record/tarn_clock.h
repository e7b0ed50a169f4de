#pragma once

#include <csignal>
#include <cstdint>

#include "support/tarn_deadline.h"

/// Set to 1 by the stop signals; every loop, and every walk over things that may wait, tests it.
extern volatile std::sig_atomic_t stop;

/// How long after each full second a loop wakes. The loop that writes into shared memory comes before the one
/// that reads from it: with an interval of 1 or 2 seconds their cycles fall on the same second.
inline constexpr int writer_margin_ms = 20;
inline constexpr int reader_margin_ms = 120;

/// Sleeps into the next second of the wall clock, at most about one second; a signal ends it early. Waking a
/// little after each full second, a loop sees every second once and never drifts over one.
void sleep_one_turn(int margin_ms);

/// True when a cycle falls on second `t`: t modulo the report interval equals the agent's random second.
bool is_cycle_second(long t);

/// When a cycle of the parent that began on second `now` must have ended, so that the next one is not late.
tarn::deadline before_next_cycle(long now);

/// Tells the seconds on which a loop runs a cycle.
class cycle_clock final {
  public:
    /// True when second `t` is a cycle's and was not the last one asked about: a clock that is set back
    /// within the second of a cycle does not bring the same cycle twice.
    bool is_due(long t);

  private:
    long last_ = -1;
};

/// The number of the cycle after this one. After 1163962800 the count says so and starts again at 0, which
/// makes the next cycle a first one.
std::uint64_t next_iteration(std::uint64_t iteration);
