#pragma once

#include "record/tarn_counter.h"

/// The kernel's current socket counts.
struct tarn_mycustom_data_socket {
    int ok;                    ///< the last update succeeded
    std::uint32_t tcp_inuse;   ///< TCP sockets in use
    std::uint32_t tcp_tw;      ///< TCP sockets in TIME-WAIT
    std::uint32_t tcp_orphan;  ///< TCP sockets that no process holds
    std::uint32_t udp_inuse;   ///< UDP sockets in use
};

extern const tarn_operations socket_operations;
