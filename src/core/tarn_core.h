#pragma once

#include <cstdint>

/// Binds the seven host counters to their slots.
void setCoreCounters();

/// The walkers: each calls one operation of every counter, family by family. `now`, in seconds, is printed in
/// debug mode and not used otherwise.
void initCounters(long now);
void reinitCounters(long now);
void updateCounters();
void deltaCounters(std::uint64_t iteration);
void dumpCounters();
void freeCounters();

/// One cycle at second `t`: samples every counter and, unless `iteration` is 0, builds and sends a report.
/// The first cycle only takes the baseline. Returns the number of the next cycle; see next_iteration().
std::uint64_t run_cycle(long t, std::uint64_t iteration);

/// Runs a cycle on every matching second until the stop flag is set. Returns 0.
int main_loop();
