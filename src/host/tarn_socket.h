#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// The kernel's current socket counts.
struct tarn_mycustom_data_socket {
    int ok;                    ///< the last update succeeded
    std::uint32_t tcp_inuse;   ///< TCP sockets in use
    std::uint32_t tcp_tw;      ///< TCP sockets in TIME-WAIT
    std::uint32_t tcp_orphan;  ///< TCP sockets that no process holds
    std::uint32_t udp_inuse;   ///< UDP sockets in use
};

/// Reads /proc/net/sockstat. A count that the text does not hold keeps its value.
void socket_parse_sockstat(std::string_view sockstat, tarn_mycustom_data_socket& data);

extern const tarn_operations socket_operations;
