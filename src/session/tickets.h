#pragma once

#include "session/failed_addresses.h"

#include <vector>

namespace Vorl::Session {

/// A text that nobody can guess, by which a front lets one client through to a user's desktop. It
/// does not replace the password.
struct Ticket {
    std::string token; ///< 32 hexadecimal digits
    std::string user;
    Time expiry;
};

/// The tickets that are valid; one thread.
class Tickets {
public:
    static constexpr std::chrono::seconds lifetime{300};

    /// @throws std::system_error when the kernel gives no random bytes
    const Ticket& make(const std::string& user, Time now);
    /// Takes out those of the user: one of them has been used.
    [[nodiscard]] std::vector<Ticket> takeUsed(const std::string& user);
    /// Takes out those that have expired.
    [[nodiscard]] std::vector<Ticket> takeExpired(Time now);

private:
    template<typename Condition> std::vector<Ticket> takeIf(Condition condition);

    std::vector<Ticket> valid;
};

} // namespace Vorl::Session
