// Guesses which keyword of the agent's tables was meant by an unknown key.
#include "check_keywords.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

#include "config/tarn_kinds.h"
#include "config/tarn_settings.h"

namespace {

/// The number of characters to insert, delete or replace that turn one word into another.
std::size_t edit_distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

/// The part of a key that a keyword is compared with: of "redsi_main" and "redis_" it is "redsi_".
std::string_view comparable_part(std::string_view key, std::string_view keyword) {
    const std::size_t mark = key.find('_');
    return keyword.ends_with('_') && mark != std::string_view::npos ? key.substr(0, mark + 1) : key;
}

/// The keyword that is nearest to a key; empty when none is near.
std::string_view nearest_keyword(std::string_view key) {
    constexpr std::size_t farthest = 2;
    std::string_view nearest;
    std::size_t least = std::min(farthest, key.size() / 3) + 1;
    const auto compare = [&](std::string_view keyword) {
        const std::size_t distance = edit_distance(comparable_part(key, keyword), keyword);
        if (distance >= least) return;
        least = distance;
        nearest = keyword;
    };
    for (const setting& row : config_settings())
        compare(row.keyword);
    for (const counter_kind& row : counter_kinds())
        compare(row.keyword);
    return nearest;
}

template <typename Row>
bool is_keyword(std::span<const Row> rows, std::string_view word) {
    return std::any_of(rows.begin(), rows.end(), [word](const Row& row) { return row.keyword == word; });
}

}  // namespace

std::string unknown_key_message(const config_line& line) {
    const std::string key(line.key);
    if (is_keyword(counter_kinds(), key + "_"))
        return "unknown key \"" + key + "\": write \"" + key + "_" + std::string(line.value) + "\"";
    const std::size_t equals = key.find('=');
    if (equals != std::string::npos && is_keyword(config_settings(), key.substr(0, equals)))
        return R"(no "=" between key and value: write ")" + key.substr(0, equals) + " " +
               key.substr(equals + 1) + "\"";
    const std::string nearest(nearest_keyword(key));
    return "unknown key \"" + key + "\"" + (nearest.empty() ? "" : ": did you mean \"" + nearest + "\"?");
}
