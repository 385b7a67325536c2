#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Vorl {

/// Tells the service manager how the daemon is, over sd_notify(3). Where the daemon was not started
/// by one (NOTIFY_SOCKET is not set), nothing happens.
class ServiceManager {
public:
    /// The daemon has started. Main thread, before the periodic task runs.
    void ready();
    /// The daemon is about to end. Periodic task.
    void stopping();
    /// The line that `systemctl status` shows. Sent only when it has changed. ready(), then the
    /// periodic task.
    /// @param listeningSession the session that a client is being admitted to, if any
    void showActivity(std::size_t relays, std::optional<std::uint32_t> listeningSession);

private:
    std::string shown; // what was sent last
};

} // namespace Vorl
