// Finds the figures of a report that other systems take, and converts each to its exported unit.
#include "report_figures.h"

#include <bson/bson.h>

#include <algorithm>
#include <bitset>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "report_bson.h"

namespace {

/// A UUID has 36 characters; the agent sends any text of up to 99 bytes.
constexpr std::uint32_t max_host_length = 255;

/// Far more disks, servers and scripts than a host has. Every one of them becomes a series.
constexpr std::size_t max_elements = 10000;

constexpr std::int32_t max_interval = 86400;

/// A busy share is computed from two clocks and may lie a little above 100 %.
constexpr double max_percentage = 1000;

std::uint32_t read_uint32(std::string_view bytes) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data(), sizeof value);
    return BSON_UINT32_FROM_LE(value);
}

/// The first `length` bytes of a valid UTF-8 text, or less so as not to cut a character.
std::string_view truncated(std::string_view text, std::size_t length) {
    if (text.size() <= length) return text;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U)
        --length;
    return text.substr(0, length);
}

/// True for a value that only a source which went back can have. The difference of its totals is then a
/// little below 2^64 (or 2^32) before it is divided by the interval.
bool has_wrapped(figure_rule rule, std::int64_t value, std::uint32_t interval) {
    const auto bits = static_cast<std::uint64_t>(value);
    switch (rule) {
        case figure_rule::percentage:
            return bits > 100;
        case figure_rule::rate:
            return bits >= (std::uint64_t{1} << 63U) / interval;
        case figure_rule::rate32:
            return bits >= (std::uint64_t{1} << 31U) / interval;
        default:
            return false;
    }
}

/// Dividing by 100 is exact where multiplying by 0.01 is not.
double scaled(double value, double scale) {
    return scale < 1 ? value / std::round(1 / scale) : value * scale;
}

using value_or_none = std::optional<std::variant<std::int64_t, double>>;

value_or_none exported_integer(const report_row& row, std::int64_t value, std::uint32_t interval) {
    if (has_wrapped(row.rule, value, interval)) return {};
    // Undoes the division, which was made without regard to the sign of a fall.
    if (row.rule == figure_rule::change) {
        value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) * interval) / interval;
    }
    if (row.scale < 1) return scaled(static_cast<double>(value), row.scale);
    std::int64_t result = 0;
    if (__builtin_mul_overflow(value, static_cast<std::int64_t>(row.scale), &result)) return {};
    return result;
}

value_or_none exported_double(const report_row& row, double value) {
    if (row.rule == figure_rule::percentage && value > max_percentage) return {};
    const double result = scaled(value, row.scale);
    return std::isfinite(result) ? value_or_none(result) : value_or_none();
}

/// The value of an element in the type of its row, so that the type of an exported figure never changes.
value_or_none exported_value(const report_row& row, const bson_iter_t& element, std::uint32_t interval) {
    const bool is_integer = row.type == bson::int32 || row.type == bson::int64;
    switch (bson_iter_type(&element)) {
        case BSON_TYPE_INT32:
        case BSON_TYPE_INT64:
            return is_integer ? exported_integer(row, bson_iter_as_int64(&element), interval)
                              : value_or_none();
        case BSON_TYPE_DOUBLE:
            return row.type == bson::float64 ? exported_double(row, bson_iter_double(&element))
                                             : value_or_none();
        case BSON_TYPE_UTF8:
            if (row.type != bson::text) return {};
            return std::int64_t{bson_iter_utf8(&element, nullptr) == row.export_name ? 1 : 0};
        default:
            return {};
    }
}

/// An integer among the children of an element.
std::optional<std::int64_t> find_integer(const bson_iter_t& before_first, const char* key) {
    bson_iter_t children = before_first;
    const bool found = bson_iter_find(&children, key) && BSON_ITER_HOLDS_INT(&children);
    return found ? std::optional(bson_iter_as_int64(&children)) : std::nullopt;
}

class exporter final {
  public:
    exporter(std::uint32_t interval, const figure_sink& sink) : interval_(interval), sink_(sink) {}

    void export_section(const bson_iter_t& container);
    void export_element(const report_section& section, std::string_view name, bson_iter_t& children);

  private:
    void export_named(const report_section& section, const bson_iter_t& element);

    std::uint32_t interval_;
    const figure_sink& sink_;
    std::vector<exported_figure> figures_;
    std::set<std::pair<const report_section*, std::string_view>> exported_;
};

/// Sinks the figures among the children, unless `ok` says that they are only placeholders.
void exporter::export_element(const report_section& section, std::string_view name, bson_iter_t& children) {
    if (find_integer(children, "ok") == 0) return;
    if (exported_.size() >= max_elements || !exported_.emplace(&section, name).second) return;
    // What a fall of a 32-bit total looks like depends on its height; a short uptime is a surer sign of it.
    const bool has_restarted = find_integer(children, "uptime").value_or(INT64_MAX) <= interval_;
    std::bitset<64> seen;
    figures_.clear();
    while (bson_iter_next(&children)) {
        const report_row* const row = find_row(section, bson_iter_key(&children));
        if (row == nullptr || row->export_name.empty()) continue;
        if (row->rule == figure_rule::rate32 && has_restarted) continue;
        const auto place = static_cast<std::size_t>(row - section.rows.data());
        if (seen.test(place)) continue;
        seen.set(place);
        if (const auto value = exported_value(*row, children, interval_)) figures_.push_back({row, *value});
    }
    if (!figures_.empty()) sink_(section, name, figures_);
}

/// Exports an element of a section whose elements have names. Those of "mycustoms" name their section.
void exporter::export_named(const report_section& section, const bson_iter_t& element) {
    bson_iter_t children;
    bson_iter_recurse(&element, &children);
    const report_section* kind = &section;
    std::string_view name = bson_iter_key(&element);
    if (section.export_name.empty()) {
        kind = find_section(text_of(children, "report"));
        name = text_of(children, "id");
    }
    if (kind != nullptr && !kind->label.empty())
        export_element(*kind, truncated(name, max_element_name), children);
}

void exporter::export_section(const bson_iter_t& container) {
    const std::string_view key = bson_iter_key(&container);
    const report_section* const section = key.empty() ? nullptr : find_section(key);
    if (section == nullptr) return;
    bson_iter_t children;
    bson_iter_recurse(&container, &children);
    if (section->label.empty() && !section->export_name.empty()) {
        export_element(*section, {}, children);
        return;
    }
    while (bson_iter_next(&children)) {
        if (is_container(children)) export_named(*section, children);
    }
}

}  // namespace

std::string host_of(std::span<const std::uint8_t> document) {
    constexpr std::string_view id("\x10id\0", 4);
    constexpr std::string_view uuid("\x02uuid\0", 6);
    constexpr std::size_t number_size = 4;
    std::string_view rest(reinterpret_cast<const char*>(document.data()), document.size());
    rest.remove_prefix(std::min(rest.size(), number_size));
    if (rest.starts_with(id) && rest.size() >= id.size() + number_size)
        return std::to_string(read_uint32(rest.substr(id.size())));
    if (!rest.starts_with(uuid) || rest.size() < uuid.size() + number_size) return {};
    // The stated length includes a zero byte.
    const std::uint32_t length = read_uint32(rest.substr(uuid.size()));
    rest.remove_prefix(uuid.size() + number_size);
    if (length < 2 || length > max_host_length || length > rest.size()) return {};
    return std::string(rest.substr(0, length - 1));
}

report_head head_of(std::span<const std::uint8_t> document) {
    report_head head;
    head.host = host_of(document);
    bson_iter_t top;
    if (!bson_iter_init_from_data(&top, document.data(), document.size())) return head;
    head.name = truncated(text_of(top, "server_name"), max_element_name);
    head.time = static_cast<std::int32_t>(
        std::clamp<std::int64_t>(find_integer(top, "time").value_or(0), INT32_MIN, INT32_MAX));
    head.interval = static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(find_integer(top, "interval").value_or(1), 1, max_interval));
    return head;
}

void export_figures(std::span<const std::uint8_t> document, std::uint32_t interval, const figure_sink& sink) {
    bson_iter_t top;
    if (!bson_iter_init_from_data(&top, document.data(), document.size())) return;
    exporter figures(interval, sink);
    bson_iter_t of_host = top;
    figures.export_element(*find_section({}), {}, of_host);
    while (bson_iter_next(&top)) {
        if (is_container(top)) figures.export_section(top);
    }
}
