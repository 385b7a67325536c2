#include "session/failed_addresses.h"

#include <algorithm>

namespace Vorl::Session {

using namespace std::chrono_literals;

namespace {

constexpr auto memory = 10min;
// Somebody who has very many addresses must not fill the memory as well.
constexpr std::size_t mostEntries = 1024;

Clock::duration delayAfter(unsigned failures) {
    if (failures < 2)
        return 0s;
    return std::min<Clock::duration>(30s, 1s * (1U << std::min(failures - 2, 5U)));
}

} // namespace

void FailedAddresses::failed(const std::string& address, Time now) {
    makeRoom(now);
    Entry& entry = entries[address];
    ++entry.failures;
    entry.last = now;
    entry.blockedUntil = now + delayAfter(entry.failures);
}

bool FailedAddresses::mustWait(const std::string& address, Time now) const {
    const auto found = entries.find(address);
    return found != entries.end() && now < found->second.blockedUntil;
}

void FailedAddresses::makeRoom(Time now) {
    std::erase_if(entries, [&](const auto& entry) { return now - entry.second.last > memory; });
    if (entries.size() >= mostEntries)
        entries.erase(std::ranges::min_element(
            entries, {}, [](const auto& entry) { return entry.second.last; }));
}

} // namespace Vorl::Session
