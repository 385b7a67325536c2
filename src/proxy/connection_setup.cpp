#include "common/readiness.h"
#include "common/run_state.h"
#include "common/sockets.h"
#include "common/strings.h"
#include "proxy/pending_connection.h"
#include "proxy/proxy_connection.h"
#include "proxy/relay/client_socket_options.h"
#include "proxy/transport/transport_args.h"
#include "proxy/transport/transport_environment.h"
#include "proxy/transport/transport_launch.h"
#include "proxy/transport/transport_socket.h"
#include "proxy/work_directory.h"

#include <chrono>
#include <system_error>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* function = "actionCreateTransport";

constexpr int clientPollMilliseconds = 1;
constexpr int clientPauseMilliseconds = 250;

void logFailure(const char* reason, std::uint32_t sessionId) {
    Syslog::error("%s: exception: %s, session id: %u", function, reason, sessionId);
}

/// Lets the client go, and ends the shadow server if it was started.
void abandon(PendingConnection& pending) {
    pending.client.reset(); // before the wait for the shadow server
    if (!pending.transport.second.valid())
        return;
    terminateTransport(pending.transport);
    releaseTransport(pending.transport, Clock::now(), function);
}

} // namespace

bool ProxyConnection::actionCreateTransport(const std::uint32_t& sessionId,
                                            const std::uint32_t& second) {
    FileDescriptor listening = openListener(sessionId);
    if (!listening || !waitForClient(listening.get(), sessionId))
        return false;

    std::string remoteAddress;
    FileDescriptor client(Socket::tcpAccept(listening.get(), &remoteAddress));
    listening.reset(); // no second client on this allowance
    if (!client)
        return false;
    setClientSocketOptions(client.get(), *config.current());
    Syslog::debug("%s: session id: %u, remote addr: %s, fd: %d", function, sessionId,
                  remoteAddress.c_str(), client.get());
    proxyClientConnected(sessionId, remoteAddress);

    // The client of a connection that has just ended may be back already: that connection's shadow
    // server removes its socket by name, which must not be the name of the new one.
    jobs.sweep();
    const std::uint64_t ordinal = jobMultiSession(sessionId);
    const fs::path directory = workDirectory(home);
    PendingConnection pending{sessionId,
                              ordinal,
                              directory / Utils::joinString("proxy_", sessionId, "_", ordinal),
                              directory / Utils::joinString("sam_", second, "_", ordinal),
                              remoteAddress,
                              std::move(client),
                              {}};
    return createJob(pending);
}

FileDescriptor ProxyConnection::openListener(std::uint32_t sessionId) {
    const auto settings = config.current();
    const int port = settings->getInteger("listen:port", 3389);
    const std::string address = settings->getString("listen:addr", "0.0.0.0");
    Syslog::debug("%s: address: %s, port: %d", function, address.c_str(), port);
    FileDescriptor listening(Socket::tcpListen(address, static_cast<std::uint16_t>(port), 1));
    proxyListenStarted(sessionId, static_cast<bool>(listening));
    return listening;
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
            // A pause between two checks of the flags; a client ends it early.
            (void)Utils::hasInput(listeningFd, clientPauseMilliseconds);
        }
    } catch (const std::exception& failure) {
        logFailure(failure.what(), sessionId);
    }
    return false;
}

bool ProxyConnection::createJob(PendingConnection& pending) {
    try {
        removeStaleSocket(pending.socketPath);
        pending.transport = requestRdpTransport(pending.socketPath, pending.samPath,
                                                pending.sessionId, pending.ordinal);
        if (!waitForTransportSocket(pending.socketPath, pending.sessionId)) {
            abandon(pending);
            return false;
        }
        FileDescriptor local = connectToTransport(pending.socketPath);
        if (!local) {
            pending.client.reset();
            Syslog::error("%s: transport not started, session id: %u", function, pending.sessionId);
            awaitTransport(pending.transport, function); // deliberately not signalled
            return false;
        }
        registerJob(pending, local);
        return true;
    } catch (const std::system_error& failure) {
        Syslog::error("%s: system error: %s, session id: %u", function, failure.what(),
                      pending.sessionId);
    } catch (const std::exception& failure) {
        logFailure(failure.what(), pending.sessionId);
    }
    abandon(pending);
    return false;
}

TransportHandle ProxyConnection::requestRdpTransport(const std::string& socketPath,
                                                     const std::string& samPath,
                                                     const std::uint32_t& sessionId,
                                                     std::uint64_t ordinal) {
    Syslog::info("%s: session id: %u", "requestRdpTransport", sessionId);
    const JsonConfigString session(vorlSessionInfoJson(sessionId));
    const auto settings = config.current();
    const std::string program = findTransportProgram(*settings);
    const TransportCommand command{
        program, prepareX11RdpArgs(socketPath, samPath, session, isBuiltInTransport(program)),
        transportEnvironment(*settings, session)};
    const std::string logName =
        Utils::joinString("rdp_transport_", session.getInteger("uid"), "_", ordinal, ".log");
    return launchTransport(command, session.getInteger("display"), sessionId,
                           workDirectory(home) / logName);
}

std::list<std::string> ProxyConnection::prepareX11RdpArgs(const std::string& socketPath,
                                                          const std::string& samPath,
                                                          const JsonConfig& session,
                                                          bool builtIn) const {
    return transportArguments(*config.current(), session, socketPath, samPath, builtIn);
}

void ProxyConnection::registerJob(PendingConnection& pending, FileDescriptor& local) {
    const int socketFd = pending.client.get();
    const int unixFd = local.get();
    jobs.add(pending.client, local, pending.socketPath, pending.samPath, pending.transport,
             pending.sessionId, [&](const JobTransfer& job) {
                 Syslog::debug("%s: session id: %u, create transfer job, socket: %d, unix: %d",
                               function, pending.sessionId, socketFd, unixFd);
                 proxySessionConnected(pending.sessionId, job.transportPid(),
                                       pending.remoteAddress);
             });
}

} // namespace Vorl
