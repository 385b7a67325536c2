#include "common/strings.h"

#include <algorithm>
#include <cctype>

namespace Vorl::Utils {

std::string joinList(const std::list<std::string>& texts) {
    std::string all;
    const char* separator = "";
    for (const std::string& text : texts) {
        all.append(separator).append(text);
        separator = ", ";
    }
    return all;
}

std::string stringReplace(const std::string& source, std::string_view search,
                          std::string_view replacement) {
    std::string result = source;
    for (auto at = result.find(search); at != std::string::npos; at = result.find(search))
        result.replace(at, search.size(), replacement);
    return result;
}

std::string stringReplace(const std::string& source, std::string_view search,
                          std::int32_t replacement) {
    return stringReplace(source, search, std::to_string(replacement));
}

std::string stringLower(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    return text;
}

std::string stringUpper(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char letter) {
        return static_cast<char>(std::toupper(letter));
    });
    return text;
}

} // namespace Vorl::Utils
