#pragma once

#include "record/tarn_counter.h"

/// A line that a script prints after its value.
struct tarn_mycustom_agent_alert {
    int index;       ///< reserved
    char text[256];  ///< at most 255 characters and a terminator
};

/// The result of a script. It is also one slot of the shared-memory block, with the same layout.
struct tarn_mycustom_data_custom {
    int ok;             ///< 1 when the last run succeeded
    int let;            ///< reserved
    int get;            ///< reserved
    int interval;       ///< reserved
    int updated;        ///< data: the script ran successfully in this cycle; data_delta: the value is valid
    int mustBeUpdated;  ///< 1 when the script was due in this cycle
    double value;       ///< what the script printed; data_delta of an incremental counter: its increase
    int agent_alerts_count;  ///< alert lines taken, 0 to 10
    tarn_mycustom_agent_alert agent_alerts[10];
};

/// The most alert lines that are taken from a run.
inline constexpr int custom_max_alerts = 10;

/// Type code of a plain value.
inline constexpr int custom_type_value = 11;
/// Type code of the server-status script, whose every output line is an alert and which may print nothing.
inline constexpr int custom_type_status = 11001;

/// Makes a slot that was read from shared memory safe to use: a count within its bounds, texts that end
/// within theirs.
void custom_confine(tarn_mycustom_data_custom& data);

extern const tarn_operations custom_operations;
