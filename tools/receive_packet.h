#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// Largest packet that is accepted, in bytes: far more than the report of a host with a thousand devices.
inline constexpr std::size_t max_packet_size = std::size_t{4} * 1024 * 1024;

/// The result of checking a packet.
struct received_packet {
    std::span<const std::uint8_t> document;  ///< the BSON document; empty when the packet is bad
    bool is_signed = false;                  ///< the document is followed by a signature of 40 characters
    std::string fault;                       ///< what is wrong, in a few words; empty when the packet is good
};

/// Checks one packet: the document's own length must account for every byte, with a secret the signature must
/// be right, and the document must be valid BSON. Without a secret a signature is not checked.
received_packet check_packet(std::span<const std::uint8_t> packet, std::string_view secret);
