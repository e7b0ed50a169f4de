#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// A signature: 40 lower-case hexadecimal characters, without a terminator.
using tarn_signature = std::array<char, 40>;

/// SHA-1 of the document's bytes followed by the secret's, in hexadecimal.
tarn_signature signature_of(std::span<const std::uint8_t> document, std::string_view secret);

/// Builds the packet to send: the document, followed by its signature unless the secret is empty. Reuses the
/// packet's buffer.
void sign(std::span<const std::uint8_t> document, std::string_view secret, std::vector<std::uint8_t>& packet);
