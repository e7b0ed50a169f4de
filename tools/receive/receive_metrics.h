#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "receive_forward.h"
#include "receive_hosts.h"

/// The receiver's own figures.
struct receive_counts {
    unsigned long packets = 0;
    unsigned long good = 0;
    unsigned long bad = 0;
    std::map<std::pair<std::string, std::string>, unsigned long> bad_by;  ///< by reason and sender's address
    unsigned long socket_drops = 0;  ///< datagrams that came while the socket's buffer was full
    forward_counts forwarded;
    unsigned long queued_reports = 0;
    std::size_t queued_bytes = 0;

    /// Counts a bad packet. Sources beyond some hundred are counted as one.
    void add_bad(const std::string& reason, const std::string& source);
};

/// All figures in the text format of Prometheus. Hosts that are not up have no figures but "tarn_host_up" and
/// the age of their last report.
std::string metrics_text(const receive_counts& counts, const host_table& hosts, host_table::time_point now);
