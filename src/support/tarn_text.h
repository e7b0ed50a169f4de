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

/// Texts that come from outside: kernel files, configuration lines, replies of services. Everything works on
/// views and fixed arrays; nothing here allocates unless it says so, and nothing reads past an end.
namespace tarn {

/// The blanks of the C locale: what separates words in a scanf format.
inline constexpr std::string_view blanks = " \t\n\v\f\r";

/// True for one of the blanks.
constexpr bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// How many blanks a text begins with.
constexpr std::size_t leading_blanks(std::string_view text) {
    std::size_t count = 0;
    while (count < text.size() && is_blank(text[count]))
        ++count;
    return count;
}

/// The text held in a fixed array: up to its first zero byte, or the whole array when there is none.
template <typename Char, std::size_t Size>
requires(sizeof(Char) == 1) std::string_view text_of(const Char (&field)[Size]) {
    const char* const text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, Size)};
}

/// Copies a text into a fixed array, cut to the array's size less one, always terminated. Stops at a zero
/// byte.
template <std::size_t Size>
void copy_terminated(char (&field)[Size], std::string_view text) {
    text = text.substr(0, std::min(text.find('\0'), Size - 1));
    std::copy(text.begin(), text.end(), field);
    field[text.size()] = '\0';
}

/// Copies a text into a fixed array that may be filled to its last byte: terminated only when it is shorter
/// than the array. Such an array is read with text_of().
template <typename Char, std::size_t Size>
requires(sizeof(Char) == 1) void copy_padded(Char (&field)[Size], std::string_view text) {
    text = text.substr(0, std::min(text.find('\0'), Size));
    std::fill(std::copy(text.begin(), text.end(), field), field + Size, Char{});
}

/// Reads an integer as scanf and strtol do at base 10: blanks, a sign, digits. A value beyond 64 bits is the
/// largest (or lowest) of its signedness, and a narrower type keeps the low bits of it.
/// Returns the number of characters taken; 0 when there is no number, and `value` is then unchanged.
template <std::integral Number>
std::size_t read_number(std::string_view text, Number& value) {
    std::size_t at = leading_blanks(text);
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

/// Takes the line feed off the end of a line.
std::string_view remove_newline_ch(std::string_view line);

/// Copies a text without any occurrence of one character into a fixed array, cut and terminated.
template <std::size_t Size>
void strcpyfilter(std::string_view source, char (&destination)[Size], char character) {
    std::size_t length = 0;
    for (const char c : source) {
        if (c != character && length + 1 < Size) destination[length++] = c;
    }
    destination[length] = '\0';
}

/// Takes the next token off the front of `rest` as strtok does: leading delimiters are skipped, so that no
/// token is ever empty, and the one delimiter that ends the token is taken with it. Returns an empty view
/// when nothing is left.
std::string_view next_token(std::string_view& rest, std::string_view delimiters);

/// As next_token(), for words that are separated by blanks.
std::string_view next_word(std::string_view& rest);

/// True when `name` matches one of the first `count` masks: a mask of more than one character that ends in
/// "*" matches every name that begins with what stands before the "*", any other mask only the same name.
bool in_excludelist(std::string_view name, const char (*masks)[256], int count);

/// The length of the well-formed UTF-8 character at the start of a text (1 to 4 bytes), 0 when the bytes
/// there form none. Overlong forms, surrogates and values above U+10FFFF are not well formed.
std::size_t utf8_character(std::string_view text);

/// True when the whole text is well-formed UTF-8.
bool is_utf8(std::string_view text);

/// A copy of the text in which every byte that belongs to no UTF-8 character is "?".
std::string to_utf8(std::string_view text);

/// Walks a text line by line as fgets does with a buffer of `limit` + 1 bytes: a longer line comes in pieces.
/// Lines come without their line feed.
class line_reader {
  public:
    explicit line_reader(std::string_view text, std::size_t limit = 4095) : rest_(text), limit_(limit) {}

    /// Moves to the next line; false at the end of the text.
    bool next(std::string_view& line);

  private:
    std::string_view rest_;
    std::size_t limit_;
};

/// Reads a text field by field with the rules of scanf's "%s" and "%lu" conversions.
class scanner {
  public:
    explicit scanner(std::string_view text) : rest_(text) {}

    /// The next run of non-blank characters; empty at the end of the text.
    std::string_view word() { return next_word(rest_); }

    /// Passes over `count` words; false when there are fewer.
    bool skip(int count);

    /// Reads the next number into `value`; false, with `value` unchanged, when something else comes next.
    template <std::integral Number>
    bool number(Number& value) {
        const std::size_t taken = read_number(rest_, value);
        rest_.remove_prefix(taken);
        return taken > 0;
    }

    /// Passes over blanks and a text that has to stand there; false when something else does.
    bool literal(std::string_view text);

    /// What stands before the next such character, blanks in front passed over; the character is passed over,
    /// too. Without one it is all the rest.
    std::string_view until(char separator);

    /// What has not been read yet.
    [[nodiscard]] std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

}  // namespace tarn
