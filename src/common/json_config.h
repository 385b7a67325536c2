#pragma once

#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include <json/json.h>

namespace Vorl {

/// One JSON object with typed getters that take a default: the configuration file, or a session
/// description. Immutable after construction, so any thread may read it.
///
/// Keys are flat: "listen:port" is the literal name of one member, the colon does not denote
/// nesting. A member that is present always overrides the default, even a null (read as 0, "", 0.0
/// or false). A member that cannot be converted throws Json::LogicError, whose text names the key.
class JsonConfig {
public:
    /// @param value an object (or null, which has no members)
    explicit JsonConfig(Json::Value value) : root(std::move(value)) {}
    JsonConfig(const JsonConfig&) = default;
    JsonConfig& operator=(const JsonConfig&) = default;
    virtual ~JsonConfig() = default;

    /// @param key must be NUL-terminated, as a literal is
    [[nodiscard]] bool hasValue(std::string_view key) const;
    /// The names of all members, sorted.
    [[nodiscard]] std::vector<std::string> getKeys() const;

    [[nodiscard]] std::string getString(const std::string& key,
                                        const std::string& fallback = {}) const;
    [[nodiscard]] int getInteger(const std::string& key, int fallback = 0) const;
    [[nodiscard]] double getDouble(const std::string& key, double fallback = 0) const;
    [[nodiscard]] bool getBoolean(const std::string& key, bool fallback = false) const;
    /// A copy of the member, or a null value when there is none.
    [[nodiscard]] Json::Value getValue(const std::string& key) const;

    /// The elements of an array as strings, in order; numbers are converted to decimal. Empty when
    /// the member is missing or not an array: a single string does not count as a list.
    [[nodiscard]] std::list<std::string> getStringList(const std::string& key) const;
    [[nodiscard]] std::vector<std::string> getVectorList(const std::string& key) const;

protected:
    Json::Value root;
};

/// A JsonConfig from a text received over the bus. Parsed leniently (comments are accepted). Text
/// that is not JSON throws Json::RuntimeError without a log line; JSON that is not an object throws
/// vorl_error("JsonConfigString") after an error line.
class JsonConfigString : public JsonConfig {
public:
    explicit JsonConfigString(const std::string& text);
};

/// Reads a configuration file in strict JSON (no comments; the root is an object or an array). If
/// the file cannot be opened, logs an error and returns a null value. If it cannot be parsed, logs
/// an error and returns the part parsed so far. The caller must check that the result is an object.
[[nodiscard]] Json::Value readJson(const std::filesystem::path& path);

} // namespace Vorl

namespace Json {

/// Conversions in stream notation: `value >> number`. Each returns the value.
const Value& operator>>(const Value& value, int& number);
const Value& operator>>(const Value& value, std::string& text);
const Value& operator>>(const Value& value, double& number);
const Value& operator>>(const Value& value, bool& flag);

} // namespace Json
