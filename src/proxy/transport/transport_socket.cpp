#include "proxy/transport/transport_socket.h"

#include "common/run_state.h"
#include "common/sockets.h"
#include "logger"

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto socketLimit = 5s;
constexpr auto socketPause = 1ms;
constexpr int connectAttempts = 5;
constexpr auto connectPause = 50ms;

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

bool waitForTransportSocket(const fs::path& path, std::uint32_t sessionId) {
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

FileDescriptor connectToTransport(const std::string& path) {
    FileDescriptor local(Socket::unixConnect(path));
    const auto mayPass = [] { return errno == ECONNREFUSED || errno == EMFILE || errno == ENFILE; };
    for (int attempt = 1; !local && mayPass() && attempt < connectAttempts; ++attempt) {
        std::this_thread::sleep_for(connectPause);
        local = FileDescriptor(Socket::unixConnect(path));
    }
    return local;
}

} // namespace Vorl
