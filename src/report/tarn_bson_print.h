#pragma once

#include <cstdint>
#include <span>

/// Prints a BSON document, one line "key : type value" per element, indented by one tab per level; the
/// top-level elements are indented by `depth` tabs.
void print_report(std::span<const std::uint8_t> document, int depth);
