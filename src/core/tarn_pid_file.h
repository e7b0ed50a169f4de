#pragma once

/// Writes the process id to /var/run/tarn.pid, without a line feed. Prints a warning first when the file
/// names another running agent. Failure to create the file is ignored.
void pid_create();

/// Removes the pid file if it still names this process. If it named another agent before, which is still
/// running, that agent's pid is written back instead.
void pid_remove();
