#pragma once

#include <cstddef>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace tarn {

/// Finds the position of a name in a list in constant time, so that a thousand devices cost a thousand steps
/// and not a million. It is refilled every cycle and keeps its memory. The names are views and must outlive
/// their entries.
class name_index final {
  public:
    void clear() { positions_.clear(); }

    /// Adds a name; false, with its position unchanged, when it is already there.
    bool add(std::string_view name, std::size_t position) {
        return positions_.try_emplace(name, position).second;
    }

    /// Refills the index from a list of records that have a `device` text.
    template <typename Records>
    void rebuild(const Records& records) {
        clear();
        for (std::size_t at = 0; at < records.size(); ++at)
            add(records[at].device, at);
    }

    [[nodiscard]] std::optional<std::size_t> find(std::string_view name) const {
        const auto found = positions_.find(name);
        if (found == positions_.end()) return std::nullopt;
        return found->second;
    }

  private:
    std::pmr::unsynchronized_pool_resource memory_;
    std::pmr::unordered_map<std::string_view, std::size_t> positions_{&memory_};
};

}  // namespace tarn
