#pragma once

#include <string_view>

#include "customs/tarn_custom.h"

/// Parses the output of a script into value and alerts. It may contain anything and be cut off anywhere.
void custom_parse_output(std::string_view output, int counter_type, tarn_mycustom_data_custom& data);

/// Runs a command through the shell as user `uid`, for at most `max_seconds` seconds, and parses at most 1024
/// bytes of its output into `data`. The group id is not applied. Returns the value; sets `err` to 0 on
/// success, and to 1 on failure after a message has been printed.
double call_exec(const char* exec, int uid, int gid, int max_seconds, int counter_type, int& err,
                 tarn_mycustom_data_custom& data);
