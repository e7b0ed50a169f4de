#pragma once

#include <string>

#include "receive_forward.h"

enum class output { none, pretty, json, raw, jsonl, influx };

struct receive_options {
    std::string address = "127.0.0.1";
    int port = 8641;  ///< for both UDP and TCP; 0 for a free one
    std::string secret;
    std::string secrets;      ///< file of secrets for each host; empty: none
    unsigned long count = 0;  ///< good reports to wait for; 0 for no limit
    output format = output::pretty;
    forward_options forward;
    std::string metrics;  ///< address and port where Prometheus scrapes; empty: nowhere

    /// Reports go to other systems.
    [[nodiscard]] bool is_exporting() const { return !forward.url.empty() || !metrics.empty(); }
};

/// Reads the command line. Ends the process with status 0 after --help or --version, and with status 1 and a
/// message for a bad one.
receive_options parse_options(int argc, char** argv);
