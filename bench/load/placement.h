#pragma once

#include <sys/types.h>

namespace Bench {

/// Gives the relay one processor and the load another, both before all other work of the machine,
/// as long as it lives.
///
/// A message takes a third of the time when the scheduler happens to have put both ends and the
/// relay on one processor, and ten times as long when somebody else's work has to go first. Such
/// things differ from round to round, and would decide a comparison of small messages.
class Placement {
public:
    /// The calling thread starts the load's threads, and the relay's main thread its others: they
    /// inherit their places. Does nothing on a machine with one processor.
    /// @param relay 0 for none
    explicit Placement(pid_t relay);
    ~Placement();
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

private:
    pid_t relay;
};

} // namespace Bench
