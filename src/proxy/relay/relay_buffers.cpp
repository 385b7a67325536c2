#include "proxy/relay/relay_buffers.h"

#include <linux/socket.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

// The kernel doubles each of these values to allow for its own bookkeeping, see socket(7).

// Limits one step to 1 MiB, and an upload to 30 MB/s at a round trip of 20 ms.
constexpr int uploadBytes = 512 * 1024;
// A local socket reports room once three quarters are free: more than an upload's step.
constexpr int transportSendBytes = 768 * 1024;
// A TCP socket reports room once a third is free: more than the 208 KiB that the shadow server's
// own send buffer holds.
constexpr int clientSendBytes = 384 * 1024;

void setSize(int fd, int privileged, int limited, int bytes) {
    if (setsockopt(fd, SOL_SOCKET, privileged, &bytes, sizeof bytes) != 0)
        (void)setsockopt(fd, SOL_SOCKET, limited, &bytes, sizeof bytes);
}

} // namespace

void sizeRelayBuffers(int client, int transport) {
    setSize(client, SO_RCVBUFFORCE, SO_RCVBUF, uploadBytes);
    setSize(client, SO_SNDBUFFORCE, SO_SNDBUF, clientSendBytes);
    setSize(transport, SO_SNDBUFFORCE, SO_SNDBUF, transportSendBytes);
    // Only the receive buffer: the send buffer may still grow for a fast line with a long round
    // trip.
    const int fixed = SOCK_RCVBUF_LOCK;
    (void)setsockopt(client, SOL_SOCKET, SO_BUF_LOCK, &fixed, sizeof fixed);
}

} // namespace Vorl
