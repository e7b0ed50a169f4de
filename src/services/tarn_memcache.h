#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One memcached server. Members marked "rate" are totals in data and changes per minute in data_delta; a
/// member whose line is missing from a reply keeps its earlier value.
struct tarn_mycustom_data_memcache {
    char ip[256];      ///< IPv4 address, or "[container]"
    char socket[256];  ///< Unix socket path; empty for TCP
    int port;          ///< TCP port; 0 with a socket
    int ok;            ///< the last update completed
    int in_docker;     ///< 1 when the address names a container
    char docker_container_name[128];
    std::uint64_t get;          ///< cmd_get, rate
    std::uint64_t set;          ///< cmd_set, rate
    std::uint64_t misses;       ///< get_misses, rate
    std::uint64_t hits;         ///< get_hits, rate
    std::uint64_t evictions;    ///< rate
    std::uint64_t connections;  ///< curr_connections
    std::uint64_t read;         ///< bytes_read, rate
    std::uint64_t write;        ///< bytes_written, rate
    std::uint64_t bytes;        ///< bytes stored
    std::uint64_t max_bytes;    ///< limit_maxbytes, bytes
};

/// Parses the reply to "stats".
void memcache_parse_stats(std::string_view reply, tarn_mycustom_data_memcache& data);

extern const tarn_operations memcache_operations;
