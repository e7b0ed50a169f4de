#pragma once

#include "record/tarn_counter.h"

/// One Sphinx search daemon, read through its MySQL-protocol listener. All figures are totals in data and
/// changes per minute in data_delta.
struct tarn_mycustom_data_sphinx {
    char user[256];
    char pass[256];  ///< empty when the line has none
    char host[256];
    std::uint32_t port;
    int ok;             ///< the last update completed; set to 1 by init
    std::uint64_t C;    ///< connections
    std::uint64_t C_S;  ///< search commands
    std::uint64_t C_U;  ///< update commands
    std::uint64_t Q;    ///< queries
    double Q_W;         ///< wall time of the queries, seconds
};

extern const tarn_operations sphinx_operations;
