#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

/// Text from outside: kernel files, configuration lines, replies of services. The functions work on views and
/// fixed arrays. None reads past the end of its text, and only to_utf8() allocates.
namespace tarn {

/// The whitespace of the C locale, which separates words in a scanf format.
inline constexpr std::string_view blanks = " \t\n\v\f\r";

/// True for whitespace.
constexpr bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The number of whitespace characters at the start of a text.
constexpr std::size_t leading_spaces(std::string_view text) {
    std::size_t count = 0;
    while (count < text.size() && is_space(text[count]))
        ++count;
    return count;
}

/// The text held in a fixed array: up to its first zero byte, or the whole array when there is none.
template <typename Char, std::size_t Size>
requires(sizeof(Char) == 1) std::string_view text_of(const Char (&field)[Size]) {
    const char* const text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, Size)};
}

/// Copies a text into a fixed array, truncated to the array's size less one and always terminated. Stops at a
/// zero byte.
template <std::size_t Size>
void copy_terminated(char (&field)[Size], std::string_view text) {
    text = text.substr(0, std::min(text.find('\0'), Size - 1));
    std::copy(text.begin(), text.end(), field);
    field[text.size()] = '\0';
}

/// Copies a text into a fixed array and pads it with zero bytes; a text that fills the array has no
/// terminator. Such an array is read with text_of().
template <typename Char, std::size_t Size>
requires(sizeof(Char) == 1) void copy_padded(Char (&field)[Size], std::string_view text) {
    text = text.substr(0, std::min(text.find('\0'), Size));
    std::fill(std::copy(text.begin(), text.end(), field), field + Size, Char{});
}

/// Reads an integer as scanf and strtol do at base 10: whitespace, a sign, digits. A value beyond 64 bits
/// saturates; a type narrower than 64 bits keeps the low bits. Returns the number of characters consumed, or
/// 0 with `value` unchanged when there is no number.
template <std::integral Number>
std::size_t read_number(std::string_view text, Number& value) {
    std::size_t at = leading_spaces(text);
    const bool negative = at < text.size() && text[at] == '-';
    if (negative || (at < text.size() && text[at] == '+')) ++at;

    std::uint64_t magnitude = 0;
    const char* const first = text.data() + at;
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), magnitude);
    if (error == std::errc::invalid_argument) return 0;
    bool beyond = error == std::errc::result_out_of_range;

    if constexpr (std::is_signed_v<Number>) {
        constexpr std::uint64_t top = std::numeric_limits<std::int64_t>::max();
        beyond = beyond || magnitude > top;
        if (beyond) magnitude = negative ? top + 1 : top;
    } else if (beyond) {
        magnitude = std::numeric_limits<std::uint64_t>::max();
    }
    if (negative && !(std::is_unsigned_v<Number> && beyond)) magnitude = 0 - magnitude;
    value = static_cast<Number>(magnitude);
    return static_cast<std::size_t>(end - text.data());
}

/// The number at the start of a text, 0 when there is none; see read_number().
template <std::integral Number>
Number to_number(std::string_view text) {
    Number value = 0;
    read_number(text, value);
    return value;
}

/// True for an optional "-" followed by one or more decimal digits and nothing else.
bool is_valid_int(std::string_view text);

/// A line without its final line feed, if it has one.
std::string_view remove_newline_ch(std::string_view line);

/// Copies a text without the occurrences of one character into a fixed array, truncated and terminated.
template <std::size_t Size>
void strcpyfilter(std::string_view source, char (&destination)[Size], char character) {
    std::size_t length = 0;
    for (const char c : source) {
        if (c != character && length + 1 < Size) destination[length++] = c;
    }
    destination[length] = '\0';
}

/// Removes the next token from the front of `rest` and returns it, as strtok does: leading delimiters are
/// skipped, so a token is never empty, and the delimiter that ends the token is removed with it. Returns an
/// empty view when no token is left.
std::string_view next_token(std::string_view& rest, std::string_view delimiters);

/// As next_token(), for words separated by whitespace.
std::string_view next_word(std::string_view& rest);

/// True when `name` matches one of the first `count` masks: a mask of more than one character that ends in
/// "*" matches every name that begins with the text before the "*", any other mask only the identical name.
bool in_excludelist(std::string_view name, const char (*masks)[256], int count);

/// True when the whole text is well-formed UTF-8, without overlong forms, surrogates or values above
/// U+10FFFF.
bool is_utf8(std::string_view text);

/// A copy of the text in which "?" replaces each byte that is not part of a well-formed UTF-8 character.
std::string to_utf8(std::string_view text);

/// Reads a text line by line as fgets does with a buffer of `limit` + 1 bytes: a longer line is returned in
/// pieces. Line feeds are removed.
class line_reader {
  public:
    explicit line_reader(std::string_view text, std::size_t limit = 4095) : rest_(text), limit_(limit) {}

    /// Stores the next line; false at the end of the text.
    bool next(std::string_view& line);

  private:
    std::string_view rest_;
    std::size_t limit_;
};

/// Reads a text field by field with the rules of scanf's "%s" and "%lu" conversions.
class scanner {
  public:
    explicit scanner(std::string_view text) : rest_(text) {}

    /// The next word, ended by whitespace; empty at the end of the text.
    std::string_view word() { return next_word(rest_); }

    /// Skips `count` words; false when there are fewer.
    bool skip(int count);

    /// Reads the next number into `value`; false, with `value` unchanged, when no number comes next.
    template <std::integral Number>
    bool number(Number& value) {
        const std::size_t taken = read_number(rest_, value);
        rest_.remove_prefix(taken);
        return taken > 0;
    }

    /// Skips whitespace and then `text`; false when other text follows the whitespace.
    bool literal(std::string_view text);

    /// The text up to the next `separator`, or the whole rest without one. Leading whitespace and the
    /// separator are skipped.
    std::string_view until(char separator);

    /// The text that has not been read yet.
    [[nodiscard]] std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

}  // namespace tarn
