// A line is split as scanf's "%s %s" splits it, but into views of the line.
#include "config/tarn_config_line.h"

#include "support/tarn_text.h"

namespace {

/// Longer words are truncated.
constexpr std::size_t max_word = 255;

}  // namespace

std::string_view config_line::after(std::size_t length) const {
    return text.substr(std::min(length, text.size()));
}

bool matches(std::string_view key, std::string_view keyword, key_match match) {
    return match == key_match::prefix ? key.starts_with(keyword) : key == keyword;
}

config_line split_config_line(std::string_view raw) {
    config_line line;
    line.text = raw.substr(std::min(raw.find_first_not_of(tarn::blanks), raw.size()));
    tarn::scanner words(line.text);
    line.key = words.word().substr(0, max_word);
    line.full_value = words.word();
    line.value = line.full_value.substr(0, max_word);
    return line;
}
