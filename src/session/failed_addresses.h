#pragma once

#include <chrono>
#include <map>
#include <string>

namespace Vorl::Session {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

/// Slows an address down whose connections keep ending before they were shown the picture.
///
/// The first failure costs nothing: many clients connect twice, once to learn what security is
/// offered. From the second on an address waits 1, 2, 4 ... 30 seconds.
class FailedAddresses {
public:
    void failed(const std::string& address, Time now);
    void succeeded(const std::string& address) { entries.erase(address); }
    /// Whether the address still has to wait.
    [[nodiscard]] bool mustWait(const std::string& address, Time now) const;

private:
    struct Entry {
        unsigned failures = 0;
        Time last;
        Time blockedUntil;
    };

    void makeRoom(Time now);

    std::map<std::string, Entry> entries;
};

} // namespace Vorl::Session
