#pragma once

#include <cstdint>

/// The walkers of the script process over its one family. `now`, in seconds, is only printed, in debug mode.
void initCustomsCounters(long now);
void deltaCustomsCounters(std::uint64_t iteration);
void dumpCustomsCounters();
void freeCustomsCounters();

/// Runs the scripts that are due in this cycle: every `interval` cycles from cycle 0 on. Returns how many ran
/// successfully.
int updateCustomsCounters(std::uint64_t iteration);

/// The script process's loop: on every matching second it publishes the results of the cycle before, if that
/// ran a script, and then runs the scripts. Removes the shared-memory block when the stop flag ends it.
/// Returns 0.
int customs_loop();

/// Removes the shared-memory block of the script results.
void clear_shm();

/// The parent's side: copies the published results into its script counters. Without a block nothing changes.
void read_customs_results();
