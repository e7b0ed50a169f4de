// Tokens and words follow strtok() and scanf(). UTF-8 is checked by the table of well-formed byte sequences.
#include "support/tarn_text.h"

#include <array>

namespace tarn {
namespace {

/// The length (1 to 4 bytes) of the well-formed UTF-8 character at the start of a text that is not empty; 0
/// when there is none.
std::size_t utf8_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return 1;

    // The bounds of the second byte exclude overlong forms (E0, F0), surrogates (ED) and values above
    // U+10FFFF (F4).
    struct form {
        unsigned first, last, second_low, second_high;
        std::size_t length;
    };
    constexpr std::array<form, 8> forms{{{0xC2, 0xDF, 0x80, 0xBF, 2},
                                         {0xE0, 0xE0, 0xA0, 0xBF, 3},
                                         {0xE1, 0xEC, 0x80, 0xBF, 3},
                                         {0xED, 0xED, 0x80, 0x9F, 3},
                                         {0xEE, 0xEF, 0x80, 0xBF, 3},
                                         {0xF0, 0xF0, 0x90, 0xBF, 4},
                                         {0xF1, 0xF3, 0x80, 0xBF, 4},
                                         {0xF4, 0xF4, 0x80, 0x8F, 4}}};
    for (const form& f : forms) {
        if (lead < f.first || lead > f.last) continue;
        if (text.size() < f.length || byte(1) < f.second_low || byte(1) > f.second_high) return 0;
        for (std::size_t at = 2; at < f.length; ++at) {
            if (byte(at) < 0x80 || byte(at) > 0xBF) return 0;
        }
        return f.length;
    }
    return 0;
}

}  // namespace

bool is_valid_int(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string_view remove_newline_ch(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    return line;
}

std::string_view next_token(std::string_view& rest, std::string_view delimiters) {
    // A single delimiter, the usual case, is searched for faster than a set.
    const bool is_single = delimiters.size() == 1;
    const char first = delimiters.front();
    rest.remove_prefix(std::min(
        is_single ? rest.find_first_not_of(first) : rest.find_first_not_of(delimiters), rest.size()));
    const std::string_view token =
        rest.substr(0, is_single ? rest.find(first) : rest.find_first_of(delimiters));
    rest.remove_prefix(std::min(token.size() + 1, rest.size()));
    return token;
}

std::string_view next_word(std::string_view& rest) {
    rest.remove_prefix(leading_spaces(rest));
    std::size_t length = 0;
    while (length < rest.size() && !is_space(rest[length]))
        ++length;
    const std::string_view word = rest.substr(0, length);
    rest.remove_prefix(std::min(length + 1, rest.size()));
    return word;
}

bool in_excludelist(std::string_view name, const char (*masks)[256], int count) {
    return std::any_of(masks, masks + count, [name](const auto& field) {
        std::string_view mask = text_of(field);
        if (mask.size() < 2 || !mask.ends_with('*')) return name == mask;
        mask.remove_suffix(1);
        return name.starts_with(mask);
    });
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string to_utf8(std::string_view text) {
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        clean += length > 0 ? text.substr(0, length) : "?";
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return clean;
}

bool line_reader::next(std::string_view& line) {
    if (rest_.empty()) return false;
    const std::string_view piece = rest_.substr(0, limit_);
    const std::size_t newline = piece.find('\n');
    line = piece.substr(0, newline);
    rest_.remove_prefix(newline == std::string_view::npos ? piece.size() : newline + 1);
    return true;
}

bool scanner::skip(int count) {
    while (count > 0 && !word().empty())
        --count;
    return count == 0;
}

bool scanner::literal(std::string_view text) {
    rest_.remove_prefix(leading_spaces(rest_));
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
}

std::string_view scanner::until(char separator) {
    rest_.remove_prefix(leading_spaces(rest_));
    const std::string_view before = rest_.substr(0, rest_.find(separator));
    rest_.remove_prefix(std::min(before.size() + 1, rest_.size()));
    return before;
}

}  // namespace tarn
