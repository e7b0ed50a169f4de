#include "config/tarn_config_line.h"

#include "support/tarn_text.h"

namespace {

/// Longer words are cut.
constexpr std::size_t word_limit = 255;

}  // namespace

std::string_view config_line::after(std::size_t length) const {
    return text.substr(std::min(length, text.size()));
}

bool matches(std::string_view key, std::string_view word, key_match match) {
    return match == key_match::prefix ? key.starts_with(word) : key == word;
}

config_line split_config_line(std::string_view raw) {
    config_line line;
    line.text = raw.substr(std::min(raw.find_first_not_of(tarn::blanks), raw.size()));
    tarn::scanner words(line.text);
    line.key = words.word().substr(0, word_limit);
    line.whole_value = words.word();
    line.value = line.whole_value.substr(0, word_limit);
    return line;
}
