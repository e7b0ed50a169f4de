#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One PHP-FPM pool, read from its status page over FastCGI.
struct tarn_mycustom_data_fpm {
    char host[256];         ///< IPv4 address, or "[container]"
    char socket[256];       ///< Unix socket path; empty for TCP
    char server[128];       ///< not used
    std::uint32_t port;     ///< TCP port; 0 with a socket
    char status_path[256];  ///< sent as script name and request URI
    int ok;                 ///< 1 once a complete record has been received; never reset to 0
    int in_docker;          ///< 1 when the host names a container
    char docker_container_name[128];
    double accepted;             ///< data: connections accepted; data_delta: per second
    std::uint64_t active;        ///< active processes
    std::uint64_t idle;          ///< idle processes
    std::uint64_t total;         ///< processes
    std::uint64_t lqueue;        ///< size of the listen queue
    std::uint64_t max_children;  ///< times the process limit was reached
};

/// Parses the status text, headers included. Returns 1; 0, with the record unchanged, when the text is empty.
int fpm_parse_res(std::string_view raw, tarn_mycustom_data_fpm& data);

extern const tarn_operations fpm_operations;
