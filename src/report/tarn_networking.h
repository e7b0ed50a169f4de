#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "support/tarn_deadline.h"

/// Delivers one report before the deadline: refreshes the collector's address, then sends the signed packet
/// over TCP or UDP as configured. A failure is printed; nothing is retried or kept for later.
void send_data(std::span<const std::uint8_t> document, tarn::deadline end);

/// 1 when the text ends with the suffix, else 0.
int endsWith(std::string_view text, std::string_view suffix);
