#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "report_table.h"

/// What a report says about itself.
struct report_head {
    std::string host;            ///< see host_of()
    std::string name;            ///< configured server name; empty when the report has none
    std::int32_t time = 0;       ///< wall clock of the host, seconds since 1970-01-01 UTC; 0 when missing
    std::uint32_t interval = 1;  ///< seconds between two reports, 1 to a day
};

/// A figure with the name, the unit and the type that the table gives it.
struct exported_figure {
    const report_row* row;
    std::variant<std::int64_t, double> value;  ///< finite
};

/// Takes the figures of one element of the report: of the host itself, or of one of its disks, servers, ...
/// `name` is what the section's label stands for, at most max_element_name bytes; empty when it has none.
using figure_sink = std::function<void(const report_section& section, std::string_view name,
                                       std::span<const exported_figure> figures)>;

/// Longer names of elements are truncated, in bytes.
inline constexpr std::size_t max_element_name = 255;

/// Returns the id, as the configuration writes it, or the UUID that a document begins with; empty when it
/// begins with neither. Reads the first element only, so that the bytes may be of any origin.
std::string host_of(std::span<const std::uint8_t> document);

/// Returns the head of a valid document.
report_head head_of(std::span<const std::uint8_t> document);

/// Calls `sink` once for each element that has figures to export. Left out are figures that are not finite or
/// have wrapped around, elements without good figures, and what bears the name of an earlier element.
void export_figures(std::span<const std::uint8_t> document, std::uint32_t interval, const figure_sink& sink);
