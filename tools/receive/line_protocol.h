#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "report_figures.h"

/// Appends the figures of a report in InfluxDB line protocol, one line for each element:
///     tarn_redis,host=1,server=main commands_per_minute=1800i,clients=3i 1732320000
/// `sub_seconds` are the zeros that follow the seconds where times are written in a finer unit.
void append_lines(const report_head& head, std::span<const std::uint8_t> document,
                  std::string_view sub_seconds, std::string& text);

/// Appends a number in its shortest form that reads back as the same value.
template <typename Number>
void append_number(std::string& text, Number value);
