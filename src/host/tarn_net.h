#pragma once

#include <string_view>
#include <vector>

#include "record/tarn_counter.h"
#include "support/tarn_name_index.h"

/// One network interface. The figures are totals in data and data_prev, bytes per second in data_delta.
struct mibnet {
    int ok;                ///< data: the previous sample succeeded; data_delta: both entries were ok
    char device[256];      ///< interface name
    std::uint64_t sbytes;  ///< bytes sent
    std::uint64_t rbytes;  ///< bytes received
};

/// Receive and transmit rates of every interface that is not excluded.
struct tarn_mycustom_data_net {
    int ok;                           ///< the last update succeeded
    std::vector<mibnet> mibnet_list;  ///< in the order of /proc/net/dev
    tarn::name_index positions;       ///< data_prev: index of an interface name in the list
};

/// Fills the list from /proc/net/dev, without excluded interfaces. Each entry copies the record's `ok`, which
/// is still that of the previous update, so an interface is first reported at the third good sample.
void net_parse_dev(std::string_view dev, bool (*is_excluded)(std::string_view name),
                   tarn_mycustom_data_net& data);

extern const tarn_operations net_operations;
