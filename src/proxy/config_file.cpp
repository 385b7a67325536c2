#include "proxy/config_file.h"

#include "common/call_failure.h"
#include "common/error.h"
#include "logger"

#include <sys/stat.h>

namespace Vorl {

namespace {

/// @return null after an error line when the file does not contain a JSON object
std::shared_ptr<const JsonConfig> readObject(const std::string& path, const char* caller) {
    Json::Value root = readJson(path);
    if (root.isObject())
        return std::make_shared<const JsonConfig>(std::move(root));
    Syslog::error("%s: json not object, file: %s", caller, path.c_str());
    return nullptr;
}

std::string debugLevelOf(const JsonConfig& config) {
    return config.getString("debug:level", "info");
}

} // namespace

ConfigFile::ConfigFile(std::string path)
    : filePath(std::move(path)), config(readObject(filePath, "ProxyConnection")) {
    if (!config)
        throw vorl_error("ProxyConnection");
}

std::shared_ptr<const JsonConfig> ConfigFile::current() const {
    const std::scoped_lock lock(mutex);
    return config;
}

void ConfigFile::applyDebugLevel() const {
    Syslog::setDebugLevel(debugLevelOf(*current()));
}

bool ConfigFile::reload() {
    struct stat status {};
    if (stat(filePath.c_str(), &status) < 0) {
        logCallFailed("reloadConfigWatcher", "stat");
        return false;
    }
    const std::time_t last = modified.exchange(status.st_mtime);
    // A file that cannot be parsed is not read again until it changes.
    if (last == status.st_mtime || last == 0)
        return false;

    auto fresh = readObject(filePath, "reloadConfigWatcher");
    if (!fresh)
        return false;
    // Before the swap: if the level is not a string, the old configuration stays in force.
    const std::string level = debugLevelOf(*fresh);
    {
        const std::scoped_lock lock(mutex);
        config.swap(fresh);
    }
    Syslog::setDebugLevel(level);
    Syslog::notice("%s: %s", "reloadConfigWatcher", "success");
    return true;
}

} // namespace Vorl
