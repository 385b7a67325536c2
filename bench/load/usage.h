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

/// What the host of a virtual machine has given of its processors to others ("steal" in proc(5)),
/// in hundredths of a second; 0 on a machine of its own.
[[nodiscard]] std::int64_t timeTakenByHost();

} // namespace Bench
