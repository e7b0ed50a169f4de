#pragma once

#include "config/tarn_config_line.h"

/// What became of a line.
enum class line_result { unknown, taken, malformed };

/// Applies a line whose key sets a field of `config`. `malformed` ends the reading of the file; its message
/// has been printed.
line_result apply_setting(const config_line& line);
