#pragma once

#include <span>

#include "config/tarn_config_line.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"

/// A kind of counter.
struct counter_kind {
    std::string_view keyword;
    key_match match;
    tarn_family (*family)();
    /// Returns the configuration text of a counter, given its line.
    std::string_view (*text)(const config_line& line, std::string_view keyword);
    const tarn_operations* operations;
    const char* form;                          ///< how a line is written
    int tarn_config::*library_flag = nullptr;  ///< set to 1 when such a counter is configured
};

/// Every kind. The first one that matches handles a line; settings are matched before kinds.
std::span<const counter_kind> counter_kinds();

/// Registers the counter of a line whose key names a counter kind. A line beyond the capacity of its family
/// is reported and ignored; any other key is ignored silently.
void register_counter(const config_line& line);
