#pragma once

/// The parent's control of the script process: it is started with the agent, checked once per cycle,
/// restarted when it has died, and stopped with the agent.

/// Starts the script process; false when the fork fails. In the new process the call does not return.
bool start_customs_process();

/// Called in every cycle. Reports a script process that has died and drops its results; the next call
/// restarts it.
void watch_customs_process();

/// Stops the script process, if there is one, and waits at most one second for its end.
void stop_customs_process();
