#include "proxy/relay/job_transfer.h"

#include "common/file_descriptor.h"
#include "common/run_state.h"
#include "logger"
#include "proxy/relay/relay_buffers.h"
#include "proxy/relay/relay_step.h"
#include "proxy/relay/relay_wait.h"

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Vorl {

JobTransfer::JobTransfer(int client, int local, SocketFile&& shadowSocket, OwnedFile&& credentials,
                         TransportHandle&& shadowServer, std::uint32_t session)
    : socketFd(client), unixFd(local), sessionId(session), socketFile(std::move(shadowSocket)),
      samFile(std::move(credentials)) {
    sizeRelayBuffers(socketFd, unixFd);
    thread = std::thread(&JobTransfer::relay, this);
    transport = std::move(shadowServer);
}

void JobTransfer::stop() {
    running = false;
    if (transportRunning(transport)) {
        Syslog::debug("%s: kill transport, pid: %d", "JobTransferStopped", transport.first);
        kill(transport.first, SIGTERM);
    }
    // Wakes the thread from its wait, and from a send to a client that has stopped reading.
    shutDownSockets();
    stopTime = std::chrono::steady_clock::now();
}

void JobTransfer::shutDownSockets() const {
    shutdown(socketFd, SHUT_RDWR);
    shutdown(unixFd, SHUT_RDWR);
}

JobTransfer::~JobTransfer() {
    if (stopTime == std::chrono::steady_clock::time_point())
        stop();
    if (thread.joinable())
        thread.join();
    close(socketFd);
    close(unixFd);
    releaseTransport(transport, stopTime, "JobTransferStopped");
    socketFile.remove();
    samFile.remove();
}

void JobTransfer::relay() {
    std::int64_t result = 0;
    while (result >= 0) {
        const Traffic ready = waitForTraffic(socketFd, unixFd);
        if (!running || !proxyRunning)
            break;
        if (ready.fromClient)
            result = streamTransferIter(socketFd, unixFd, buffer, &running);
        if (ready.fromTransport && result >= 0)
            result = streamTransferIter(unixFd, socketFd, buffer, &running);
    }
    // The client is not to wait for the destructor, which may wait for an unanswered bus call.
    if (!proxyRunning)
        shutDownSockets();
    // Once the job has been stopped, the result of the last step is only a consequence of that.
    if (!running)
        result = 0;
    Syslog::debug("%s: job stopped, session id: %u, result: %s", "JobTransfer", sessionId,
                  relayEndText(result));
    running = false;
}

void JobTransfer::dropClient() {
    // To the relay, an unconnected socket behaves like a closed descriptor: it has no input, and
    // sending to it fails.
    const FileDescriptor vacant(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const FileDescriptor client(fcntl(socketFd, F_DUPFD_CLOEXEC, 0));
    if (!vacant || !client || dup3(vacant.get(), socketFd, O_CLOEXEC) < 0) {
        shutdown(socketFd, SHUT_RDWR);
        return;
    }
    // Ends a send of the relay that is blocked on this client. Only after dup3: otherwise the relay
    // could read the end of the client's stream, and end.
    shutdown(client.get(), SHUT_RDWR);
}

} // namespace Vorl
