#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "record/tarn_counter.h"
#include "record/tarn_figures.h"
#include "record/tarn_records.h"

/// Bodies of operations that many kinds share. A kind names them in its record of operations; `Figures` is
/// its table of figures.
namespace tarn {

template <typename Record>
struct table_traits;

template <typename Record, std::size_t Rows>
struct table_traits<std::array<figure<Record>, Rows>> {
    using record = Record;
};

/// The record type of a table of figures.
template <const auto& Figures>
using record_of_table = typename table_traits<std::remove_cvref_t<decltype(Figures)>>::record;

template <typename Sample>
struct sample_traits;

template <typename Record>
struct sample_traits<bool (*)(Record&)> {
    using record = Record;
};

/// Update: `Sample` fills the record and returns whether it is ok. The record is not ok while it is being
/// filled, so that a sample that an exception cuts short is not taken for a good one.
template <auto Sample>
int sampled(tarn_mycustom_counter& counter) {
    auto& data = data_of<typename sample_traits<decltype(Sample)>::record>(counter);
    data.ok = 0;
    data.ok = Sample(data) ? 1 : 0;
    return data.ok;
}

/// Delta of nearly every kind with rates: copies data into data_delta, where `compute(data, prev, delta)`
/// then replaces the totals with rates. data_delta is ok when this sample and the previous one are. The first
/// cycle only stores its sample.
template <typename Record, typename Compute>
int delta_scheme(tarn_mycustom_counter& counter, std::uint64_t iteration, Compute compute) {
    const auto& data = data_of<Record>(counter);
    auto& prev = data_prev_of<Record>(counter);
    auto& delta = data_delta_of<Record>(counter);
    delta = data;
    delta.ok = iteration != 0 && data.ok != 0 && prev.ok != 0 ? 1 : 0;
    if (delta.ok != 0) compute(data, prev, delta);
    prev = data;
    return 1;
}

/// Delta by the rules of the table.
template <const auto& Figures>
int delta_by_rules(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    using record = record_of_table<Figures>;
    return delta_scheme<record>(counter, iteration,
                                [interval](const record& data, const record& prev, record& delta) {
                                    apply_rules(Figures, data, prev, delta, interval);
                                });
}

/// Delta of kinds without rates: every value is reported as it was read, from the first cycle on.
template <typename Record>
int delta_as_read(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t /*iteration*/) {
    data_delta_of<Record>(counter) = data_of<Record>(counter);
    data_prev_of<Record>(counter) = data_of<Record>(counter);
    return 1;
}

/// Appends a section of the host; all its figures are 0 when `record` is not ok.
template <const auto& Figures>
void append_section(bson_t& document, std::string_view key, const record_of_table<Figures>& record) {
    static constexpr record_of_table<Figures> none{};
    sub_document section(document, key);
    append_figures(section.document(), Figures, record.ok != 0 ? record : none);
}

/// Report element of a service with a family of its own, keyed by its id; nothing when the delta is not ok.
template <const auto& Figures>
int append_by_id(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = data_delta_of<record_of_table<Figures>>(counter);
    if (delta.ok == 0) return 1;
    sub_document service(document, counter.id);
    append_figures(service.document(), Figures, delta);
    return 1;
}

/// The key of a counter of a shared family: report and id, joined by "_".
inline std::string labelled_key(const tarn_mycustom_counter& counter) {
    return std::string(counter.report) + "_" + counter.id;
}

/// As append_by_id(), for a service of the shared family: the element also holds its report and id.
template <const auto& Figures>
int append_labelled(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = data_delta_of<record_of_table<Figures>>(counter);
    if (delta.ok == 0) return 1;
    sub_document service(document, labelled_key(counter));
    append_text(service.document(), "report", counter.report);
    append_text(service.document(), "id", counter.id);
    append_figures(service.document(), Figures, delta);
    return 1;
}

/// Reinit of kinds that have nothing to rediscover.
inline int reinit_nothing(tarn_mycustom_counter& /*counter*/) {
    return 1;
}

/// An operation that does nothing and returns 0 while its client library is not loaded. There is one
/// specialisation for each operation type.
template <auto IsLoaded, auto Operation>
struct when_loaded_body;

template <auto IsLoaded, mycustom_update Operation>
struct when_loaded_body<IsLoaded, Operation> {
    static int call(tarn_mycustom_counter& counter) { return IsLoaded() ? Operation(counter) : 0; }
};

template <auto IsLoaded, mycustom_delta Operation>
struct when_loaded_body<IsLoaded, Operation> {
    static int call(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
        return IsLoaded() ? Operation(counter, interval, iteration) : 0;
    }
};

template <auto IsLoaded, mycustom_tobson Operation>
struct when_loaded_body<IsLoaded, Operation> {
    static int call(tarn_mycustom_counter& counter, bson_t& document) {
        return IsLoaded() ? Operation(counter, document) : 0;
    }
};

template <auto IsLoaded, auto Operation>
constexpr auto when_loaded = when_loaded_body<IsLoaded, Operation>::call;

}  // namespace tarn
