#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// A line that a script prints behind its value.
struct tarn_mycustom_agent_alert {
    int index;       ///< reserved
    char text[256];  ///< at most 255 characters and a terminator
};

/// The result of a script. It is also one slot of the shared-memory block, laid out there as it is here.
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

/// Type code of a plain value.
inline constexpr int custom_type_value = 11;
/// Type code of the server-status script, whose every output line is an alert and which may print nothing.
inline constexpr int custom_type_status = 11001;

/// Reads the configuration text into the counter's settings and prints them. Returns 1.
int custom_parse_conf(tarn_mycustom_counter& cnt);

/// Takes the output of a script into value and alerts. It may hold anything and be cut anywhere.
void custom_parse_output(std::string_view output, int counter_type, tarn_mycustom_data_custom& data);

/// Runs a command through the shell as user `uid`, for at most `max_seconds` seconds, and takes at most 1024
/// bytes of its output into `data`. The group id is not applied. Returns the value; sets `err` to 0 on
/// success and to 1 on failure, whose message has then been printed.
double call_exec(const char* exec, int uid, int gid, int max_seconds, int counter_type, int& err,
                 tarn_mycustom_data_custom& data);

/// Makes a slot that was read from shared memory safe to use: a count within its bounds, texts that end
/// within theirs.
void custom_confine(tarn_mycustom_data_custom& data);

int custom_init(tarn_mycustom_counter& cnt);
int custom_update(tarn_mycustom_counter& cnt);
int custom_delta(tarn_mycustom_counter& cnt, std::uint32_t interval, std::uint64_t iteration);
int custom_tobson(tarn_mycustom_counter& cnt, bson_t& document);
int custom_dump(tarn_mycustom_counter& cnt);
int custom_free(tarn_mycustom_counter& cnt);
