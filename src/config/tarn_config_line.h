#pragma once

#include <string_view>

/// One line of a configuration file.
struct config_line {
    std::string_view text;   ///< from the key on, with its line feed if it has one; at most 4095 characters
    std::string_view key;    ///< first word, at most 255 characters; empty on a blank line
    std::string_view value;  ///< second word, at most 255 characters; empty when there is none
    std::string_view full_value;  ///< second word, not truncated

    /// The text after the first `length` characters.
    [[nodiscard]] std::string_view after(std::size_t length) const;
};

/// How the key of a line is compared with a keyword.
enum class key_match { exact, prefix };

/// True when the key of a line matches a keyword.
bool matches(std::string_view key, std::string_view keyword, key_match match);

/// Splits a raw line.
config_line split_config_line(std::string_view raw);
