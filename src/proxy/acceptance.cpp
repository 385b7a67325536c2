#include "common/call_failure.h"
#include "common/readiness.h"
#include "common/sockets.h"
#include "common/strings.h"
#include "proxy/globals.h"
#include "proxy/proxy_connection.h"
#include "proxy/work_directory.h"

#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* task = "actionCreateTransport";

constexpr int clientPollMilliseconds = 1;
constexpr int clientPauseMilliseconds = 250;
constexpr auto socketLimit = 5s;
constexpr auto socketPause = 10ms;
constexpr int connectAttempts = 5;
constexpr auto connectPause = 50ms;

void logEnd(const char* reason, std::uint32_t sessionId) {
    Syslog::error("%s: exception: %s, session id: %u", task, reason, sessionId);
}

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

bool isSocket(const fs::path& path) {
    std::error_code ignored;
    return fs::is_socket(path, ignored);
}

/// A socket file of an earlier run would be taken for the new one. Anything else is left alone.
void removeStaleSocket(const fs::path& path) {
    std::error_code ignored;
    if (isSocket(path))
        fs::remove(path, ignored);
}

/// Keeps one descriptor for the connection to the shadow server: without it, a shadow server would
/// be started that cannot be reached and does not end.
Descriptor reserveDescriptor() {
    Descriptor reserved(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!reserved)
        throw std::system_error(errno, std::generic_category(), "no descriptor left");
    return reserved;
}

/// @return false after an error line when the shadow server has made no socket in time, or the
///         daemon stops
bool waitForSocket(const fs::path& path, std::uint32_t sessionId) {
    const auto start = Clock::now();
    while (!isSocket(path)) {
        if (!proxyRunning) {
            logEnd("proxy stopped", sessionId);
            return false;
        }
        if (Clock::now() - start > socketLimit) {
            logEnd("transport stopped, timeout", sessionId);
            return false;
        }
        std::this_thread::sleep_for(socketPause);
    }
    return true;
}

/// Tries again for a moment: the socket's file may stand before the shadow server listens on it.
Descriptor connectToTransport(const std::string& path) {
    Descriptor local(Socket::unixConnect(path));
    for (int attempt = 1; !local && attempt < connectAttempts && proxyRunning; ++attempt) {
        std::this_thread::sleep_for(connectPause);
        local = Descriptor(Socket::unixConnect(path));
    }
    return local;
}

} // namespace

bool ProxyConnection::actionCreateTransport(const std::uint32_t& sessionId,
                                            const std::uint32_t& second) {
    const int port = configuration()->getInteger("listen:port", 3389);
    const std::string address = configuration()->getString("listen:addr", "0.0.0.0");
    Syslog::debug("%s: address: %s, port: %d", task, address.c_str(), port);
    Descriptor listening(Socket::tcpListen(address, static_cast<std::uint16_t>(port), 1));
    proxyListenStarted(sessionId, static_cast<bool>(listening));
    if (!listening || !waitForClient(listening.get(), sessionId))
        return false;

    std::string remoteAddress;
    Descriptor client(Socket::tcpAccept(listening.get(), &remoteAddress));
    listening.reset(); // no second client on this allowance
    if (!client)
        return false;
    setSocketPolicy(client.get());
    Syslog::debug("%s: session id: %u, remote addr: %s, fd: %d", task, sessionId,
                  remoteAddress.c_str(), client.get());
    proxyClientConnected(sessionId, remoteAddress);

    // Tells the files of several connections to one session apart.
    const std::uint64_t ordinal = jobMultiSession(sessionId);
    const fs::path directory = workDirectory(home);
    const std::string socketPath = directory / Utils::joinString("proxy_", sessionId, "_", ordinal);
    const std::string samPath = directory / Utils::joinString("sam_", second, "_", ordinal);

    TransportHandle transport;
    const bool created =
        createJob(client, transport, socketPath, samPath, sessionId, ordinal, remoteAddress);
    client.reset(); // let go before the wait for a shadow server that has to end first
    if (transport.second.valid())
        awaitTransport(transport, task);
    return created;
}

bool ProxyConnection::waitForClient(int listeningFd, std::uint32_t sessionId) const {
    const std::chrono::seconds limit(currentListenTimeout());
    const auto start = Clock::now();
    try {
        while (proxyRunning) {
            if (Utils::hasInput(listeningFd, clientPollMilliseconds))
                return proxyRunning;
            if (listenCancel) {
                logEnd("session disconnected", sessionId);
                return false;
            }
            if (Clock::now() - start > limit) {
                logEnd("transport stopped, timeout", sessionId);
                return false;
            }
            // The pause between two looks at the flags; a client ends it early.
            (void)Utils::hasInput(listeningFd, clientPauseMilliseconds);
        }
    } catch (const std::exception& failure) {
        logEnd(failure.what(), sessionId);
    }
    return false;
}

void ProxyConnection::setSocketPolicy(int client) const {
    const auto settings = configuration();
    if (settings->getBoolean("tcp:keepalive:enable", true)) {
        setSocketOption(client, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPIDLE,
                        settings->getInteger("tcp:keepalive:delay", 5), "SO_KEEPIDLE");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPCNT,
                        settings->getInteger("tcp:keepalive:retries", 3), "SO_KEEPCNT");
        setSocketOption(client, IPPROTO_TCP, TCP_KEEPINTVL,
                        settings->getInteger("tcp:keepalive:interval", 2), "SO_KEEPINTVL");
    }
    // A frame must not wait for the acknowledgement of the one before: on a link of 20 ms that
    // would cost a typing user 14 ms a frame. Without it the connection is slower and no worse.
    const int enable = 1;
    (void)setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable);
}

/// Starts the shadow server and the relay. On failure the client is still the caller's to let go,
/// and so is the shadow server, if it was started: the handle is not empty then.
bool ProxyConnection::createJob(Descriptor& client, TransportHandle& transport,
                                const std::string& socketPath, const std::string& samPath,
                                std::uint32_t sessionId, std::uint64_t ordinal,
                                const std::string& remoteAddress) {
    try {
        removeStaleSocket(socketPath);
        Descriptor reserved = reserveDescriptor();
        transport = requestRdpTransport(socketPath, samPath, sessionId, ordinal);
        if (!waitForSocket(socketPath, sessionId)) {
            client.reset();
            terminateTransport(transport);
            releaseTransport(transport, task);
            return false;
        }
        reserved.reset();
        Descriptor local = connectToTransport(socketPath);
        if (!local) {
            client.reset();
            Syslog::error("%s: transport not started, session id: %u", task, sessionId);
            // Deliberately not signalled: the caller waits until it ends by itself.
            return false;
        }
        registerJob(client, local, transport, socketPath, samPath, sessionId, remoteAddress);
        return true;
    } catch (const std::system_error& failure) {
        Syslog::error("%s: system error: %s, session id: %u", task, failure.what(), sessionId);
    } catch (const std::exception& failure) {
        logEnd(failure.what(), sessionId);
    }
    if (transport.second.valid())
        terminateTransport(transport);
    return false;
}

void ProxyConnection::registerJob(Descriptor& client, Descriptor& local, TransportHandle& transport,
                                  const std::string& socketPath, const std::string& samPath,
                                  std::uint32_t sessionId, const std::string& remoteAddress) {
    const std::scoped_lock lock(jobsMutex);
    JobTransfer& job = jobs.emplace_back(client.get(), local.get(), socketPath, samPath,
                                         std::move(transport), sessionId);
    const int socketFd = client.release();
    const int unixFd = local.release();
    Syslog::debug("%s: session id: %u, create transfer job, socket: %d, unix: %d", task, sessionId,
                  socketFd, unixFd);
    try {
        proxySessionConnected(sessionId, static_cast<std::uint32_t>(job.transportPid()),
                              remoteAddress);
    } catch (...) {
        // The service knows nothing of this connection: the client goes, the job stays in the list
        // until its relay ends or the service disconnects the session.
        job.dropClient();
        throw;
    }
}

} // namespace Vorl
