#pragma once

#include "config/tarn_config_line.h"

/// Registers the counter of a line whose key names a counter kind. A line beyond the capacity of its family
/// is reported and ignored; any other key is ignored silently.
void register_counter(const config_line& line);
