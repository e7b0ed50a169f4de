#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// A signature: 40 lower-case hexadecimal characters, without a terminator.
using tarn_signature = std::array<char, 40>;

/// SHA-1 over the document's bytes and then the secret's, as one message.
tarn_signature signature_of(std::span<const std::uint8_t> document, std::string_view secret);

/// Makes the packet that is sent: the document, followed by its signature unless the secret is empty. The
/// packet's buffer is reused.
void sign(std::span<const std::uint8_t> document, std::string_view secret, std::vector<std::uint8_t>& packet);
