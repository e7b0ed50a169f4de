// Reads /proc/net/dev: two header lines, then one line per interface: "name:", the receive totals (bytes and
// seven more) and the transmit totals (bytes and seven more).
#include "host/tarn_net.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "host/tarn_devices.h"
#include "record/tarn_config.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_net = tarn_mycustom_data_net;
using enum tarn::rule;

/// Bytes per second are reported as bits per second.
template <auto Member>
void append_bits(bson_t& document, std::string_view key, const mibnet& interface) {
    tarn::append_int64(document, key, static_cast<std::int64_t>(interface.*Member * 8));
}

constexpr auto figures = tarn::figures_of<mibnet>({
    tarn::reported<&mibnet::ok>("ok"),
    tarn::reported<&mibnet::device>("name"),
    tarn::appended_by(append_bits<&mibnet::rbytes>, tarn::reported<&mibnet::rbytes, per_second>("rbytes")),
    tarn::appended_by(append_bits<&mibnet::sbytes>, tarn::reported<&mibnet::sbytes, per_second>("sbytes")),
});

/// Removes the interface name and its colon from the front of a line. Old kernels put no blank between the
/// colon and the first number.
std::string_view take_name(std::string_view& line) {
    return tarn::next_token(line, " \t\n\v\f\r:");
}

/// Reads the first number as received, the ninth as sent. A number missing from a truncated line is 0.
void parse_totals(std::string_view text, mibnet& interface) {
    std::array<std::uint64_t, 9> totals{};
    tarn::scanner fields(text);
    for (std::uint64_t& total : totals) {
        if (!fields.number(total)) break;
    }
    interface.rbytes = totals.front();
    interface.sbytes = totals.back();
}

mibnet rates_of(const mibnet& now, const mibnet& before) {
    mibnet rates{};
    tarn::copy_terminated(rates.device, now.device);
    tarn::apply_rules(figures, now, before, rates, config.interval);
    rates.ok = now.ok != 0 && before.ok != 0 ? 1 : 0;
    return rates;
}

}  // namespace

void net_parse_dev(std::string_view dev, bool (*is_excluded)(std::string_view name),
                   tarn_mycustom_data_net& data) {
    data.mibnet_list.clear();
    data.positions.clear();
    tarn::line_reader lines(dev);
    std::string_view line;
    if (!lines.next(line) || !lines.next(line)) return;
    while (lines.next(line)) {
        const std::string_view name = take_name(line);
        if (name.empty() || is_excluded(name)) continue;
        if (!data.positions.add(name, data.mibnet_list.size())) continue;
        mibnet& interface = data.mibnet_list.emplace_back();
        interface.ok = data.ok;
        tarn::copy_terminated(interface.device, name);
        parse_totals(line, interface);
    }
    data.positions.clear();
}

namespace {

bool excluded_interface(std::string_view name) {
    return tarn::in_excludelist(name, config.interface_exclude_masks, config.interface_exclude_masks_count);
}

int net_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_net>(counter, "net");
    return 1;
}

/// `ok` is changed only after the list is read, because the entries copy that of the previous update.
int net_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_net>(counter);
    try {
        const auto dev = tarn::read_kernel_file("/proc/net/dev");
        if (dev) net_parse_dev(*dev, excluded_interface, data);
        data.ok = dev ? 1 : 0;
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "net_update", std::strerror(ENOMEM));
        data.ok = 0;
    }
    return data.ok;
}

int net_delta(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t iteration) {
    return tarn::delta_by_name<&data_net::mibnet_list>(counter, iteration, rates_of);
}

int net_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_net>(counter);
    tarn::append_by_name<figures, &mibnet::device>(document, "net", delta.ok != 0, delta.mibnet_list);
    return 1;
}

int net_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_net>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, delta.ok);
    std::printf("\tNet interfaces:\n");
    for (const mibnet& interface : delta.mibnet_list) {
        std::printf("\tok = %d\n", interface.ok);
        std::printf("\tdev = %s\n", interface.device);
        std::printf("\tbytes read = %" PRIu64 "\n", interface.rbytes);
        std::printf("\tbytes write = %" PRIu64 "\n", interface.sbytes);
    }
    return 1;
}

}  // namespace

const tarn_operations net_operations = {
    .init = net_init,
    .update = net_update,
    .delta = net_delta,
    .tobson = net_tobson,
    .dump = net_dump,
    .free = tarn::free_records<data_net>,
};
