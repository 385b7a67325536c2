#pragma once

#include <poll.h>

namespace Vorl {

/// Which directions of a relay have something to move that the other side can take.
struct Traffic {
    bool fromClient = false;
    bool fromTransport = false;
};

/// The wait of one relay thread for both of its sockets at once.
///
/// A direction counts only while its destination can take output: a client that reads slowly holds
/// up its own picture and not the keystrokes on their way to the desktop. Until then the wait is
/// for the destination, and for the end of the source.
class TrafficWait {
public:
    TrafficWait(int client, int transport)
        : upstream{client, transport}, downstream{transport, client} {}

    /// Returns as soon as there is traffic, and with none after at most 150 ms (the time within
    /// which the rest of the daemon notices a stop) or when a socket only reports a hang-up.
    [[nodiscard]] Traffic wait();

private:
    struct Direction {
        int source = -1;
        int destination = -1;
        bool held = false; // the source has input that the destination could not take
    };

    [[nodiscard]] static bool ready(Direction& direction, const pollfd& source,
                                    const pollfd& destination);

    Direction upstream;   // client to transport
    Direction downstream; // transport to client
};

} // namespace Vorl
