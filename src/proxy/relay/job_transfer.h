#pragma once

#include "common/owned_file.h"
#include "common/transport_handle.h"
#include "proxy/relay/socket_file.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace Vorl {

/// One live client connection. It owns the client's socket, the connected socket of the shadow
/// server, the shadow server and the two files made for it, and runs the thread that copies bytes
/// in both directions until either side closes. Can be neither copied nor moved.
class JobTransfer {
public:
    /// Starts relaying at once.
    ///
    /// @param client the accepted client; takes ownership
    /// @param local the connected socket of the shadow server; takes ownership
    /// @param shadowSocket the shadow server's socket, removed at the end
    /// @param credentials the shadow server's SAM file, removed at the end
    /// @param shadowServer the shadow server; takes ownership
    /// @throws std::system_error when no thread can be started; descriptors and shadow server
    /// remain
    ///         the caller's then, and the two files stay where they are
    JobTransfer(int client, int local, SocketFile&& shadowSocket, OwnedFile&& credentials,
                TransportHandle&& shadowServer, std::uint32_t session);
    JobTransfer(const JobTransfer&) = delete;
    JobTransfer& operator=(const JobTransfer&) = delete;

    /// Ends the relay and the shadow server and removes the files. Blocks until the shadow server
    /// has exited, at most for the grace period of releaseTransport().
    ~JobTransfer();

    [[nodiscard]] std::uint32_t session() const { return sessionId; }
    [[nodiscard]] std::uint32_t transportPid() const {
        return static_cast<std::uint32_t>(transport.first);
    }
    /// False once the relay is over. Any thread.
    [[nodiscard]] bool isRunning() const { return running; }

    /// Tells relay and shadow server to end, without waiting for either. The destructor calls it if
    /// necessary. To end several jobs, stop all of them before the first is destroyed: then their
    /// grace periods run in parallel.
    void stop();

    /// Closes the client's connection without ending the relay. The descriptor's number stays in
    /// use until the job ends: otherwise the next client could get it, and this relay would send
    /// that client's bytes to this session's desktop.
    void dropClient();

private:
    void relay();
    void shutDownSockets() const;

    const int socketFd;
    const int unixFd;
    const std::uint32_t sessionId;
    std::atomic<bool> running = true; // cleared by the relay thread when it ends, and by stop()
    std::thread thread;
    const SocketFile socketFile;
    const OwnedFile samFile;
    std::vector<std::uint8_t> buffer; // of streamTransferIter(), both directions; relay thread only
    TransportHandle transport;
    std::chrono::steady_clock::time_point stopTime; // of stop(); owner only
};

} // namespace Vorl
