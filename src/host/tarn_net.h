#pragma once

#include <string_view>
#include <vector>

#include "record/tarn_counter.h"
#include "support/tarn_name_index.h"

/// One network interface. In data and data_prev the figures are totals, in data_delta bytes per second.
struct mibnet {
    int ok;                ///< data: the sample before this one succeeded; data_delta: both entries were ok
    char device[256];      ///< interface name
    std::uint64_t sbytes;  ///< bytes sent
    std::uint64_t rbytes;  ///< bytes received
};

/// Receive and transmit rates of every interface that is not excluded.
struct tarn_mycustom_data_net {
    int ok;                           ///< the last update succeeded
    std::vector<mibnet> mibnet_list;  ///< in the order of /proc/net/dev
    tarn::name_index positions;       ///< data_prev: interface name to its place in the list
};

/// Fills the list from /proc/net/dev, without excluded interfaces. Every entry's `ok` is the record's own,
/// that is the success of the update before, so an interface is first reported at the third good sample.
void net_parse_dev(std::string_view dev, bool (*is_excluded)(std::string_view name),
                   tarn_mycustom_data_net& data);

extern const tarn_operations net_operations;
