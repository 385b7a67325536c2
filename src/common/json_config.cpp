#include "common/json_config.h"

#include "common/error.h"
#include "logger"

#include <fstream>
#include <sstream>
#include <system_error>

namespace Json {

const Value& operator>>(const Value& value, int& number) {
    number = value.asInt();
    return value;
}

const Value& operator>>(const Value& value, std::string& text) {
    text = value.asString();
    return value;
}

const Value& operator>>(const Value& value, double& number) {
    number = value.asDouble();
    return value;
}

const Value& operator>>(const Value& value, bool& flag) {
    flag = value.asBool();
    return value;
}

} // namespace Json

namespace Vorl {

namespace {

/// Adds the key to the library's error message, which does not name it.
[[noreturn]] void throwNamed(const std::string& key, const Json::LogicError& error) {
    throw Json::LogicError("key `" + key + "': " + error.what());
}

template<typename Result>
Result convert(const Json::Value& root, const std::string& key, const Result& fallback,
               Result (Json::Value::*conversion)() const) {
    try {
        return (root.get(key, fallback).*conversion)();
    } catch (const Json::LogicError& error) {
        throwNamed(key, error);
    }
}

template<typename Container> Container textsOf(const Json::Value& root, const std::string& key) {
    Container texts;
    const Json::Value member = root.get(key, Json::Value());
    if (!member.isArray())
        return texts;
    try {
        for (const Json::Value& element : member)
            element >> texts.emplace_back();
    } catch (const Json::LogicError& error) {
        throwNamed(key, error);
    }
    return texts;
}

void logParseFailure(const std::filesystem::path& path, const std::string& reason) {
    Syslog::error("%s: parse failed, path: %s, json error: `%s'", "readJson", path.c_str(),
                  reason.c_str());
}

} // namespace

bool JsonConfig::hasValue(std::string_view key) const {
    return root.isMember(key.data());
}

std::vector<std::string> JsonConfig::getKeys() const {
    return root.getMemberNames();
}

std::string JsonConfig::getString(const std::string& key, const std::string& fallback) const {
    return convert(root, key, fallback, &Json::Value::asString);
}

int JsonConfig::getInteger(const std::string& key, int fallback) const {
    return convert(root, key, fallback, &Json::Value::asInt);
}

double JsonConfig::getDouble(const std::string& key, double fallback) const {
    return convert(root, key, fallback, &Json::Value::asDouble);
}

bool JsonConfig::getBoolean(const std::string& key, bool fallback) const {
    return convert(root, key, fallback, &Json::Value::asBool);
}

Json::Value JsonConfig::getValue(const std::string& key) const {
    return root.get(key, Json::Value());
}

std::list<std::string> JsonConfig::getStringList(const std::string& key) const {
    return textsOf<std::list<std::string>>(root, key);
}

std::vector<std::string> JsonConfig::getVectorList(const std::string& key) const {
    return textsOf<std::vector<std::string>>(root, key);
}

JsonConfigString::JsonConfigString(const std::string& text) : JsonConfig(Json::Value()) {
    std::istringstream stream(text);
    stream >> root;
    if (!root.isObject()) {
        Syslog::error("%s: config failed, not json object: `%s'", "JsonConfigString", text.c_str());
        throw vorl_error("JsonConfigString");
    }
}

Json::Value readJson(const std::filesystem::path& path) {
    Syslog::info("%s: file: %s", "readJson", path.c_str());
    Json::Value root;
    std::error_code ignored;
    // Opening a FIFO would block the daemon until there is a writer.
    std::ifstream file;
    if (!std::filesystem::is_fifo(path, ignored))
        file.open(path);
    if (!file.is_open()) {
        Syslog::error("%s: open failed, path: %s", "readJson", path.c_str());
        return root;
    }
// Deliberately the deprecated reader: its successor rejects more than strict mode does (a repeated
// key, text after the root), so files that have worked so far would be refused.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader(Json::Features::strictMode());
#pragma GCC diagnostic pop
    try {
        if (!reader.parse(file, root, false))
            logParseFailure(path, reader.getFormattedErrorMessages());
        return root;
    } catch (const std::exception& failure) { // a directory, or nested too deeply for the reader
        logParseFailure(path, failure.what());
        return {};
    }
}

} // namespace Vorl
