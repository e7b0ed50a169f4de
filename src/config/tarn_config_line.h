#pragma once

#include <string_view>

/// One line of a configuration file.
struct config_line {
    std::string_view text;   ///< from the key on, with its line feed if it has one; at most 4095 characters
    std::string_view key;    ///< first word, at most 255 characters; empty on a blank line
    std::string_view value;  ///< second word, at most 255 characters; empty when there is none
    std::string_view whole_value;  ///< second word, however long

    /// What stands behind the first `length` characters.
    [[nodiscard]] std::string_view after(std::size_t length) const;
};

/// How a key of the tables is compared with that of a line.
enum class key_match { exact, prefix };

/// True when a line's key matches a word of the tables.
bool matches(std::string_view key, std::string_view word, key_match match);

/// Splits a raw line.
config_line split_config_line(std::string_view raw);
