#pragma once

#include <string>

#include "record/tarn_counter.h"

/// One PostgreSQL server. Members marked "rate" are totals (or gauges) in data and changes per minute in
/// data_delta.
struct tarn_mycustom_data_postgre {
    char user[256];
    char pass[256];  ///< empty when the line has none
    char host[256];
    char socket[256];        ///< last word of the line if not an integer; passed to the library as the port
    char port[256];          ///< last word of the line if an integer
    int ok;                  ///< the last update completed
    std::uint64_t commited;  ///< sum of xact_commit, rate
    std::uint64_t rolled_back;            ///< always 0: the server folds the column name, so it never matches
    std::uint64_t checkpoint_timeout;     ///< checkpoints_timed of pg_stat_bgwriter
    std::uint64_t checkpoint_segments;    ///< checkpoints_req
    std::uint64_t connections;            ///< connections, waiting or not
    std::uint64_t active_connections;     ///< by state, rate
    std::uint64_t idle_connections;       ///< rate
    std::uint64_t idle_in_transact_conn;  ///< rate
    std::uint64_t lock_waiting_connections;  ///< waiting connections, rate
    std::uint64_t buffers_checkpoint;        ///< of pg_stat_bgwriter, as are the next five
    std::uint64_t buffers_clean;             ///< ends up holding maxwritten_clean
    std::uint64_t maxwritten_clean;          ///< always 0
    std::uint64_t buffers_backend;
    std::uint64_t buffers_backend_fsync;
    std::uint64_t buffers_alloc;
    std::uint64_t cnt_all;  ///< active statements older than slow_query_sec, rate
    std::uint64_t cnt_dml;  ///< of these, inserts, updates and deletes; rate
    std::uint64_t cnt_sel;  ///< of these, selects; rate
};

/// The statement that counts long-running statements: for servers from 9.2 on, and for older ones. The
/// threshold is inserted unescaped.
std::string get_query_str(std::string_view slow_query_sec);
std::string get_query_str_old(std::string_view slow_query_sec);

extern const tarn_operations postgre_operations;
