#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One Apache server, read from the machine-readable form of its server-status page.
struct tarn_mycustom_data_apache {
    char host[256];     ///< IPv4 address
    char user[256];     ///< empty when none
    char pass[256];     ///< empty when none
    char auth64[1024];  ///< Base64 of "user:password"; empty when either part is
    std::uint32_t port;
    int ok;                       ///< the last update succeeded
    std::uint64_t busyWorkers;    ///< workers serving a request
    std::uint64_t idleWorkers;    ///< workers waiting for a request
    std::uint64_t scWaiting;      ///< scoreboard cells "W"
    std::uint64_t scReading;      ///< cells "R"
    std::uint64_t scKeepalive;    ///< cells "K"
    std::uint64_t scIdlecleanup;  ///< cells "I"
    std::uint64_t scDns;          ///< cells "D"
    std::uint64_t scFinishing;    ///< cells "G"
    std::uint64_t scClosing;      ///< cells "C"
    std::uint64_t scLogging;      ///< cells "L"
    std::uint64_t totalAccesses;  ///< data: accesses; data_delta: accesses per second, wraps at a restart
};

/// Parses the status page, headers included. Returns 1; 0, with the record unchanged, when the text is empty.
int apache_parse_res(std::string_view raw, tarn_mycustom_data_apache& data);

extern const tarn_operations apache_operations;
