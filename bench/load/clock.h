#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

namespace Bench {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// Nanoseconds of the one clock that all time stamps are taken from.
inline std::int64_t now() {
    return Clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

inline Clock::time_point after(double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
}

inline void pause(double seconds) {
    std::this_thread::sleep_for(Seconds(seconds));
}

} // namespace Bench
