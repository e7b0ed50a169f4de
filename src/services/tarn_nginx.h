#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One Nginx server, read from its stub status page.
struct tarn_mycustom_data_nginx {
    char host[256];     ///< IPv4 address, or "[container]"
    char user[256];     ///< empty when none
    char pass[256];     ///< empty when none
    char server[128];   ///< value of the Host header
    char auth64[1024];  ///< Base64 of "user:password"; empty when either part is
    std::uint32_t port;
    char request_uri[256];  ///< path of the page, one segment, without its leading "/"
    int ok;                 ///< the last update succeeded
    int in_docker;          ///< 1 when the host names a container
    char docker_container_name[128];
    double all;               ///< data: requests served; data_delta: requests per second
    std::uint64_t active;     ///< active connections
    std::uint64_t reading;    ///< connections whose request is being read
    std::uint64_t writing;    ///< connections whose response is being written
    std::uint64_t keepalive;  ///< idle connections, "Waiting" on the page
};

/// Parses the status page, headers included. Returns 1; 0, with the record unchanged, when the text is empty.
int nginx_parse_res(std::string_view raw, tarn_mycustom_data_nginx& data);

extern const tarn_operations nginx_operations;
