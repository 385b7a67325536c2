#include "proxy/relay/client_socket_options.h"

#include "logger"

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

constexpr const char* task = "actionCreateTransport";

/// @param label the option's name in the log, which is not always the constant's
void setSocketOption(int fd, int level, int option, int value, const char* label) {
    const int result = setsockopt(fd, level, option, &value, sizeof value);
    if (result == 0) {
        Syslog::info("%s: socket set policy: %s = %u", task, label, value);
    } else {
        // The code is the call's own -1, not errno: readers of the journal know the line so.
        Syslog::warning("%s: socket %s failed, error: %s, code: %d", task, label, strerror(errno),
                        result);
    }
}

} // namespace

void setClientSocketOptions(int client, const JsonConfig& settings) {
    if (settings.getBoolean("tcp:keepalive:enable", true)) {
        setSocketOption(client, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPIDLE,
                        settings.getInteger("tcp:keepalive:delay", 5), "SO_KEEPIDLE");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPCNT,
                        settings.getInteger("tcp:keepalive:retries", 3), "SO_KEEPCNT");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPINTVL,
                        settings.getInteger("tcp:keepalive:interval", 2), "SO_KEEPINTVL");
    }
    // A frame must not wait for the acknowledgement of the one before: on a link of 20 ms that
    // would cost a typing user 14 ms a frame. Without it the connection is slower and no worse.
    const int enable = 1;
    (void)setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable);
}

} // namespace Vorl
