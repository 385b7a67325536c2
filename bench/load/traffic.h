#pragma once

#include "results.h"
#include "road.h"

#include <cstddef>
#include <thread>

namespace Bench {

constexpr std::size_t keystroke = 64;
constexpr std::size_t frame = 40'000;
constexpr std::size_t block = 262'144; ///< what bulk is sent and received in
constexpr double framesPerSecond = 60;

/// Sends messages of one size from one end at a steady rate, with a jitter of a quarter so that
/// they do not walk in step with anybody's timer, and receives them at the other.
/// @return the time from each sending to the arrival of the last byte
[[nodiscard]] Samples timeMessages(int from, int to, std::size_t size, double perSecond,
                                   double seconds);

// What goes on beside a measure. Each thread ends when the connection is hung up.
[[nodiscard]] std::jthread sendWithoutPause(int fd);
[[nodiscard]] std::jthread receiveWithoutPause(int fd);
/// At about 6 MB/s, far less than a shadow server that sends without pause.
[[nodiscard]] std::jthread receiveSlowly(int fd);
/// Ten keystrokes a second.
[[nodiscard]] std::jthread type(int fd);

/// Hangs the connection up at the end of its scope: declared after the threads that use it.
class HangUp {
public:
    explicit HangUp(const Connection& toEnd) : connection(toEnd) {}
    ~HangUp();
    HangUp(const HangUp&) = delete;
    HangUp& operator=(const HangUp&) = delete;

private:
    const Connection& connection;
};

} // namespace Bench
