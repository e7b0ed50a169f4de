#pragma once

#include "config/tarn_config_line.h"

/// The result of applying a line.
enum class line_result { unknown, taken, malformed };

/// Applies a line whose key sets a field of `config`. `malformed` ends the reading of the file; the message
/// has been printed.
line_result apply_setting(const config_line& line);
