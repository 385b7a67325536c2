#include "proxy/relay/relay_buffers.h"

#include <linux/socket.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

// The kernel doubles each of these, to account for its own records.

// At most 1 MiB for one step, and 30 MB/s over a round trip of 20 ms.
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
    // The client's send buffer may still grow as a fast and long line asks for it.
    const int fixed = SOCK_RCVBUF_LOCK;
    (void)setsockopt(client, SOL_SOCKET, SO_BUF_LOCK, &fixed, sizeof fixed);
}

} // namespace Vorl
