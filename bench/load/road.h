#pragma once

#include "common/file_descriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

class DelayLine;

/// Both ends of one relayed connection, as this process holds them. Blocking.
struct Connection {
    Vorl::FileDescriptor client;
    Vorl::FileDescriptor shadow;
};

/// The shadow server's listening socket and the way to it: through the relay that listens on the
/// port, or, to have something to compare with, straight to the port.
class Road {
public:
    /// @param socketPath where the relay finds the shadow server; empty: there is no relay, and the
    ///                   shadow server listens on the port itself
    Road(std::uint16_t port, const std::string& socketPath);

    /// @param line if given, the client is at the far end of it
    [[nodiscard]] Connection connect(const DelayLine* line = nullptr) const;
    [[nodiscard]] std::vector<Connection> connect(int count) const;

private:
    std::uint16_t port;
    Vorl::FileDescriptor listening;
};

} // namespace Bench
