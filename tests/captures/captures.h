#pragma once

#include <span>
#include <string>
#include <vector>

#include "record/tarn_counter.h"

/// Captured answers of real servers, and answers of servers in unusual states, for every kind of service.
/// Unit tests, benchmark and fuzz targets read them through the parsers of the agent.

/// One kind and the answers of its server, sample by sample.
struct captured_kind {
    std::string name;
    std::string line;                             ///< configuration line; "@port@" stands for a port
    std::vector<std::vector<std::string>> steps;  ///< the files of each sample
    /// Parses the answers into the counter's sample, as its update does once it has received them.
    void (*read)(tarn_mycustom_counter& counter, const std::vector<std::string>& answers);
};

/// Every kind of service.
std::span<const captured_kind> captured_kinds();

/// The content of a file in this folder.
std::string captured(const std::string& name);

/// The answers of one sample; for kinds that use a client library, the names of the files.
std::vector<std::string> answers_of(const captured_kind& kind, std::size_t step);

/// The counter that a configuration line made in any family; one without operations when there is none.
tarn_mycustom_counter& only_counter();

/// Makes a counter of this kind from its configuration line and initialises it, with the stub as client
/// library. The counter is valid until the next call.
tarn_mycustom_counter& configured(const captured_kind& kind, int port);
