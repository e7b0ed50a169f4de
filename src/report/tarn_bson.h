#pragma once

#include <cstdint>
#include <span>

/// Builds the report of this cycle from `stats` and `config`: one BSON document. Its bytes stay valid until
/// the next call, which reuses their buffer.
std::span<const std::uint8_t> stats_to_bson();
