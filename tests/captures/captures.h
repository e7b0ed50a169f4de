#pragma once

#include <span>
#include <string>
#include <vector>

#include "record/tarn_counter.h"

/// Answers of real servers, and of servers in odd states, kind by kind. Unit tests, benchmark and fuzz
/// targets read them through the parsers of the agent.

/// One kind and what its server answered, sample by sample.
struct captured_kind {
    std::string name;
    std::string line;                             ///< configuration line; "@port@" stands for a port
    std::vector<std::vector<std::string>> steps;  ///< the files of each sample
    /// Reads the answers into the counter's sample, as its update does once it has them.
    void (*read)(tarn_mycustom_counter& counter, const std::vector<std::string>& answers);
};

/// Every kind of service.
std::span<const captured_kind> captured_kinds();

/// The content of a file of this folder.
std::string captured(const std::string& name);

/// The answers of one sample. For the kinds that go through a client library these are the names of the
/// files.
std::vector<std::string> answers_of(const captured_kind& kind, std::size_t step);

/// A counter of this kind, made by the configuration reader and initialised, with the stub in place of the
/// client libraries. It lasts until the next call.
tarn_mycustom_counter& configured(const captured_kind& kind, int port);
