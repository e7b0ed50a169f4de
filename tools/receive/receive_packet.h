#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "receive_secrets.h"

/// Largest packet that is accepted, in bytes: far more than the report of a host with a thousand devices.
inline constexpr std::size_t max_packet_size = std::size_t{4} * 1024 * 1024;

/// The result of checking a packet.
struct received_packet {
    std::span<const std::uint8_t> document;  ///< the BSON document; empty when the packet is bad
    bool is_signed = false;                  ///< the document is followed by a signature of 40 characters
    std::string fault;                       ///< what is wrong, in a few words; empty when the packet is good
    const char* reason = "";                 ///< the kind of fault, one of a few; "" when the packet is good
};

/// Checks one packet: the document's own length must account for every byte, the signature must be right if
/// there are secrets, and the document must be valid BSON. Before the signature is checked, only the
/// document's first element is read, which names the host.
received_packet check_packet(std::span<const std::uint8_t> packet, const receive_secrets& secrets);
