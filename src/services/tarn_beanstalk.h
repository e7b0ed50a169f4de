#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// One beanstalkd work-queue server. Members marked "rate" are totals in data and changes per minute in
/// data_delta; a member whose line is missing from a reply keeps its earlier value.
struct tarn_mycustom_data_beanstalk {
    char ip[256];  ///< IPv4 address
    int port;
    int ok;                     ///< the last update completed
    std::uint64_t put;          ///< cmd-put, rate
    std::uint64_t cdelete;      ///< cmd-delete, rate
    std::uint64_t jobs;         ///< total-jobs, not reported
    std::uint64_t uptime;       ///< seconds
    std::uint64_t timeout;      ///< job-timeouts, jobs
    std::uint64_t connections;  ///< current-connections, a gauge; its change per minute is reported
};

/// Parses the reply to "stats".
void beanstalk_parse_stats(std::string_view reply, tarn_mycustom_data_beanstalk& data);

extern const tarn_operations beanstalk_operations;
