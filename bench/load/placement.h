#pragma once

#include <thread>
#include <vector>

#include <sys/types.h>

namespace Bench {

/// As long as it lives, relay and load go before all other work of the machine, at one real-time
/// priority: else that work would be compared.
class Placement {
public:
    enum class Processors {
        /// The relay has one to itself and the load another. A message takes a third of the time
        /// when the scheduler happens to have put both ends and the relay on one processor, and
        /// does so in some rounds: it would decide a comparison. Neither processor halts.
        apart,
        any,
    };

    /// The calling thread starts the load's threads, and the relay's main thread its others: they
    /// inherit their places.
    /// @param relay 0 for none
    Placement(pid_t relay, Processors processors);
    ~Placement();
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

private:
    pid_t relay;
    std::vector<std::jthread> awake; // last: ends first
};

} // namespace Bench
