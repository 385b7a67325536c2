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

/// @param label the option's name in the log; may differ from the constant's name
void setSocketOption(int fd, int level, int option, int value, const char* label) {
    const int result = setsockopt(fd, level, option, &value, sizeof value);
    if (result == 0) {
        Syslog::info("%s: socket set policy: %s = %u", task, label, value);
    } else {
        // Deliberately logs the call's result, -1, not errno: log parsers expect it.
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
    // A frame must not wait for the acknowledgement of the previous one: on a link with a round
    // trip of 20 ms that would delay a typing user's frames by 14 ms. Errors are ignored: the
    // connection is only slower then.
    const int enable = 1;
    (void)setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable);
}

} // namespace Vorl
