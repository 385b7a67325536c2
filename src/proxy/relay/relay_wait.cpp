#include "proxy/relay/relay_wait.h"

#include "common/run_state.h"

#include <cerrno>

#include <poll.h>

namespace Vorl {

namespace {

constexpr short input = POLLIN | POLLRDHUP;
constexpr short brokenEvents = POLLHUP | POLLERR | POLLNVAL; // reported without being asked for

bool hasEnded(const pollfd& socket) {
    return (socket.revents & POLLRDHUP) != 0;
}

/// Any other event counts as room: the send to a broken destination reports its error.
bool hasRoom(const pollfd& socket) {
    return (socket.revents & ~input) != 0;
}

bool hasTraffic(const pollfd& source, const pollfd& destination) {
    return hasEnded(source) || ((source.revents & POLLIN) != 0 && hasRoom(destination));
}

/// Limits the events of a socket to those that are worth waking up for, given what it and the other
/// socket report now. Input that the other one has no room for would be reported again and again:
/// then only the end of the input counts.
pollfd entryFor(const pollfd& socket, const pollfd& other) {
    if ((socket.revents & brokenEvents) != 0 && (socket.revents & input) == 0)
        return {-1, 0, 0}; // poll(2) ignores negative descriptors
    const int events = (hasRoom(other) ? POLLIN : POLLRDHUP) | (hasRoom(socket) ? 0 : POLLOUT);
    return {socket.fd, static_cast<short>(events), 0};
}

} // namespace

Traffic waitForTraffic(int client, int transport) {
    pollfd now[] = {{client, input | POLLOUT, 0}, {transport, input | POLLOUT, 0}};
    (void)poll(now, 2, 0);
    if (hasTraffic(now[0], now[1]) || hasTraffic(now[1], now[0]))
        return {hasTraffic(now[0], now[1]), hasTraffic(now[1], now[0])};

    pollfd entries[] = {
        entryFor(now[0], now[1]), entryFor(now[1], now[0]), {stopEvent(), POLLIN, 0}};
    if (poll(entries, 3, -1) < 0 && errno != EINTR)
        return {true, true}; // the steps will fail in the same way and report it
    return {(entries[0].revents & input) != 0, (entries[1].revents & input) != 0};
}

} // namespace Vorl
