#include "proxy/traffic_wait.h"

#include <chrono>
#include <thread>

namespace Vorl {

namespace {

using namespace std::chrono_literals;

constexpr int stopNoticeMilliseconds = 150;
constexpr auto hangUpPause = 3ms;

/// What to wait for on a socket that is the source of one direction and the destination of another.
pollfd entryFor(int fd, bool asSource, bool asDestination) {
    const int events = (asSource ? POLLIN : 0) | (asDestination ? POLLOUT : 0);
    // An entry without events would still report hang-ups, at once and for ever.
    return {events != 0 ? fd : -1, static_cast<short>(events), 0};
}

bool canTakeOutput(int fd) {
    pollfd entry{fd, POLLOUT, 0};
    // Any answer counts: a broken destination shows its error in the send.
    return poll(&entry, 1, 0) != 0;
}

} // namespace

Traffic TrafficWait::wait() {
    pollfd entries[] = {entryFor(upstream.source, !upstream.held, downstream.held),
                        entryFor(downstream.source, !downstream.held, upstream.held)};
    auto& [clientEntry, transportEntry] = entries;
    if (poll(entries, 2, stopNoticeMilliseconds) <= 0)
        return {};

    const Traffic traffic{ready(upstream, clientEntry, transportEntry),
                          ready(downstream, transportEntry, clientEntry)};
    const bool answered =
        ((clientEntry.revents | transportEntry.revents) & (POLLIN | POLLOUT)) != 0;
    if (!answered) // a hang-up or an error alone: the next wait would return at once as well
        std::this_thread::sleep_for(hangUpPause);
    return traffic;
}

bool TrafficWait::ready(Direction& direction, const pollfd& source, const pollfd& destination) {
    if (direction.held) {
        direction.held = (destination.revents & ~POLLIN) == 0;
        return !direction.held;
    }
    const bool input = (source.revents & POLLIN) != 0;
    direction.held = input && !canTakeOutput(direction.destination);
    return input && !direction.held;
}

} // namespace Vorl
