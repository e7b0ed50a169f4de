#pragma once

#include <string>

#include "record/tarn_counter.h"

/// One Elasticsearch node and its cluster's health. All figures are as read, modulo 2^16; none is a rate.
struct tarn_mycustom_data_elastic {
    char host[256];       ///< IPv4 address, or "[container]"
    char user[256];       ///< reserved
    char pass[256];       ///< reserved
    char node_name[256];  ///< the key of the node in the statistics
    std::uint16_t port;
    int ok;         ///< the last update succeeded
    int in_docker;  ///< the host names a container
    char docker_container_name[128];
    std::uint16_t node_queue_size;        ///< queued tasks of all thread pools
    std::uint16_t node_active_size;       ///< active threads of all thread pools
    std::uint16_t threads_search_active;  ///< of the search pool
    std::uint16_t threads_search_queue;   ///< of the search pool
    int status;                           ///< cluster health: 3 green, 2 yellow, 1 red
    std::uint16_t relocating_shards;
    std::uint16_t initializing_shards;
    std::uint16_t unassigned_shards;
};

/// Reads the body of "/_nodes/NAME/stats/thread_pool". When it is no object the four thread figures are 0 and
/// so is the result, else 1.
int elastic_parse_node_items(std::string body, tarn_mycustom_data_elastic& data);

/// Reads the body of "/_cluster/health"; 0 when it does not parse, else 1.
int elastic_parse_cluster_health(std::string body, tarn_mycustom_data_elastic& data);

extern const tarn_operations elastic_operations;
