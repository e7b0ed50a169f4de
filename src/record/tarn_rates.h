#pragma once

#include <concepts>
#include <cstdint>

/// Rates between two samples. `interval` is the report interval in seconds.
namespace tarn {

/// Change per minute, truncated, in unsigned arithmetic of the total's own width; a decreased total wraps.
template <std::unsigned_integral Total>
Total per_minute(Total now, Total before, std::uint32_t interval) {
    const auto change = static_cast<Total>(now - before);
    return static_cast<Total>(static_cast<Total>(change * 60) / interval);
}

/// Change per minute as a double, neither truncated nor wrapped.
inline double per_minute(double now, double before, std::uint32_t interval) {
    return (now - before) * 60.0 / interval;
}

/// Change per second, truncated; a decreased total wraps.
template <std::unsigned_integral Total>
Total per_second(Total now, Total before, std::uint32_t interval) {
    return static_cast<Total>(now - before) / interval;
}

/// Increase per second of a total kept as double; 0 when it did not grow, as after a restart.
inline double increase_per_second(double now, double before, std::uint32_t interval) {
    return now > before ? (now - before) / interval : 0.0;
}

}  // namespace tarn
