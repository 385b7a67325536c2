#include "common/readiness.h"
#include "common/sockets.h"
#include "common/strings.h"
#include "proxy/client_socket.h"
#include "proxy/globals.h"
#include "proxy/proxy_connection.h"
#include "proxy/work_directory.h"

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* function = "actionCreateTransport";

constexpr int clientPollMilliseconds = 1;
constexpr int clientPauseMilliseconds = 250;
constexpr auto socketLimit = 5s;
constexpr auto socketPause = 1ms;
constexpr int connectAttempts = 5;
constexpr auto connectPause = 50ms;

void logFailure(const char* reason, std::uint32_t sessionId) {
    Syslog::error("%s: exception: %s, session id: %u", function, reason, sessionId);
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

/// @return false after an error line when the shadow server has made no socket in time, or the
///         daemon stops
bool waitForSocket(const fs::path& path, std::uint32_t sessionId) {
    const auto start = Clock::now();
    while (!isSocket(path)) {
        if (!proxyRunning) {
            logFailure("proxy stopped", sessionId);
            return false;
        }
        if (Clock::now() - start > socketLimit) {
            logFailure("transport stopped, timeout", sessionId);
            return false;
        }
        std::this_thread::sleep_for(socketPause);
    }
    return true;
}

/// Tries again for a moment when refused, since the socket's file may stand before the shadow
/// server listens on it, and when descriptors are short.
Descriptor connectToTransport(const std::string& path) {
    Descriptor local(Socket::unixConnect(path));
    const auto mayPass = [] { return errno == ECONNREFUSED || errno == EMFILE || errno == ENFILE; };
    for (int attempt = 1; !local && mayPass() && attempt < connectAttempts; ++attempt) {
        std::this_thread::sleep_for(connectPause);
        local = Descriptor(Socket::unixConnect(path));
    }
    return local;
}

} // namespace

/// An accepted client on its way to a relay job. Client and transport are empty once they were let
/// go or belong to the job; the transport also before it is launched.
struct ProxyConnection::Admission {
    std::uint32_t sessionId;
    std::uint64_t ordinal;
    std::string socketPath;
    std::string samPath;
    std::string remoteAddress;
    Descriptor client;
    TransportHandle transport;
};

bool ProxyConnection::actionCreateTransport(const std::uint32_t& sessionId,
                                            const std::uint32_t& second) {
    const auto settings = configuration();
    const int port = settings->getInteger("listen:port", 3389);
    const std::string address = settings->getString("listen:addr", "0.0.0.0");
    Syslog::debug("%s: address: %s, port: %d", function, address.c_str(), port);
    Descriptor listening(Socket::tcpListen(address, static_cast<std::uint16_t>(port), 1));
    proxyListenStarted(sessionId, static_cast<bool>(listening));
    if (!listening || !waitForClient(listening.get(), sessionId))
        return false;

    std::string remoteAddress;
    Descriptor client(Socket::tcpAccept(listening.get(), &remoteAddress));
    listening.reset(); // no second client on this allowance
    if (!client)
        return false;
    setClientSocketPolicy(client.get(), *configuration());
    Syslog::debug("%s: session id: %u, remote addr: %s, fd: %d", function, sessionId,
                  remoteAddress.c_str(), client.get());
    proxyClientConnected(sessionId, remoteAddress);

    // A client that connects again at once must not meet the end of its last connection: that
    // one's shadow server removes its socket by name, which could be the new one's by then.
    sweepFinishedJobs();
    // Tells the files of several connections to one session apart.
    const std::uint64_t ordinal = jobMultiSession(sessionId);
    const fs::path directory = workDirectory(home);
    Admission admission{sessionId,
                        ordinal,
                        directory / Utils::joinString("proxy_", sessionId, "_", ordinal),
                        directory / Utils::joinString("sam_", second, "_", ordinal),
                        remoteAddress,
                        std::move(client),
                        {}};
    return createJob(admission);
}

bool ProxyConnection::waitForClient(int listeningFd, std::uint32_t sessionId) const {
    const std::chrono::seconds limit(currentListenTimeout());
    const auto start = Clock::now();
    try {
        while (proxyRunning) {
            if (Utils::hasInput(listeningFd, clientPollMilliseconds))
                return proxyRunning;
            if (listenCancel) {
                logFailure("session disconnected", sessionId);
                return false;
            }
            if (Clock::now() - start > limit) {
                logFailure("transport stopped, timeout", sessionId);
                return false;
            }
            // The pause between two looks at the flags; a client ends it early.
            (void)Utils::hasInput(listeningFd, clientPauseMilliseconds);
        }
    } catch (const std::exception& failure) {
        logFailure(failure.what(), sessionId);
    }
    return false;
}

void ProxyConnection::abandon(Admission& admission) {
    admission.client.reset(); // before the wait for the shadow server
    if (!admission.transport.second.valid())
        return;
    terminateTransport(admission.transport);
    releaseTransport(admission.transport, Clock::now(), function);
}

bool ProxyConnection::createJob(Admission& admission) {
    auto& [sessionId, ordinal, socketPath, samPath, remoteAddress, client, transport] = admission;
    try {
        removeStaleSocket(socketPath);
        transport = requestRdpTransport(socketPath, samPath, sessionId, ordinal);
        if (!waitForSocket(socketPath, sessionId)) {
            abandon(admission);
            return false;
        }
        Descriptor local = connectToTransport(socketPath);
        if (!local) {
            client.reset();
            Syslog::error("%s: transport not started, session id: %u", function, sessionId);
            awaitTransport(transport, function); // deliberately not signalled
            return false;
        }
        registerJob(admission, std::move(local));
        return true;
    } catch (const std::system_error& failure) {
        Syslog::error("%s: system error: %s, session id: %u", function, failure.what(), sessionId);
    } catch (const std::exception& failure) {
        logFailure(failure.what(), sessionId);
    }
    abandon(admission);
    return false;
}

void ProxyConnection::registerJob(Admission& admission, Descriptor local) {
    const std::scoped_lock lock(jobsMutex);
    JobTransfer& job =
        jobs.emplace_back(admission.client.get(), local.get(), admission.socketPath,
                          admission.samPath, std::move(admission.transport), admission.sessionId);
    const int socketFd = admission.client.release();
    const int unixFd = local.release();
    Syslog::debug("%s: session id: %u, create transfer job, socket: %d, unix: %d", function,
                  admission.sessionId, socketFd, unixFd);
    try {
        proxySessionConnected(admission.sessionId, job.transportPid(), admission.remoteAddress);
    } catch (...) {
        // The service does not confirm the connection: the client goes, the job stays in the list
        // until its relay ends or the service disconnects the session. Still under the lock: the
        // job could be swept, and its descriptor's number be somebody else's, a moment later.
        job.dropClient();
        throw;
    }
}

} // namespace Vorl
