#pragma once

#include "record/tarn_counter.h"

/// One MySQL server. Members marked "rate" are totals in data and changes per minute in data_delta; a member
/// whose row is missing from a result keeps its earlier value.
struct tarn_mycustom_data_mysql {
    char user[256];
    char pass[256];      ///< empty when the line has none
    char host[256];      ///< address, or "[container]"
    char socket[256];    ///< Unix socket path; empty when a port is given
    std::uint32_t port;  ///< TCP port; 0 when a socket is given
    int ok;              ///< the last update completed
    int in_docker;       ///< 1 when the host names a container
    char docker_container_name[128];
    std::uint64_t insert;                ///< Com_insert, rate
    std::uint64_t select;                ///< Com_select, rate
    std::uint64_t update;                ///< Com_update, rate
    std::uint64_t delet;                 ///< Com_delete, rate
    std::uint64_t aborted;               ///< Aborted_connects, rate
    std::uint64_t innodb_pool;           ///< data in the buffer pool, bytes; a page counts as 16 KiB
    std::uint64_t innodb_free;           ///< free in the buffer pool, bytes
    std::uint64_t slow;                  ///< Slow_queries, rate
    std::uint64_t innodb_rows_deleted;   ///< rate
    std::uint64_t innodb_rows_inserted;  ///< rate
    std::uint64_t innodb_rows_read;      ///< rate
    std::uint64_t innodb_rows_updated;   ///< rate
    std::uint8_t is_slave;               ///< 1 when the server is a replica
    std::uint32_t slave_io;              ///< 1 when the I/O thread runs
    std::uint32_t slave_sql;             ///< 1 when the SQL thread runs
    std::uint32_t slave_delay;           ///< seconds behind the master
};

extern const tarn_operations mysql_operations;
