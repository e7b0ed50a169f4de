#pragma once

#include "record/tarn_counter.h"

/// Maximum number of alert lines taken from one run.
inline constexpr int custom_max_alerts = 10;

/// An alert: a line that a script prints after its value.
struct tarn_mycustom_agent_alert {
    int index;       ///< not used
    char text[256];  ///< at most 255 characters and a terminator
};

/// The result of a script. It is also one slot of the shared-memory block, with the same layout.
struct tarn_mycustom_data_custom {
    int ok;             ///< 1 when the last run succeeded
    int let;            ///< not used
    int get;            ///< not used
    int interval;       ///< not used
    int updated;        ///< data: the script ran successfully in this cycle; data_delta: the value is valid
    int mustBeUpdated;  ///< 1 when the script was due in this cycle
    double value;  ///< number that the script printed; data_delta of an incremental counter: its increase
    int agent_alerts_count;  ///< alert lines taken
    tarn_mycustom_agent_alert agent_alerts[custom_max_alerts];
};

/// Type code of a plain value.
inline constexpr int custom_type_value = 11;
/// Type code of the server-status script: each line of its output is an alert, and it may print nothing.
inline constexpr int custom_type_status = 11001;

/// Makes a slot that was read from shared memory safe to use: limits the count and terminates the texts.
void custom_sanitize(tarn_mycustom_data_custom& data);

extern const tarn_operations custom_operations;
