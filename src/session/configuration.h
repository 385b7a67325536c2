#pragma once

#include "session/admission.h"
#include "session/client_sockets.h"

#include <filesystem>

namespace Vorl::Session {

/// The service's configuration file; its keys are explained in vorl_session.json(5).
struct Configuration {
    Rules rules;
    std::filesystem::path passwordFile = "/etc/vorl/vorl_session.passwd";
    std::filesystem::path daemonConfiguration = "/etc/vorl/vorl_proxy.json";
    std::filesystem::path frontHook; ///< empty: none
    std::string frontAddress;        ///< where clients connect; empty: this host's name
};

/// Reads the file anew.
/// @throws NotReady for a file that cannot be read, is no strict JSON object, has an unknown key or
///         a value of a wrong type
[[nodiscard]] Configuration readConfiguration(const std::filesystem::path& path);

/// Where the daemon listens, by its configuration file and its defaults.
/// @throws NotReady as above; the daemon's other keys are none of ours
[[nodiscard]] DaemonAddress readDaemonAddress(const std::filesystem::path& path);

} // namespace Vorl::Session
