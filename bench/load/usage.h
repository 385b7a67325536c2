#pragma once

#include <cstdint>

#include <sys/types.h>

namespace Bench {

/// What a relay has used: all of its threads and of its child processes together.
struct Usage {
    std::int64_t processorTime = 0; ///< nanoseconds on a processor
    std::int64_t wakeUps = 0;       ///< times that a thread went to sleep and was woken
    std::int64_t memory = 0;        ///< bytes, shared pages counted in proportion
};

[[nodiscard]] Usage usageOf(pid_t relay);

} // namespace Bench
