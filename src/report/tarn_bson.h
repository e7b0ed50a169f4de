#pragma once

#include <cstdint>
#include <span>

/// Builds the report of this cycle, one BSON document, from `stats` and `config`. Its bytes stay valid until
/// the next call, which reuses the buffer.
std::span<const std::uint8_t> stats_to_bson();
