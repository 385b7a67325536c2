// The configuration file with arbitrary bytes: the strict reader and every typed getter.
#include "common/json_config.h"
#include "logger"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

namespace {

/// One file for the lifetime of the process, in memory.
const std::string& scratchFile() {
    static const std::string path = [] {
        std::string name = "/dev/shm/vorl_fuzz_XXXXXX";
        const int fd = mkstemp(name.data());
        if (fd < 0)
            std::abort();
        close(fd);
        static std::string toRemove = name;
        std::atexit([] { unlink(toRemove.c_str()); });
        return name;
    }();
    return path;
}

template<typename Get> void tolerant(Get get) {
    try {
        get();
    } catch (const Json::LogicError&) { // documented for a value of another type
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Vorl::Syslog::setDebugLevel(Vorl::DebugLevel::Quiet);
    std::ofstream(scratchFile(), std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    Json::Value root;
    try {
        root = Vorl::readJson(scratchFile());
    } catch (const Json::RuntimeError&) { // nested too deeply
        return 0;
    }
    if (!root.isObject())
        return 0;
    const Vorl::JsonConfig config(root);
    for (const std::string& key : config.getKeys()) {
        if (!config.hasValue(key.c_str()) && key.find('\0') == std::string::npos)
            std::abort();
        tolerant([&] { (void)config.getString(key, "fallback"); });
        tolerant([&] { (void)config.getInteger(key, 1); });
        tolerant([&] { (void)config.getDouble(key, 1); });
        tolerant([&] { (void)config.getBoolean(key, true); });
        tolerant([&] { (void)config.getStringList(key); });
        tolerant([&] { (void)config.getVectorList(key); });
    }
    if (config.getInteger("no such key", 7) != 7 && !config.hasValue("no such key"))
        std::abort();
    return 0;
}
