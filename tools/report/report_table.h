#pragma once

#include <span>
#include <string_view>

/// The types of the report's elements, as BSON names them.
enum class bson { float64, text, document, array, int32, int64 };

/// How a figure behaves when its source starts again from 0 or falls.
enum class figure_rule {
    gauge,       ///< it stands for itself
    total,       ///< it starts again from 0
    percentage,  ///< wraps around in 64 bits; never above 100 otherwise, or little above when it is a double
    rate,        ///< of a total, wraps around in 64 bits
    rate32,      ///< of a total, wraps around in 32 bits
    change       ///< of a gauge, a fall wraps around in 64 bits
};

/// One element of a section of the report.
struct report_row {
    std::string_view key;
    bson type;
    std::string_view unit;  ///< printed after the value; empty for a flag, a code, a text
    /// For other systems, with the base unit at its end; empty: not exported. A text is exported as 1 when it
    /// equals this name and as 0 otherwise.
    std::string_view export_name;
    double scale;  ///< factor from the reported unit to that of the exported figure
    figure_rule rule;
    std::string_view meaning;  ///< source and rule, in Markdown
};

/// The elements that a part of the report consists of.
struct report_section {
    std::string_view name;         ///< top-level key; of the services in "mycustoms" the kind; "" for the top
    std::string_view export_name;  ///< what the exported names begin with; empty: nothing is exported
    std::string_view label;        ///< what the name of an element is called there; empty for a single one
    std::span<const report_row> rows;
};

/// All sections, in the order of the report.
std::span<const report_section> report_sections();

/// The section of this name, or null.
const report_section* find_section(std::string_view name);

/// The row of a key, or null.
const report_row* find_row(const report_section& section, std::string_view key);
