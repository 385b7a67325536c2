#include "measures.h"

#include "clock.h"
#include "processes.h"
#include "stream.h"
#include "traffic.h"

#include <csignal>
#include <stdexcept>

namespace Bench {

namespace {

/// Until only the relay's main thread is left.
void waitForEndOfJobs(pid_t relay) {
    const auto limit = after(5);
    while (threadsOf(relay).size() > 1) {
        if (Clock::now() > limit)
            throw std::runtime_error("a job of an earlier measure has not ended");
        pause(0.00005);
    }
}

/// @return milliseconds from the signal to the end of the job's thread
double timeEndOfJob(const Target& target, bool clientReads) {
    waitForEndOfJobs(target.relay);
    const Connection connection = target.road.connect();
    std::jthread client;
    if (clientReads)
        client = receiveWithoutPause(connection.client.get());
    const std::jthread picture = sendWithoutPause(connection.shadow.get());
    const HangUp hangUp(connection);
    pause(0.2); // every buffer on the way is full
    const std::int64_t start = now();
    if (kill(target.relay, SIGUSR1) < 0)
        failed("kill");
    waitForEndOfJobs(target.relay);
    return static_cast<double>(now() - start) / 1e6;
}

} // namespace

void measureEndOfStalledJob(const Target& target, Results& results) {
    results.add(target.name, "end of job", "stalled ms", timeEndOfJob(target, false));
    results.add(target.name, "end of job", "reading ms", timeEndOfJob(target, true));
}

} // namespace Bench
