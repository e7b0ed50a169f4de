#pragma once

#include <span>

#include "config/tarn_config_line.h"

/// The result of applying a line.
enum class line_result { unknown, taken, malformed };

/// What a key takes.
enum class value_form { word, number, rest_of_line };

/// A key that sets a field of `config`.
struct setting {
    std::string_view keyword;
    key_match match;
    line_result (*apply)(const config_line& line);
    value_form form = value_form::word;
};

/// Every such key. The first one that matches handles a line.
std::span<const setting> config_settings();

/// Applies a line whose key sets a field of `config`. `malformed` ends the reading of the file; the message
/// has been printed.
line_result apply_setting(const config_line& line);
