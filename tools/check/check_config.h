#pragma once

#include <string>
#include <vector>

#include "check_findings.h"
#include "config/tarn_kinds.h"

/// A counter that a line has registered and initialised.
struct checked_counter {
    const counter_kind* kind;
    tarn_mycustom_counter* counter;
    std::string name;   ///< keyword and id, such as "redis_main"
    std::string place;  ///< "FILE:LINE"
};

/// Reads the main configuration file and the extra files as the agent does, into `config` and `stats`, and
/// reports what is wrong with them. Creates no shared memory and connects to nothing. Returns the counters.
std::vector<checked_counter> check_config(findings& found);
