#pragma once

#include "common/descriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

class DelayLine;

constexpr std::uint16_t port = 3389;

/// Both ends of one relayed connection, as this process holds them. Blocking.
struct Connection {
    Vorl::Descriptor client;
    Vorl::Descriptor shadow;
};

/// The shadow server's listening socket and the way to it: through the relay that listens on the
/// port, or, to have something to compare with, straight to the port.
class Road {
public:
    /// @param direct no relay: the shadow listens on the port itself, else on the local socket
    Road(bool direct, const std::string& socketPath);

    /// @param line if given, the client is at the far end of it
    [[nodiscard]] Connection connect(const DelayLine* line = nullptr) const;
    [[nodiscard]] std::vector<Connection> connect(int count) const;

private:
    Vorl::Descriptor listening;
};

} // namespace Bench
