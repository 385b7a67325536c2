#include "session/tickets.h"

#include "session/hex.h"

#include <algorithm>

#include <array>
#include <cerrno>
#include <functional>
#include <iterator>
#include <system_error>

#include <sys/random.h>

namespace Vorl::Session {

const Ticket& Tickets::make(const std::string& user, Time now) {
    std::array<std::uint8_t, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::system_error(errno, std::generic_category(), "getrandom");
    return valid.emplace_back(Ticket{toHex(bytes), user, now + lifetime});
}

std::vector<Ticket> Tickets::takeUsed(const std::string& user) {
    return takeIf([&](const Ticket& ticket) { return ticket.user == user; });
}

std::vector<Ticket> Tickets::takeExpired(Time now) {
    return takeIf([&](const Ticket& ticket) { return ticket.expiry <= now; });
}

template<typename Condition> std::vector<Ticket> Tickets::takeIf(Condition condition) {
    const auto end = std::stable_partition(valid.begin(), valid.end(), std::not_fn(condition));
    std::vector<Ticket> taken(std::make_move_iterator(end), std::make_move_iterator(valid.end()));
    valid.erase(end, valid.end());
    return taken;
}

} // namespace Vorl::Session
