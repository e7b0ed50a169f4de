#pragma once

#include <cstdint>
#include <span>

/// Prints a BSON document for a reader, one line "key : type value" per element, indented by one tab per
/// level of depth; the elements of the document itself stand at `depth`.
void print_report(std::span<const std::uint8_t> document, int depth);
