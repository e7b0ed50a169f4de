#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// A caller's text buffer and its size.
struct tarn_text_part {
    char* text;
    std::size_t size;
};

/// The pieces of an address "user:password@host:port".
struct tarn_url_parts {
    char user[100];
    char pass[100];
    char host[100];
    std::uint32_t port;  ///< 0 when the address has none
};

/// Splits a text at a delimiter into at most as many parts as there are buffers; further delimiters stay in
/// the last part. A backslash escapes a following delimiter or backslash. Each part is truncated to its
/// buffer and terminated; buffers after the last part are not touched. Returns 1.
int tarn_split_str(std::string_view str, char delimiter, std::span<const tarn_text_part> parts);

/// Splits an address into its pieces; a missing one is left empty. Returns 1. The agent does not call it.
int tarn_parse_url(std::string_view url, tarn_url_parts& parts);
