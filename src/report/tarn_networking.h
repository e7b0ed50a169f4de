#pragma once

#include <cstdint>
#include <span>
#include <string_view>

/// Delivers one report: refreshes the collector's address, then sends the signed packet over TCP or UDP as
/// configured. A failure is printed and otherwise forgotten; nothing is retried or kept.
void send_data(std::span<const std::uint8_t> document);

/// One datagram with the whole packet.
void send_data_udp(std::span<const std::uint8_t> document);

/// One connection with the whole packet, bounded by `server_tcp_to` seconds for each of its steps.
void send_data_tcp(std::span<const std::uint8_t> document);

/// Refreshes `serverIp` from `serverName`, asking the next name server of the list in turn, or the system's
/// resolver when there is none. After a failure the last good address stays.
void update_ip();

/// Resolves a host name with the system's resolver and writes its first IPv4 address as dotted text. Returns
/// 0 on success; 1, with the text unchanged, when the name does not resolve or has no address.
int hostname_to_ip(const char* name, char (&text)[17]);

/// 1 when the text ends with the suffix, else 0.
int endsWith(std::string_view text, std::string_view suffix);
