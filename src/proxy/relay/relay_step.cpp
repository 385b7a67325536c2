#include "proxy/relay/relay_step.h"

#include "common/call_failure.h"
#include "common/readiness.h"

#include <cerrno>
#include <exception>

#include <sys/socket.h>

namespace Vorl {

namespace {

constexpr int inputMilliseconds = 1;

void logFailure(const char* call, const std::atomic<bool>* running) {
    if (running == nullptr || *running)
        logCallFailed("jobTransferIter", call);
}

bool sendAll(int destination, const std::uint8_t* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t sent = send(destination, bytes, count, MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes += sent;
            count -= static_cast<std::size_t>(sent);
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// The end of a step whose receive call has returned.
std::int64_t forward(ssize_t received, int destination, const std::vector<std::uint8_t>& buffer,
                     const std::atomic<bool>* running) {
    if (received == 0)
        return relayRecvEndStream;
    if (received < 0) {
        logFailure("recv", running);
        return relayRecvError;
    }
    if (!sendAll(destination, buffer.data(), static_cast<std::size_t>(received))) {
        logFailure("send", running);
        return relaySendError;
    }
    return received;
}

/// Whether a step that asks first would have come to its receive call.
/// @throws vorl_error when it would have ended by an exception
bool hasCountableInput(int source) {
    return Utils::hasInput(source, inputMilliseconds) && Utils::hasData(source) >= 0;
}

} // namespace

std::int64_t jobTransferIter(int source, int destination, std::vector<std::uint8_t>& buffer,
                             const std::atomic<bool>* running) {
    try {
        if (!Utils::hasInput(source, inputMilliseconds))
            return 0;
        buffer.resize(static_cast<std::size_t>(Utils::hasData(source)));
    } catch (const std::exception&) {
        return relayException;
    }
    // At the end of the stream the buffer is empty, and so is what is received.
    return forward(recv(source, buffer.data(), buffer.size(), 0), destination, buffer, running);
}

std::int64_t streamTransferIter(int source, int destination, std::vector<std::uint8_t>& buffer,
                                const std::atomic<bool>* running) {
    buffer.resize(largestStreamStep); // the header has the reason for this bound
    const ssize_t received = recv(source, buffer.data(), buffer.size(), MSG_DONTWAIT);
    const int error = errno;
    if (received < 0 && error == EAGAIN)
        return jobTransferIter(source, destination, buffer, running);
    try {
        if (received < 0 && !hasCountableInput(source))
            return 0;
    } catch (const std::exception&) {
        return relayException;
    }
    errno = error;
    return forward(received, destination, buffer, running);
}

const char* relayEndText(std::int64_t result) {
    switch (result) {
    case relayException:
        return "exception";
    case relayRecvEndStream:
        return "recv end stream";
    case relayRecvError:
        return "recv error";
    case relaySendError:
        return "send error";
    default:
        return "unknown";
    }
}

} // namespace Vorl
