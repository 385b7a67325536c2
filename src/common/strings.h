#pragma once

#include <cstdint>
#include <list>
#include <sstream>
#include <string>
#include <string_view>

namespace Vorl::Utils {

/// Concatenates the values in the stream's default format, without a separator. A null C string
/// puts the stream into its failed state: nothing after it is appended.
template<typename... Values> [[nodiscard]] std::string joinString(const Values&... values) {
    std::ostringstream stream;
    static_cast<void>((stream << ... << values)); // the cast is for an empty pack
    return stream.str();
}

/// The strings, separated by ", ".
[[nodiscard]] std::string joinList(const std::list<std::string>& texts);

/// The source with every occurrence of `search` replaced. Each search starts again at the first
/// character, so an occurrence that a replacement creates is replaced as well. The caller must
/// ensure that `search` is not empty and that no replacement creates it again: otherwise this never
/// returns.
[[nodiscard]] std::string stringReplace(const std::string& source, std::string_view search,
                                        std::string_view replacement);
/// Same, with the number in decimal.
[[nodiscard]] std::string stringReplace(const std::string& source, std::string_view search,
                                        std::int32_t replacement);

/// Converts byte by byte in the current locale: multi-byte letters stay unchanged.
[[nodiscard]] std::string stringLower(std::string text);
[[nodiscard]] std::string stringUpper(std::string text);

} // namespace Vorl::Utils
