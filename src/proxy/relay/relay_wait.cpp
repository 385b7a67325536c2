#include "proxy/relay/relay_wait.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <poll.h>

namespace Vorl {

namespace {

using namespace std::chrono_literals;

// How long a thread may take to notice its flags. A stop of the daemon does not wait for that: it
// destroys the jobs, which wakes their threads. With a shorter time, a hundred idle connections
// would use a noticeable part of a processor.
constexpr int stopNoticeMilliseconds = 1000;
constexpr auto hangUpPause = 3ms;

/// The events to wait for on a socket that is the source of one direction and the destination of
/// the other. If the destination of a source is full, poll(2) would report the source's bytes again
/// and again: then only its end is watched for.
pollfd entryFor(int fd, bool isFull, bool destinationIsFull) {
    const int events = (destinationIsFull ? POLLRDHUP : POLLIN) | (isFull ? POLLOUT : 0);
    return {fd, static_cast<short>(events), 0};
}

bool hasTraffic(const pollfd& source) {
    return (source.revents & (POLLIN | POLLRDHUP)) != 0;
}

} // namespace

Traffic waitForTraffic(int client, int transport) {
    pollfd room[] = {{client, POLLOUT, 0}, {transport, POLLOUT, 0}};
    (void)poll(room, 2, 0);
    // Any event counts as room: the send to a broken destination reports its error.
    const bool clientIsFull = room[0].revents == 0;
    const bool transportIsFull = room[1].revents == 0;

    pollfd entries[] = {entryFor(client, clientIsFull, transportIsFull),
                        entryFor(transport, transportIsFull, clientIsFull)};
    const int reported = poll(entries, 2, stopNoticeMilliseconds);
    if (reported < 0 && errno != EINTR)
        return {true, true}; // the steps will fail in the same way and report it
    if (reported <= 0)
        return {};

    const bool onlyHangUp = ((entries[0].revents | entries[1].revents) & ~(POLLHUP | POLLERR)) == 0;
    if (onlyHangUp) // the next wait would return at once as well
        std::this_thread::sleep_for(hangUpPause);
    return {hasTraffic(entries[0]), hasTraffic(entries[1])};
}

} // namespace Vorl
