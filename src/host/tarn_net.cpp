// Read from /proc/net/dev: two header lines, then one line per interface, "name: receive totals (bytes, then
// seven more) transmit totals (bytes, then seven more)".
#include "host/tarn_net.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_net = tarn_mycustom_data_net;

void append_name(bson_t& document, const char* key, const mibnet& interface) {
    tarn::append_text(document, key, interface.device);
}

/// Bytes per second are reported as bits per second.
template <auto Member>
void as_bits(bson_t& document, const char* key, const mibnet& interface) {
    tarn::append_int64(document, key, static_cast<std::int64_t>(interface.*Member * 8));
}

constexpr tarn::bson_row<mibnet> rows[] = {{"ok", tarn::as_int64<&mibnet::ok>},
                                           {"name", append_name},
                                           {"rbytes", as_bits<&mibnet::rbytes>},
                                           {"sbytes", as_bits<&mibnet::sbytes>}};

/// Takes the interface name off a line, with its colon. Old kernels put no blank between the colon and the
/// first number.
std::string_view take_name(std::string_view& line) {
    return tarn::next_token(line, " \t\n\v\f\r:");
}

/// The first number received, the ninth sent. What a cut line does not hold is 0.
void parse_totals(std::string_view text, mibnet& interface) {
    std::array<std::uint64_t, 9> totals{};
    tarn::scanner fields(text);
    for (std::uint64_t& total : totals) {
        if (!fields.number(total)) break;
    }
    interface.rbytes = totals.front();
    interface.sbytes = totals.back();
}

mibnet rates(const mibnet& now, const mibnet& before) {
    mibnet result{};
    tarn::copy_text(result.device, now.device);
    result.rbytes = (now.rbytes - before.rbytes) / config.interval;
    result.sbytes = (now.sbytes - before.sbytes) / config.interval;
    result.ok = now.ok != 0 && before.ok != 0 ? 1 : 0;
    return result;
}

}  // namespace

int excluded_interface(std::string_view name) {
    return tarn::in_excludelist(name, config.interface_exclude_masks, config.interface_exclude_masks_count)
               ? 1
               : 0;
}

void net_parse_dev(std::string_view dev, tarn_mycustom_data_net& data) {
    data.mibnet_list.clear();
    data.positions.clear();
    tarn::line_reader lines(dev);
    std::string_view line;
    if (!lines.next(line) || !lines.next(line)) return;
    while (lines.next(line)) {
        const std::string_view name = take_name(line);
        if (name.empty() || excluded_interface(name) != 0) continue;
        if (!data.positions.add(name, data.mibnet_list.size())) continue;
        mibnet& interface = data.mibnet_list.emplace_back();
        interface.ok = data.ok;
        tarn::copy_text(interface.device, name);
        parse_totals(line, interface);
    }
    data.positions.clear();
}

int net_init(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_net>(counter);
    tarn::copy_text(counter.report, "net");
    return 1;
}

int net_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_net>(counter);
    try {
        const auto dev = tarn::read_file("/proc/net/dev");
        if (dev) net_parse_dev(*dev, data);
        data.ok = dev ? 1 : 0;
    } catch (const std::bad_alloc&) {
        std::printf("failed to malloc: %s: %s", "net_update", std::strerror(ENOMEM));
        data.ok = 0;
    }
    return data.ok;
}

int net_delta(tarn_mycustom_counter& counter, std::uint32_t /*interval*/, std::uint64_t iteration) {
    const auto& data = tarn::data_of<data_net>(counter);
    auto& prev = tarn::data_prev_of<data_net>(counter);
    auto& delta = tarn::data_delta_of<data_net>(counter);
    try {
        delta.mibnet_list.clear();
        delta.ok = iteration != 0 && data.ok != 0 && prev.ok != 0 ? 1 : 0;
        if (delta.ok != 0) {
            for (const mibnet& now : data.mibnet_list) {
                const auto before = prev.positions.find(now.device);
                if (before) delta.mibnet_list.push_back(rates(now, prev.mibnet_list[*before]));
            }
        }
        prev.mibnet_list = data.mibnet_list;
        prev.positions.rebuild(prev.mibnet_list);
        prev.ok = data.ok;
    } catch (const std::bad_alloc&) {
        prev.ok = 0;
        return 0;
    }
    return 1;
}

int net_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_net>(counter);
    tarn::sub_document net(document, "net");
    if (delta.ok == 0) return 1;
    for (const mibnet& interface : delta.mibnet_list) {
        if (interface.ok == 0) continue;
        tarn::sub_document element(net.document(), interface.device);
        tarn::append_rows(element.document(), rows, interface);
    }
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

int net_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_net>(counter);
    return 1;
}
