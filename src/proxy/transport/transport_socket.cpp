#include "proxy/transport/transport_socket.h"

#include "common/run_state.h"
#include "common/sockets.h"
#include "logger"

#include <chrono>
#include <system_error>
#include <thread>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds socketPause{1};

bool isSocket(const fs::path& path) {
    std::error_code ignored;
    return fs::is_socket(path, ignored);
}

void logFailure(const char* reason, std::uint32_t sessionId) {
    Syslog::error("%s: exception: %s, session id: %u", "actionCreateTransport", reason, sessionId);
}

} // namespace

void removeStaleSocket(const fs::path& path) {
    std::error_code ignored;
    if (isSocket(path))
        fs::remove(path, ignored);
}

bool waitForTransportSocket(const fs::path& path, std::uint32_t sessionId,
                            TransportDeadline deadline) {
    while (!isSocket(path)) {
        if (!proxyRunning) {
            logFailure("proxy stopped", sessionId);
            return false;
        }
        if (Clock::now() > deadline) {
            logFailure("transport stopped, timeout", sessionId);
            return false;
        }
        std::this_thread::sleep_for(socketPause);
    }
    return true;
}

FileDescriptor connectToTransport(const std::string& path, const TransportHandle& transport,
                                  TransportDeadline deadline) {
    return FileDescriptor(Socket::unixConnectWhile(path, [&] {
        return proxyRunning && Clock::now() <= deadline && transportRunning(transport);
    }));
}

} // namespace Vorl
