#include "session/configuration.h"

#include "session/not_ready.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

#include <json/json.h>

namespace Vorl::Session {

namespace {

struct Type {
    bool (Json::Value::*is)() const;
    const char* name;
};

constexpr Type text{&Json::Value::isString, "a text"};
constexpr Type number{&Json::Value::isInt, "a whole number"};
constexpr Type truth{&Json::Value::isBool, "true or false"};

const std::map<std::string, Type> keys = {
    {"connection:policy", text},    {"connection:limit", number}, {"connection:endonlock", truth},
    {"connection:slowdown", truth}, {"password:file", text},      {"proxy:config", text},
    {"front:hook", text},           {"front:address", text},
};

Json::Value readObject(const std::filesystem::path& path) {
    std::ifstream file(path);
    if (!file)
        throw NotReady(path.string() + " cannot be read: " + strerror(errno));
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(builder, file, &root, &errors) || !root.isObject()) {
        std::erase(errors, '\n');
        throw NotReady(path.string() + " is no JSON object: " + errors);
    }
    return root;
}

void require(const std::filesystem::path& path, const Json::Value& root, const std::string& key,
             const Type& type) {
    if (root.isMember(key) && !(root[key].*type.is)())
        throw NotReady(path.string() + ": \"" + key + "\" must be " + type.name);
}

Policy policyOf(const std::string& word) {
    return word == "prevreplace"  ? Policy::Replace
           : word == "multiallow" ? Policy::Allow
                                  : Policy::Refuse;
}

} // namespace

Configuration readConfiguration(const std::filesystem::path& path) {
    const Json::Value root = readObject(path);
    for (const std::string& key : root.getMemberNames()) {
        const auto known = keys.find(key);
        if (known == keys.end())
            throw NotReady(path.string() + ": unknown key \"" + key +
                           "\"; see man vorl_session.json");
        require(path, root, key, known->second);
    }
    Configuration result;
    result.rules.policy = policyOf(root.get("connection:policy", "prevreplace").asString());
    result.rules.limit = root.get("connection:limit", result.rules.limit).asInt();
    result.rules.endOnLock = root.get("connection:endonlock", false).asBool();
    result.rules.delayFailedAddresses = root.get("connection:slowdown", true).asBool();
    result.passwordFile = root.get("password:file", result.passwordFile.string()).asString();
    result.daemonConfiguration =
        root.get("proxy:config", result.daemonConfiguration.string()).asString();
    result.frontHook = root.get("front:hook", "").asString();
    result.frontAddress = root.get("front:address", "").asString();
    return result;
}

DaemonAddress readDaemonAddress(const std::filesystem::path& path) {
    const Json::Value root = readObject(path);
    require(path, root, "listen:addr", text);
    require(path, root, "listen:port", number);
    return {root.get("listen:addr", "0.0.0.0").asString(),
            static_cast<std::uint16_t>(root.get("listen:port", 3389).asInt())};
}

} // namespace Vorl::Session
