#pragma once

/// Writes the process id to /var/run/tarn.pid, without a line feed. When the file names another agent that
/// runs, that is reported first. A file that cannot be created is ignored.
void pid_create();

/// Removes the pid file if it still names this process; the number of an agent that was named there before,
/// and still runs, is put back instead.
void pid_remove();
