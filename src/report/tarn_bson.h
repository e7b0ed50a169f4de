#pragma once

#include <cstdint>
#include <span>

/// Builds the report of this cycle from `stats` and `config`: one BSON document. Its bytes stay valid until
/// the next call, which reuses their buffer.
std::span<const std::uint8_t> stats_to_bson();

/// Prints a BSON document for a reader, one line "key : type value" per element, indented by one tab per
/// level of depth; the elements of the document itself stand at `depth`.
void print_report(std::span<const std::uint8_t> document, int depth);
