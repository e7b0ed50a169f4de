#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One Redis server. Members marked "rate" are totals in data and changes per minute in data_delta; a member
/// whose line is missing from a reply keeps its earlier value.
struct tarn_mycustom_data_redis {
    char user[256];  ///< stored, never sent
    char pass[256];  ///< empty for no authentication
    char name[256];  ///< never filled; printed empty
    char host[256];  ///< IPv4 address, or "[container]"
    std::uint32_t port;
    int ok;         ///< the last update completed the exchange
    int in_docker;  ///< 1 when the host names a container
    char docker_container_name[128];
    char replica_role[256];            ///< "master" or "slave"
    std::uint32_t master_link_status;  ///< 1 when the link to the master is up
    std::uint32_t connected_slaves;
    std::uint32_t master_sync_in_progress;  ///< flag, not reported
    std::uint32_t master_sync_left_bytes;   ///< bytes
    std::uint32_t status;                   ///< 1 when the last connect succeeded
    std::uint32_t uptime;                   ///< seconds
    std::uint32_t connected_clients;
    std::uint32_t total_connections_received;  ///< rate
    std::uint32_t total_commands_processed;    ///< rate
    std::uint32_t keyspace_hits;               ///< rate
    std::uint32_t keyspace_misses;             ///< rate
    std::uint32_t expired_keys;                ///< rate
    std::uint32_t evicted_keys;                ///< rate
    std::uint32_t rdb_last_bgsave_status;      ///< 1 when the last background save succeeded
    std::uint32_t used_memory;                 ///< bytes, modulo 2^32
    std::uint32_t num_of_keys;                 ///< keys of database 0
};

/// Parses the reply to "info".
void redis_parse_info(std::string_view reply, tarn_mycustom_data_redis& data);

extern const tarn_operations redis_operations;
