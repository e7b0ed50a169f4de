// Cycles follow the wall clock and not a timer: a slow cycle does not delay later ones.
#include "record/tarn_clock.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <utility>

#include "record/tarn_config.h"

volatile std::sig_atomic_t stop = 0;

namespace {

constexpr std::uint64_t iteration_limit = 1163962800;

constexpr long second_ns = 1'000'000'000;

/// True when a cycle falls on second `t`.
bool is_cycle_second(long t) {
    return static_cast<std::int64_t>(t) % static_cast<std::int64_t>(config.interval) == config.randomsecond;
}

}  // namespace

void sleep_one_turn(int margin_ms) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long wait = second_ns + margin_ms * 1'000'000L - now.tv_nsec;
    const timespec duration{wait / second_ns, wait % second_ns};
    ::nanosleep(&duration, nullptr);
}

tarn::deadline before_next_cycle(long now) {
    using std::chrono::milliseconds;
    constexpr auto spare = milliseconds(300);
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    const auto passed = std::chrono::seconds(time.tv_sec - now) + milliseconds(time.tv_nsec / 1'000'000);
    const milliseconds interval = std::chrono::seconds(config.interval);
    return tarn::deadline(std::clamp<milliseconds>(interval + milliseconds(reader_margin_ms) - spare - passed,
                                                   milliseconds(0), interval));
}

bool cycle_clock::is_due(long t) {
    return std::exchange(last_, t) != t && is_cycle_second(t);
}

std::uint64_t next_iteration(std::uint64_t iteration) {
    if (iteration + 1 != iteration_limit) return iteration + 1;
    std::printf("WOW! iteration %" PRIu64 "\n", iteration_limit);
    return 0;
}
