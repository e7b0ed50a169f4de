// The position and state of the scan are kept between reads, so that a long object is scanned only once.
#include "support/tarn_json_framer.h"

namespace tarn {

std::string json_framer::feed(std::string_view bytes) {
    text_.append(bytes);
    std::string newest;
    for (;;) {
        if (at_ == 0) drop_to_start();
        if (!find_end()) return newest;
        newest = text_.substr(0, at_);
        text_.erase(0, at_);
        at_ = 0;
        depth_ = 0;
        in_string_ = false;
    }
}

/// Drops everything before the next object. A "{" at the end is kept: it may be half of its "{\"".
void json_framer::drop_to_start() {
    const std::size_t start = text_.find("{\"");
    if (start != std::string::npos) {
        text_.erase(0, start);
    } else {
        text_.erase(0, text_.ends_with('{') ? text_.size() - 1 : text_.size());
    }
}

/// Scans on to the brace that closes the object; false when it has not arrived yet.
bool json_framer::find_end() {
    if (text_.size() < 2) return false;
    for (; at_ < text_.size(); ++at_) {
        const char c = text_[at_];
        if (c == '\n' && depth_ > 0) {
            if (!in_string_ && at_ + 1 == text_.size()) return false;
            if (is_cut()) return true;
        }
        if (in_string_ && c == '\\') {
            if (at_ + 1 == text_.size()) return false;
            ++at_;
        } else if (c == '"') {
            in_string_ = !in_string_;
        } else if (!in_string_ && c == '{') {
            ++depth_;
        } else if (!in_string_ && c == '}' && --depth_ == 0) {
            ++at_;
            return true;
        }
    }
    return false;
}

/// True at a line feed that proves the object broken: one inside a string, or one before a "{" where JSON
/// allows no value.
bool json_framer::is_cut() const {
    if (in_string_) return true;
    if (text_[at_ + 1] != '{') return false;
    const std::size_t before = text_.find_last_not_of(" \t\r\n", at_);
    return before == std::string::npos ||
           std::string_view(":,[").find(text_[before]) == std::string_view::npos;
}

}  // namespace tarn
