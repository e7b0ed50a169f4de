#pragma once

#include <string>

#include "record/tarn_counter.h"

/// One RabbitMQ broker, read through its management API. No value is a rate.
struct tarn_mycustom_data_rabbit {
    char host[256];  ///< IPv4 address, or "[container]"
    char user[256];
    char pass[256];
    char auth64[1024];  ///< Base64 of "user:password"
    std::uint32_t port;
    int ok;         ///< the last update succeeded
    int in_docker;  ///< 1 when the host names a container
    char docker_container_name[128];
    std::uint64_t fd_used;   ///< file descriptors in use
    std::uint64_t fd_total;  ///< file descriptors available
    double fd_used_perc;     ///< per cent, not reported
    std::uint32_t processors;
    std::uint32_t proc_total;      ///< limit of Erlang processes
    std::uint32_t proc_used;       ///< Erlang processes
    double proc_used_perc;         ///< per cent
    double disk_free_limit;        ///< GB (10^9 bytes)
    double disk_free;              ///< GB
    double disk_left;              ///< GB above the limit, 0 below it
    double mem_limit;              ///< MB (10^6 bytes)
    double mem_used;               ///< MB
    double mem_left;               ///< MB below the limit, 0 above it
    double mem_used_perc;          ///< per cent of the limit, 0 above it
    std::uint32_t queues_sum_len;  ///< messages in all queues
    std::uint32_t queues_count;
    int running;  ///< the node's flag: 1, 0, or -1 when missing
};

/// Parses the body of "/api/nodes"; only the first node is used. Returns 1; 0, with every value cleared, when
/// there is none.
int rabbit_parse_node_items(std::string body, tarn_mycustom_data_rabbit& data);

/// Parses the body of "/api/queues". Returns 1; 0 when the body is not an array.
int rabbit_parse_queues_items(std::string body, tarn_mycustom_data_rabbit& data);

extern const tarn_operations rabbit_operations;
