#pragma once

#include <string>

#include "record/tarn_counter.h"

/// One RabbitMQ broker, by its management API. All figures are as read; none is a rate.
struct tarn_mycustom_data_rabbit {
    char host[256];  ///< IPv4 address, or "[container]"
    char user[256];
    char pass[256];
    char auth64[1024];  ///< credentials
    std::uint32_t port;
    int ok;         ///< the last update succeeded
    int in_docker;  ///< the host names a container
    char docker_container_name[128];
    std::uint64_t fd_used;  ///< file descriptors
    std::uint64_t fd_total;
    double fd_used_perc;  ///< per cent, not reported
    std::uint32_t processors;
    std::uint32_t proc_total;  ///< Erlang processes, at most
    std::uint32_t proc_used;
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
    int running;  ///< the node's flag: 1, 0, or -1 when it is not there
};

/// Reads the body of "/api/nodes", of which the first node counts. Without one every figure is 0 and so is
/// the result, else 1.
int rabbit_parse_node_items(std::string body, tarn_mycustom_data_rabbit& data);

/// Reads the body of "/api/queues"; 0 when it is no array, else 1.
int rabbit_parse_queues_items(std::string body, tarn_mycustom_data_rabbit& data);

extern const tarn_operations rabbit_operations;
