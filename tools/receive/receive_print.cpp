// Reports as text and as JSON. Their texts come from the network, so control characters are escaped.
#include "receive_print.h"

#include <bson/bson.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>

#include "report_bson.h"
#include "report_table.h"

namespace {

/// The column in which values begin, unless the key is longer.
constexpr std::size_t value_column = 24;

std::string_view unit_of(std::string_view section, std::string_view key) {
    const report_section* const found = find_section(section);
    const report_row* const row = found != nullptr ? find_row(*found, key) : nullptr;
    return row != nullptr ? row->unit : std::string_view{};
}

/// The section of a container's figures. Only the elements of "mycustoms" are of several kinds; each names
/// its kind under "report".
std::string section_within(const bson_iter_t& container, const std::string& parent_section,
                           std::size_t depth) {
    if (depth == 0) return bson_iter_key(&container);
    bson_iter_t children;
    if (depth != 1 || parent_section != "mycustoms" || !bson_iter_recurse(&container, &children))
        return parent_section;
    const std::string_view kind = text_of(children, "report");
    return kind.empty() ? parent_section : std::string(kind);
}

/// True when the keys of the container's elements are "0", "1", ... as in an ordinary array.
bool is_positional(const bson_iter_t& container) {
    bson_iter_t elements;
    bson_iter_recurse(&container, &elements);
    for (std::size_t position = 0; bson_iter_next(&elements); ++position) {
        if (bson_iter_key(&elements) != std::to_string(position)) return false;
    }
    return true;
}

/// Copies elements into documents that JSON can show.
class json_copy final {
  public:
    /// `is_plain`: the families at the top are objects even when they are empty or numbered, and what is not
    /// a finite number is null.
    explicit json_copy(bool is_plain) : is_plain_(is_plain) {}

    void copy_elements(bson_iter_t& elements, bson_t& copy, int depth) const;

  private:
    void copy_container(const bson_iter_t& element, bson_t& copy, int depth) const;

    bool is_plain_;
};

void json_copy::copy_container(const bson_iter_t& element, bson_t& copy, int depth) const {
    const char* const key = bson_iter_key(&element);
    bson_iter_t children;
    bson_t child;
    bson_iter_recurse(&element, &children);
    const bool is_family = is_plain_ && depth == 0;
    if (BSON_ITER_HOLDS_ARRAY(&element) && !is_family && is_positional(element)) {
        bson_append_array_begin(&copy, key, -1, &child);
        copy_elements(children, child, depth + 1);
        bson_append_array_end(&copy, &child);
    } else {
        bson_append_document_begin(&copy, key, -1, &child);
        copy_elements(children, child, depth + 1);
        bson_append_document_end(&copy, &child);
    }
}

/// An array whose elements have names becomes a document.
void json_copy::copy_elements(bson_iter_t& elements, bson_t& copy, int depth) const {
    while (bson_iter_next(&elements)) {
        if (is_container(elements)) {
            copy_container(elements, copy, depth);
        } else if (is_plain_ && BSON_ITER_HOLDS_DOUBLE(&elements) &&
                   !std::isfinite(bson_iter_double(&elements))) {
            bson_append_null(&copy, bson_iter_key(&elements), -1);
        } else {
            bson_append_iter(&copy, nullptr, 0, &elements);
        }
    }
}

std::string time_text(std::int32_t seconds) {
    const std::time_t moment = seconds;
    std::tm utc{};
    ::gmtime_r(&moment, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text.data();
}

/// The length of the control character that a UTF-8 text begins with, 0 if it begins with another character.
std::size_t control_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
    // U+0080 to U+009F. A terminal takes U+009B for ESC and "[".
    return byte(0) == 0xC2 && text.size() > 1 && byte(1) < 0xA0 ? 2 : 0;
}

std::string value_text(const bson_iter_t& element) {
    std::array<char, 64> text{};
    switch (bson_iter_type(&element)) {
        case BSON_TYPE_INT32:
            return std::to_string(bson_iter_int32(&element));
        case BSON_TYPE_INT64:
            return std::to_string(bson_iter_int64(&element));
        case BSON_TYPE_DOUBLE:
            std::snprintf(text.data(), text.size(), "%.6g", bson_iter_double(&element));
            return text.data();
        case BSON_TYPE_UTF8:
            return printable(bson_iter_utf8(&element, nullptr));
        default:
            return "-";
    }
}

void lay_out(bson_iter_t& elements, const std::string& section, std::size_t depth, std::string& text);

void lay_out_element(const bson_iter_t& element, const std::string& section, std::size_t depth,
                     std::string& text) {
    const std::string_view key = bson_iter_key(&element);
    const std::string start = std::string(2 * depth, ' ') + printable(key);
    text += start;
    if (is_container(element)) {
        text += '\n';
        bson_iter_t children;
        bson_iter_recurse(&element, &children);
        lay_out(children, section_within(element, section, depth), depth + 1, text);
        return;
    }
    const bool is_time = depth == 0 && key == "time" && BSON_ITER_HOLDS_INT32(&element);
    text.append(start.size() < value_column ? value_column - start.size() : 1, ' ');
    text += is_time ? time_text(bson_iter_int32(&element)) : value_text(element);
    if (const std::string_view unit = unit_of(section, key); !unit.empty()) text.append(" ").append(unit);
    text += '\n';
}

void lay_out(bson_iter_t& elements, const std::string& section, std::size_t depth, std::string& text) {
    while (bson_iter_next(&elements))
        lay_out_element(elements, section, depth, text);
}

struct bson_text_free {
    void operator()(char* text) const { bson_free(text); }
};

std::string json_text(std::span<const std::uint8_t> document, const json_copy& form) {
    bson_iter_t elements;
    if (!bson_iter_init_from_data(&elements, document.data(), document.size())) return {};
    bson_t copy = BSON_INITIALIZER;
    form.copy_elements(elements, copy, 0);
    const std::unique_ptr<char, bson_text_free> json(bson_as_relaxed_extended_json(&copy, nullptr));
    bson_destroy(&copy);
    return json ? printable(json.get()) : "";
}

}  // namespace

// A control character could change what the reader's terminal displays. In JSON these are U+007F to U+009F,
// which libbson does not escape.
std::string printable(std::string_view text) {
    std::string clean;
    while (!text.empty()) {
        const std::size_t length = control_length(text);
        if (length == 0) {
            clean += text.front();
            text.remove_prefix(1);
            continue;
        }
        // With either length the last byte equals the code point.
        std::array<char, 8> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\u%04x",
                      static_cast<unsigned char>(text[length - 1]));
        clean += escaped.data();
        text.remove_prefix(length);
    }
    return clean;
}

std::string time_text(std::chrono::system_clock::time_point moment) {
    const auto since_1970 = std::chrono::duration_cast<std::chrono::milliseconds>(moment.time_since_epoch());
    const std::time_t seconds = since_1970.count() / 1000;
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                  static_cast<int>(since_1970.count() % 1000));
    return text.data();
}

std::string report_as_json(std::span<const std::uint8_t> document) {
    return json_text(document, json_copy(false));
}

std::string report_as_json_line(const arrival& from, std::span<const std::uint8_t> document) {
    return R"({"sender":")" + from.sender + R"(","arrived":")" + time_text(from.time) + R"(","signature":")" +
           from.signature + R"(","report":)" + json_text(document, json_copy(true)) + "}";
}

std::string report_as_text(std::span<const std::uint8_t> document) {
    std::string text;
    bson_iter_t elements;
    if (bson_iter_init_from_data(&elements, document.data(), document.size())) lay_out(elements, {}, 0, text);
    return text;
}
