#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Vorl {

/// Reports the daemon's state to the service manager, with sd_notify(3). Does nothing if the daemon
/// was not started by one (NOTIFY_SOCKET is not set).
class ServiceManager {
public:
    /// Reports that the daemon has started, with no relays. Main thread, before the periodic task
    /// runs.
    void ready();
    /// Reports that the daemon is stopping. Periodic task.
    void stopping();
    /// Sets the line that `systemctl status` shows. Sent only when it has changed. Periodic task.
    /// @param listeningSession the session that a client is being admitted to, if any
    void showActivity(std::size_t relays, std::optional<std::uint32_t> listeningSession);

private:
    std::string shown; // the line that was sent last
};

} // namespace Vorl
