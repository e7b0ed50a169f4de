#pragma once

#include <string>

enum class output { pretty, json, raw };

struct receive_options {
    std::string address = "127.0.0.1";
    int port = 8641;  ///< for both UDP and TCP; 0 for a free one
    std::string secret;
    unsigned long count = 0;  ///< good reports to wait for; 0 for no limit
    output format = output::pretty;
};

/// Reads the command line. Ends the process with status 0 after --help or --version, and with status 1 and a
/// message for a bad one.
receive_options parse_options(int argc, char** argv);
