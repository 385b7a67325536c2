#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

/// A failed socket call throws std::system_error with this as its message.
[[noreturn]] void failed(const char* call);

/// @return false when the other end has gone
bool sendAll(int fd, const void* bytes, std::size_t count);
/// @return false at the end of the stream
bool receiveAll(int fd, void* bytes, std::size_t count);
/// Receives what is there, at most `count`.
/// @return 0 at the end of the stream, also when it came as an error
std::size_t receiveSome(int fd, void* bytes, std::size_t count);

/// A message that carries the time of its sending in its first eight bytes.
class Message {
public:
    explicit Message(std::size_t size) : bytes(size) {}

    /// Stamps and sends it.
    bool send(int fd);
    /// @return the time from its sending to its last byte, in nanoseconds; negative at the end
    std::int64_t receive(int fd);

private:
    std::vector<std::uint8_t> bytes;
};

} // namespace Bench
