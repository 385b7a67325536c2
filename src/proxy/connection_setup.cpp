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

/// Disconnects the client, and ends the shadow server if it was started.
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

    // A client may have reconnected at once: the shadow server of its previous connection removes
    // its socket by name, which must not be the name of the new one. So finish that connection
    // first.
    jobs.sweep();
    const std::uint64_t ordinal = jobMultiSession(sessionId);
    const fs::path directory = workDirectory(home);
    PendingConnection pending{
        sessionId,
        ordinal,
        SocketFile(directory / Utils::joinString("proxy_", sessionId, "_", ordinal)),
        OwnedFile(directory / Utils::joinString("sam_", second, "_", ordinal)),
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
        const std::string& socketPath = pending.socketFile.path();
        removeStaleSocket(socketPath);
        pending.transport =
            requestRdpTransport(socketPath, pending.samFile, pending.sessionId, pending.ordinal);
        const auto deadline = Clock::now() + transportSocketLimit;
        if (!waitForTransportSocket(socketPath, pending.sessionId, deadline)) {
            abandon(pending);
            return false;
        }
        FileDescriptor local = connectToTransport(socketPath, pending.transport, deadline);
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
    // Only what no job owns yet: after a refused proxySessionConnected, the job keeps the rest.
    abandon(pending);
    return false;
}

TransportHandle ProxyConnection::requestRdpTransport(const std::string& socketPath,
                                                     OwnedFile& samFile,
                                                     const std::uint32_t& sessionId,
                                                     std::uint64_t ordinal) {
    Syslog::info("%s: session id: %u", "requestRdpTransport", sessionId);
    const JsonConfigString session(vorlSessionInfoJson(sessionId));
    const auto settings = config.current();
    const std::string program = findTransportProgram(*settings);
    const TransportCommand command{
        program, prepareX11RdpArgs(socketPath, samFile, session, isBuiltInTransport(program)),
        transportEnvironment(*settings, session)};
    const std::string logName =
        Utils::joinString("rdp_transport_", session.getInteger("uid"), "_", ordinal, ".log");
    return launchTransport(command, session.getInteger("display"), sessionId,
                           workDirectory(home) / logName);
}

std::list<std::string> ProxyConnection::prepareX11RdpArgs(const std::string& socketPath,
                                                          OwnedFile& samFile,
                                                          const JsonConfig& session,
                                                          bool builtIn) const {
    return transportArguments(*config.current(), session, socketPath, samFile, builtIn);
}

void ProxyConnection::registerJob(PendingConnection& pending, FileDescriptor& local) {
    const int socketFd = pending.client.get();
    const int unixFd = local.get();
    jobs.add(pending.client, local, pending.socketFile, pending.samFile, pending.transport,
             pending.sessionId, [&](const JobTransfer& job) {
                 Syslog::debug("%s: session id: %u, create transfer job, socket: %d, unix: %d",
                               function, pending.sessionId, socketFd, unixFd);
                 proxySessionConnected(pending.sessionId, job.transportPid(),
                                       pending.remoteAddress);
             });
}

} // namespace Vorl
