// InfluxDB line protocol: "measurement,tag=value field=value,field=value time".
#include "line_protocol.h"

#include <array>
#include <charconv>

namespace {

constexpr std::string_view special = ",= ";

/// Escapes a tag's value. A line feed would end the line, escaped or not, and a backslash cannot be escaped:
/// it stays as it is, unless it would escape what follows it.
void append_escaped(std::string& text, std::string_view value) {
    for (std::size_t at = 0; at < value.size(); ++at) {
        char c = value[at];
        const bool is_last = at + 1 == value.size();
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') c = ' ';
        if (c == '\\' && (is_last || value[at + 1] <= ' ' || value[at + 1] == '\\' ||
                          special.find(value[at + 1]) != std::string_view::npos)) {
            c = '/';
        }
        if (special.find(c) != std::string_view::npos) text += '\\';
        text += c;
    }
}

/// Appends a tag. One without a value must not be written.
void append_tag(std::string& text, std::string_view name, std::string_view value) {
    if (value.empty()) return;
    text.append(",").append(name).append("=");
    append_escaped(text, value);
}

void append_field(std::string& text, const exported_figure& figure) {
    text.append(figure.row->export_name).append("=");
    std::visit([&text](auto value) { append_number(text, value); }, figure.value);
    if (std::holds_alternative<std::int64_t>(figure.value)) text += 'i';
}

}  // namespace

template <typename Number>
void append_number(std::string& text, Number value) {
    std::array<char, 32> digits{};
    text.append(digits.data(), std::to_chars(digits.begin(), digits.end(), value).ptr);
}
template void append_number(std::string& text, std::int64_t value);
template void append_number(std::string& text, double value);

void append_lines(const report_head& head, std::span<const std::uint8_t> document,
                  std::string_view sub_seconds, std::string& text) {
    export_figures(
        document, head.interval,
        [&](const report_section& section, std::string_view name, std::span<const exported_figure> figures) {
            text += section.export_name;
            append_tag(text, "host", head.host);
            append_tag(text, "name", head.name);
            append_tag(text, section.label, name);
            char separator = ' ';
            for (const exported_figure& figure : figures) {
                text += separator;
                append_field(text, figure);
                separator = ',';
            }
            text += ' ';
            append_number(text, std::int64_t{head.time});
            text.append(sub_seconds).append("\n");
        });
}
