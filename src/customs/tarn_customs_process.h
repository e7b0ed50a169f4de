#pragma once

/// The script process as its parent sees it: started with the agent, watched once per cycle, started anew
/// when it has died, stopped with the agent.

/// Starts the script process; false when it cannot be forked. The new process returns from here only by
/// ending.
bool start_customs_process();

/// Called in every cycle. A process that has died is reported in one line, and its results are dropped; in
/// the next cycle it is started anew.
void watch_customs_process();

/// Ends the script process, if there is one: waits for it, but not for longer than a second.
void stop_customs_process();
