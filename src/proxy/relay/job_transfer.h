#pragma once

#include "common/transport_handle.h"
#include "proxy/relay/job_file.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace Vorl {

/// One live client connection. It owns the client's socket, the connected socket of the shadow
/// server, the shadow server and the two files made for it, and runs the thread that copies bytes
/// both ways until either side ends. Lives in one place from construction to destruction.
class JobTransfer {
public:
    /// Starts relaying at once.
    ///
    /// @param client the accepted client; taken over
    /// @param local the connected socket of the shadow server; taken over
    /// @param socketPath the shadow server's socket, removed at the end
    /// @param samPath the shadow server's SAM file, removed at the end
    /// @param shadowServer the shadow server; taken over
    /// @throws std::system_error when no thread can be started; nothing has been taken over then
    JobTransfer(int client, int local, const std::string& socketPath, const std::string& samPath,
                TransportHandle&& shadowServer, std::uint32_t session);
    JobTransfer(const JobTransfer&) = delete;
    JobTransfer& operator=(const JobTransfer&) = delete;

    /// Ends the relay and the shadow server and removes the files. Takes as long as the shadow
    /// server does to end, and no longer than the grace of releaseTransport().
    ~JobTransfer();

    [[nodiscard]] std::uint32_t session() const { return sessionId; }
    [[nodiscard]] std::uint32_t transportPid() const {
        return static_cast<std::uint32_t>(transport.first);
    }
    /// False once the relay is over. Any thread.
    [[nodiscard]] bool isRunning() const { return running; }

    /// Tells relay and shadow server to end, without waiting for either. The destructor does it as
    /// well: for several jobs, stop all before the first is destroyed, and their graces run at
    /// once.
    void stop();

    /// Ends the client's connection and leaves the relay as it is. The descriptor's number stays
    /// taken until the job ends: the next client would otherwise get it, and this relay would carry
    /// that client's bytes to this session's desktop.
    void dropClient();

private:
    void relay();

    const int socketFd;
    const int unixFd;
    const std::uint32_t sessionId;
    std::atomic<bool> running = true; // cleared by the relay thread when it ends, and to end it
    std::thread thread;
    const JobFile socketFile;
    const JobFile samFile;
    std::vector<std::uint8_t> buffer; // both directions; only the relay thread
    TransportHandle transport;
    std::chrono::steady_clock::time_point stopTime; // of stop(); the owner's
};

} // namespace Vorl
