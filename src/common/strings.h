#pragma once

#include <cstdint>
#include <list>
#include <sstream>
#include <string>
#include <string_view>

namespace Vorl::Utils {

/// All values written one after another into one text, in the stream's default format and without
/// a separator. A null text puts the stream into its failed state: nothing after it is appended.
template<typename... Values> [[nodiscard]] std::string joinString(const Values&... values) {
    std::ostringstream stream;
    (stream << ... << values);
    return stream.str();
}

/// The texts with ", " between them.
[[nodiscard]] std::string joinList(const std::list<std::string>& texts);

/// The source with every occurrence of `search` replaced. Each search starts again at the first
/// character, so an occurrence that only comes into being by a replacement is replaced as well.
/// The caller sees to it that `search` is not empty and that `replacement` does not bring it back:
/// otherwise this never ends.
[[nodiscard]] std::string stringReplace(const std::string& source, std::string_view search,
                                        std::string_view replacement);
/// The same with the number's decimal text.
[[nodiscard]] std::string stringReplace(const std::string& source, std::string_view search,
                                        std::int32_t replacement);

/// Byte by byte in the current locale: letters of more than one byte stay as they are.
[[nodiscard]] std::string stringLower(std::string text);
[[nodiscard]] std::string stringUpper(std::string text);

} // namespace Vorl::Utils
