#pragma once

#include <cstdint>
#include <string_view>

#include "record/tarn_figures.h"
#include "record/tarn_records.h"
#include "support/tarn_bson_append.h"

/// Delta and report of records that hold a list of named devices.
namespace tarn {

/// Delta: appends the result of `rates(now, before)` to data_delta for each device that is in both samples.
/// `List` is the record's list, its `positions` the name index. An exception leaves neither rates nor a
/// previous sample.
template <auto List, typename Rates>
int delta_by_name(tarn_mycustom_counter& counter, std::uint64_t iteration, Rates rates) {
    using record = record_of<List>;
    const auto& data = data_of<record>(counter);
    auto& prev = data_prev_of<record>(counter);
    auto& delta = data_delta_of<record>(counter);
    const bool has_rates = iteration != 0 && data.ok != 0 && prev.ok != 0;
    prev.ok = delta.ok = 0;
    (delta.*List).clear();
    if (has_rates) {
        for (const auto& now : data.*List) {
            const auto before = prev.positions.find(now.device);
            if (before) (delta.*List).push_back(rates(now, (prev.*List)[*before]));
        }
        delta.ok = 1;
    }
    prev.*List = data.*List;
    prev.positions.rebuild(prev.*List);
    prev.ok = data.ok;
    return 1;
}

/// Report: appends a section with a sub-document for each element that is ok, keyed by its name. The section
/// is empty when the list is not ok.
template <const auto& Figures, auto Name, typename List>
void append_by_name(bson_t& document, std::string_view key, bool is_ok, const List& list) {
    sub_document section(document, key);
    if (!is_ok) return;
    for (const auto& element : list) {
        if (element.ok == 0) continue;
        sub_document device(section.document(), element.*Name);
        append_figures(device.document(), Figures, element);
    }
}

}  // namespace tarn
