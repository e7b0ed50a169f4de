#pragma once

#include <cstdint>

/// The walkers of the script process over its only family. `now`, in seconds, is only for the debug trace.
void initCustomsCounters(long now);
void deltaCustomsCounters(std::uint64_t iteration);
void dumpCustomsCounters();
void freeCustomsCounters();

/// Runs the scripts that are due in this cycle: every `interval` cycles from cycle 0 on. Returns how many ran
/// successfully.
int updateCustomsCounters(std::uint64_t iteration);

/// The script process's loop. On every matching second it publishes the results of the previous cycle, if a
/// script succeeded in it, and then runs the scripts. Removes the shared-memory block when the stop flag ends
/// it. Returns 0.
int customs_loop();

/// Removes the shared-memory block of the script results.
void clear_shm();

/// Called by the parent: copies the published results into its script counters. Without a block nothing
/// changes.
void read_customs_results();
