#pragma once

#include <cstdint>
#include <span>
#include <string>

/// The report as one line of JSON. An array whose elements have names is written as an object, so that the
/// names are not lost.
std::string report_as_json(std::span<const std::uint8_t> document);

/// The report laid out for a reader, one figure per line with its unit.
std::string report_as_text(std::span<const std::uint8_t> document);
