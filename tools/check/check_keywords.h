#pragma once

#include <string>
#include <string_view>

#include "config/tarn_config_line.h"

/// What is wrong with a key that is neither a setting nor a kind of counter, and what to write instead.
std::string unknown_key_message(const config_line& line);
