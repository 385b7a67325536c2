#include "traffic.h"

#include "clock.h"
#include "stream.h"

#include <random>
#include <stdexcept>

#include <sys/socket.h>

namespace Bench {

namespace {

/// Sends at a mean rate until the other end has gone or `count` messages are out; 0: no limit.
void sendPaced(int fd, std::size_t size, double perSecond, std::size_t count) {
    Message message(size);
    std::minstd_rand random(1);
    std::uniform_real_distribution<double> interval(0.75 / perSecond, 1.25 / perSecond);
    auto due = Clock::now();
    for (std::size_t sent = 0; count == 0 || sent < count; ++sent) {
        due += std::chrono::duration_cast<Clock::duration>(Seconds(interval(random)));
        std::this_thread::sleep_until(due);
        if (!message.send(fd))
            return;
    }
}

} // namespace

Samples timeMessages(int from, int to, std::size_t size, double perSecond, double seconds) {
    const auto count = static_cast<std::size_t>(perSecond * seconds);
    const std::jthread sender([=] { sendPaced(from, size, perSecond, count); });
    Samples samples;
    Message message(size);
    while (samples.size() < count) {
        const std::int64_t took = message.receive(to);
        if (took < 0)
            throw std::runtime_error("the relay has ended the connection");
        samples.push_back(took);
    }
    return samples;
}

std::jthread sendWithoutPause(int fd) {
    return std::jthread([fd] {
        const std::vector<char> bytes(block);
        while (sendAll(fd, bytes.data(), bytes.size())) {
        }
    });
}

std::jthread receiveWithoutPause(int fd) {
    return std::jthread([fd] {
        std::vector<char> bytes(block);
        while (receiveSome(fd, bytes.data(), bytes.size()) > 0) {
        }
    });
}

std::jthread receiveSlowly(int fd) {
    return std::jthread([fd] {
        std::vector<char> bytes(block / 4);
        while (receiveSome(fd, bytes.data(), bytes.size()) > 0)
            pause(0.010);
    });
}

std::jthread type(int fd) {
    return std::jthread([fd] { sendPaced(fd, keystroke, 10, 0); });
}

HangUp::~HangUp() {
    // Closing it resets the connection: what is still underway is not waited for.
    const linger atOnce{1, 0};
    setsockopt(connection.client.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    shutdown(connection.client.get(), SHUT_RDWR);
    shutdown(connection.shadow.get(), SHUT_RDWR);
}

} // namespace Bench
