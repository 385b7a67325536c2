#include "proxy/traffic_wait.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace Vorl {

namespace {

using namespace std::chrono_literals;

constexpr int stopNoticeMilliseconds = 150;
constexpr auto hangUpPause = 3ms;

/// What to wait for on the socket that is the source of one direction and the destination of the
/// other. A source whose bytes are held is watched for its end alone: it would report them at once
/// and for ever.
pollfd entryFor(int fd, bool heldAsSource, bool heldAsDestination) {
    const int events = (heldAsSource ? POLLRDHUP : POLLIN) | (heldAsDestination ? POLLOUT : 0);
    return {fd, static_cast<short>(events), 0};
}

bool canTakeOutput(int fd) {
    pollfd entry{fd, POLLOUT, 0};
    // Any answer counts: a broken destination shows its error in the send.
    return poll(&entry, 1, 0) != 0;
}

} // namespace

Traffic TrafficWait::wait() {
    pollfd entries[] = {entryFor(upstream.source, upstream.held, downstream.held),
                        entryFor(downstream.source, downstream.held, upstream.held)};
    auto& [clientEntry, transportEntry] = entries;
    const int reported = poll(entries, 2, stopNoticeMilliseconds);
    if (reported < 0 && errno != EINTR)
        return {true, true}; // the steps meet the same failure and report it
    if (reported <= 0)
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
    const bool ended = (source.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    if (direction.held) {
        // A hang-up or an error of the destination counts as room: the send finds out.
        const bool room = (destination.revents & ~POLLIN) != 0;
        direction.held = !room && !ended;
        return !direction.held;
    }
    const bool input = (source.revents & POLLIN) != 0;
    direction.held = input && !ended && !canTakeOutput(direction.destination);
    return input && !direction.held;
}

} // namespace Vorl
