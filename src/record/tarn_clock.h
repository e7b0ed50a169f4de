#pragma once

#include <csignal>
#include <cstdint>

#include "support/tarn_deadline.h"

/// Set to 1 by the stop signals. Every loop tests it, and so does every walk whose steps may wait.
extern volatile std::sig_atomic_t stop;

/// How long after each full second a loop wakes. The loop that writes into shared memory wakes before the
/// loop that reads from it: with an interval of 1 or 2 seconds their cycles fall on the same second.
inline constexpr int writer_margin_ms = 20;
inline constexpr int reader_margin_ms = 120;

/// Sleeps until `margin_ms` after the next full second of the wall clock; a signal ends the sleep early. A
/// loop that wakes shortly after each full second sees every second once.
void sleep_one_turn(int margin_ms);

/// The deadline of a cycle of the parent that began on second `now`, early enough for the next cycle.
tarn::deadline before_next_cycle(long now);

/// Finds the seconds on which a loop runs a cycle.
class cycle_clock final {
  public:
    /// True when `t` modulo the report interval equals the agent's random second and the previous call had
    /// another `t`: a clock that is set back within a cycle's second does not repeat the cycle.
    bool is_due(long t);

  private:
    long last_ = -1;
};

/// The number of the next cycle. In place of 1163962800 a message is printed and the count restarts at 0,
/// which makes the next cycle a baseline cycle.
std::uint64_t next_iteration(std::uint64_t iteration);
