#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "support/tarn_deadline.h"

/// Delivers one report before the deadline: refreshes the collector's address, then sends the signed packet
/// over TCP or UDP as configured. A failure is printed and otherwise forgotten; nothing is retried or kept.
void send_data(std::span<const std::uint8_t> document, tarn::deadline end);

/// One datagram with the whole packet.
void send_data_udp(std::span<const std::uint8_t> document);

/// One connection with the whole packet; each step takes at most `server_tcp_to` seconds.
void send_data_tcp(std::span<const std::uint8_t> document, tarn::deadline end);

/// Refreshes `serverIp` from `serverName`, asking the next name server of the list in turn, or the system's
/// resolver when there is none. When that fails, or takes too long, the last good address stays.
void update_ip(tarn::deadline end);

/// Resolves a host name with the system's resolver and writes its first IPv4 address as dotted text. Returns
/// 0 on success; 1, with the text unchanged, when the name does not resolve in time or has no address.
int hostname_to_ip(const char* name, char (&text)[17], tarn::deadline end);

/// 1 when the text ends with the suffix, else 0.
int endsWith(std::string_view text, std::string_view suffix);
