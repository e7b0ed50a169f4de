#pragma once

#include <string>

#include "record/tarn_counter.h"

/// One Elasticsearch node and its cluster's health. Counts are stored modulo 2^16; none is a rate.
struct tarn_mycustom_data_elastic {
    char host[256];       ///< IPv4 address, or "[container]"
    char user[256];       ///< not used
    char pass[256];       ///< not used
    char node_name[256];  ///< key of the node in the statistics
    std::uint16_t port;
    int ok;         ///< the last update succeeded
    int in_docker;  ///< 1 when the host names a container
    char docker_container_name[128];
    std::uint16_t node_queue_size;        ///< queued tasks of all thread pools
    std::uint16_t node_active_size;       ///< active threads of all thread pools
    std::uint16_t threads_search_active;  ///< active threads of the search pool
    std::uint16_t threads_search_queue;   ///< queued tasks of the search pool
    int status;                           ///< cluster health: 3 green, 2 yellow, 1 red
    std::uint16_t relocating_shards;
    std::uint16_t initializing_shards;
    std::uint16_t unassigned_shards;
};

/// Parses the body of "/_nodes/NAME/stats/thread_pool". Returns 1; 0, with the four thread counts cleared,
/// when the body is not a JSON object.
int elastic_parse_node_items(std::string body, tarn_mycustom_data_elastic& data);

/// Parses the body of "/_cluster/health". Returns 1; 0 when the body is not valid JSON.
int elastic_parse_cluster_health(std::string body, tarn_mycustom_data_elastic& data);

extern const tarn_operations elastic_operations;
