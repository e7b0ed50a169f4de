#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "report_figures.h"

/// The hosts that reports came from, each with the last one. Hosts that are silent for a day are forgotten,
/// and the most silent ones when memory would exceed its limit.
class host_table final {
  public:
    using time_point = std::chrono::steady_clock::time_point;

    struct host {
        report_head head;
        time_point heard;
        std::vector<std::uint8_t> document;  ///< empty unless documents are kept
    };

    /// `keeps_documents`: the last document of each host is kept, not only its head.
    explicit host_table(bool keeps_documents) : keeps_documents_(keeps_documents) {}

    /// Takes note of a report; returns what is wrong with it, null when nothing is. A report is wrong that
    /// names no host, is not newer than the last one of its host, or is dated in the future.
    const char* take(const report_head& head, std::span<const std::uint8_t> document, time_point now);

    /// The hosts, the most silent first.
    [[nodiscard]] const std::list<host>& hosts() const { return hosts_; }

    /// False for a host that was not heard for three of its intervals.
    static bool is_up(const host& one, time_point now);

  private:
    void forget_oldest();

    bool keeps_documents_;
    std::list<host> hosts_;
    std::unordered_map<std::string, std::list<host>::iterator> by_name_;
    std::size_t bytes_ = 0;  ///< of the documents
};
