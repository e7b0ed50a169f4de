// Without secrets anyone can make up hosts, so that their number and the size of their reports are limited.
#include "receive_hosts.h"

#include <ctime>
#include <iterator>

namespace {

constexpr std::size_t max_hosts = 100000;
constexpr std::size_t max_bytes = std::size_t{512} * 1024 * 1024;
constexpr auto forgotten_after = std::chrono::hours(24);

/// One report dated further ahead would keep out all others of its host until then.
constexpr std::time_t max_seconds_ahead = 600;

}  // namespace

const char* host_table::take(const report_head& head, std::span<const std::uint8_t> document,
                             time_point now) {
    if (head.host.empty()) return "no host";
    if (head.time > std::time(nullptr) + max_seconds_ahead) return "dated in the future";
    const auto found = by_name_.find(head.host);
    if (found == by_name_.end()) {
        by_name_.emplace(head.host, hosts_.insert(hosts_.end(), {head, now, {}}));
    } else {
        if (head.time <= found->second->head.time) return "not newer than the last";
        hosts_.splice(hosts_.end(), hosts_, found->second);
    }
    host& latest = hosts_.back();
    latest.head = head;
    latest.heard = now;
    if (keeps_documents_) {
        bytes_ += document.size() - latest.document.size();
        latest.document.assign(document.begin(), document.end());
    }
    while (hosts_.size() > max_hosts || bytes_ > max_bytes || now - hosts_.front().heard > forgotten_after)
        forget_oldest();
    return nullptr;
}

void host_table::forget_oldest() {
    bytes_ -= hosts_.front().document.size();
    by_name_.erase(hosts_.front().head.host);
    hosts_.pop_front();
}

bool host_table::is_up(const host& one, time_point now) {
    return now - one.heard <= std::chrono::seconds(3 * one.head.interval);
}
