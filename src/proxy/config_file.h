#pragma once

#include "common/json_config.h"

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

namespace Vorl {

/// The daemon's configuration file, and the configuration in force. Any thread may call current();
/// only the periodic task calls reload().
class ConfigFile {
public:
    /// Reads the file: strict JSON.
    /// @throws vorl_error("ProxyConnection") after an error line when it is not a JSON object
    explicit ConfigFile(std::string filePath);

    /// The configuration in force. A reload replaces the whole object; a caller may keep the old
    /// one.
    [[nodiscard]] std::shared_ptr<const JsonConfig> current() const;

    /// Reads the file again when its modification time has changed since the last call, and sets
    /// the log level. The first call only stores that time. If the file cannot be read or is not a
    /// JSON object, logs an error and keeps the configuration.
    /// @return true when a new configuration is in force
    /// @throws Json::LogicError when "debug:level" is not a string; the configuration is kept
    bool reload();

    /// Sets the log level from "debug:level".
    void applyDebugLevel() const;

    [[nodiscard]] const std::string& path() const { return filePath; }

private:
    const std::string filePath;
    mutable std::mutex mutex;                 // guards the pointer below, for a copy or a swap
    std::shared_ptr<const JsonConfig> config; // replaced by the periodic task
    std::atomic<std::time_t> modified = 0;    // last seen modification time; periodic task
};

} // namespace Vorl
