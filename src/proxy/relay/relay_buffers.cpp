#include "proxy/relay/relay_buffers.h"

#include <linux/socket.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

// The kernel doubles each of these values to allow for its own bookkeeping, see socket(7).

// Limits an upload to 30 MB/s at a round trip of 20 ms.
constexpr int uploadBytes = 512 * 1024;
// A local socket polls writable once three quarters are free: 312 KiB at least, with the limit of
// 208 KiB that Linux sets by default.
constexpr int transportSendBytes = 768 * 1024;
// A TCP socket polls writable once a third is free: 138 KiB at least, with the same limit.
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
