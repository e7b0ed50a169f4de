#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "record/tarn_rates.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_text.h"

/// The table of a kind's figures. A row gives the name of a figure in the reply and how it is read, its rate
/// rule, and its key and type in the report.
namespace tarn {

/// One row. A table lists its rows in the order of the report.
template <typename Record>
struct figure {
    std::string_view name{};  ///< in the reply; empty when the figure is not read by name
    void (*read)(Record& record, std::string_view value) = nullptr;
    /// Replaces the figure of `delta` with its rate; null when it is reported as it was read.
    void (*rate)(const Record& data, const Record& prev, Record& delta, std::uint32_t interval) = nullptr;
    std::string_view key{};  ///< in the report; empty when the figure is not reported
    void (*append)(bson_t& document, std::string_view key, const Record& record) = nullptr;
};

/// How a figure is computed from two samples; see tarn_rates.h.
enum class rule { as_read, per_minute, per_second, increase };

/// The BSON type of a figure. By default texts are strings, floating-point members doubles, and all others
/// int64: signed values sign-extended, unsigned ones zero-extended.
enum class bson { by_member, int32, dbl };

template <typename Member>
struct member_traits;

template <typename Record, typename Value>
struct member_traits<Value Record::*> {
    using record = Record;
    using value = Value;
};

/// The record that a pointer to member belongs to, and the type of the member.
template <auto Member>
using record_of = typename member_traits<decltype(Member)>::record;
template <auto Member>
using value_of = typename member_traits<decltype(Member)>::value;

/// Stores a number, read as "%d" for a member narrower than 64 bits and as "%lu" for others. Without a number
/// the member keeps its value.
template <auto Member>
void store_number(record_of<Member>& record, std::string_view value) {
    using value_type = value_of<Member>;
    std::conditional_t<sizeof(value_type) < sizeof(std::uint64_t), int, std::uint64_t> number = 0;
    if (read_number(value, number) > 0) record.*Member = static_cast<value_type>(number);
}

/// As store_number(), but without a number the member becomes 0.
template <auto Member>
void store_number_or_0(record_of<Member>& record, std::string_view value) {
    record.*Member = 0;
    store_number<Member>(record, value);
}

template <auto Member, rule Rule>
void apply_rule(const record_of<Member>& data, const record_of<Member>& prev, record_of<Member>& delta,
                std::uint32_t interval) {
    const auto now = data.*Member;
    const auto before = prev.*Member;
    if constexpr (Rule == rule::per_minute) delta.*Member = per_minute(now, before, interval);
    if constexpr (Rule == rule::per_second) delta.*Member = per_second(now, before, interval);
    if constexpr (Rule == rule::increase) delta.*Member = increase_per_second(now, before, interval);
}

template <auto Member, bson Type>
void append_member(bson_t& document, std::string_view key, const record_of<Member>& record) {
    if constexpr (std::is_array_v<value_of<Member>>) {
        append_text(document, key, text_of(record.*Member));
    } else if constexpr (Type == bson::int32) {
        append_int32(document, key, static_cast<std::int32_t>(record.*Member));
    } else if constexpr (Type == bson::dbl || std::is_floating_point_v<value_of<Member>>) {
        append_double(document, key, static_cast<double>(record.*Member));
    } else {
        append_int64(document, key, static_cast<std::int64_t>(record.*Member));
    }
}

/// A figure that is not read by name: reported under `key`.
template <auto Member, rule Rule = rule::as_read, bson Type = bson::by_member>
constexpr figure<record_of<Member>> reported(std::string_view key) {
    figure<record_of<Member>> row;
    row.key = key;
    row.append = append_member<Member, Type>;
    if constexpr (Rule != rule::as_read) row.rate = apply_rule<Member, Rule>;
    return row;
}

/// A figure that `Read` reads. With an empty key it is not reported.
template <auto Member, auto Read, rule Rule = rule::as_read>
constexpr figure<record_of<Member>> read_by(std::string_view name, std::string_view key = {}) {
    figure<record_of<Member>> row = reported<Member, Rule>(key);
    row.name = name;
    row.read = Read;
    return row;
}

/// A number from the reply; it keeps its value when the reply has no number there.
template <auto Member, rule Rule = rule::as_read>
constexpr figure<record_of<Member>> number(std::string_view name, std::string_view key = {}) {
    return read_by<Member, store_number<Member>, Rule>(name, key);
}

/// A number from the reply; 0 when the reply has no number there.
template <auto Member, rule Rule = rule::as_read>
constexpr figure<record_of<Member>> number_or_0(std::string_view name, std::string_view key = {}) {
    return read_by<Member, store_number_or_0<Member>, Rule>(name, key);
}

/// A row whose figure is appended by `append`, which may append nothing.
template <typename Record>
constexpr figure<Record> appended_by(void (*append)(bson_t&, std::string_view, const Record&),
                                     figure<Record> row) {
    row.append = append;
    return row;
}

/// The table itself. A duplicate key or name does not compile.
template <typename Record, std::size_t Rows>
consteval std::array<figure<Record>, Rows> figures_of(const figure<Record> (&rows)[Rows]) {
    std::array<figure<Record>, Rows> table{};
    for (std::size_t at = 0; at < Rows; ++at) {
        for (std::size_t other = 0; other < at; ++other) {
            const bool same_key = !rows[at].key.empty() && rows[at].key == rows[other].key;
            const bool same_name = !rows[at].name.empty() && rows[at].name == rows[other].name;
            if (same_key || same_name) throw "duplicate key or name";
        }
        table[at] = rows[at];
    }
    return table;
}

/// Stores the rest of a line that begins with the name of a row as the value of that row.
template <typename Record, std::size_t Rows>
void store_by_prefix(std::string_view line, const std::array<figure<Record>, Rows>& figures, Record& record) {
    if (line.empty()) return;
    for (const figure<Record>& row : figures) {
        if (row.name.empty() || row.name.front() != line.front() || !line.starts_with(row.name)) continue;
        row.read(record, line.substr(row.name.size()));
        return;
    }
}

/// Stores the value of the row with exactly this name, if there is one.
template <typename Record, std::size_t Rows>
void store_by_name(std::string_view name, std::string_view value,
                   const std::array<figure<Record>, Rows>& figures, Record& record) {
    if (name.empty()) return;
    for (const figure<Record>& row : figures) {
        if (row.name != name) continue;
        row.read(record, value);
        return;
    }
}

/// Replaces the figures of `delta` that have a rule with their rates.
template <typename Record, std::size_t Rows>
void apply_rules(const std::array<figure<Record>, Rows>& figures, const Record& data, const Record& prev,
                 Record& delta, std::uint32_t interval) {
    for (const figure<Record>& row : figures) {
        if (row.rate != nullptr) row.rate(data, prev, delta, interval);
    }
}

/// Appends the reported figures in table order.
template <typename Record, std::size_t Rows>
void append_figures(bson_t& document, const std::array<figure<Record>, Rows>& figures, const Record& record) {
    for (const figure<Record>& row : figures) {
        if (!row.key.empty()) row.append(document, row.key, record);
    }
}

}  // namespace tarn
