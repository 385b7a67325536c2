// stringReplace within its contract: the search text is not empty, and no replacement can create it
// again, because the two have no character in common.
#include "common/strings.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3)
        return 0;
    const std::size_t searchSize = 1 + data[0] % 4;
    const std::size_t replacementSize = data[1] % 8;
    std::string input(reinterpret_cast<const char*>(data + 2), size - 2);
    if (input.size() < searchSize + replacementSize)
        return 0;
    const std::string search = input.substr(0, searchSize);
    const std::string replacement = input.substr(searchSize, replacementSize);
    const std::string source = input.substr(searchSize + replacementSize);
    if (search.find_first_of(replacement) != std::string::npos)
        return 0;

    const std::string result = Vorl::Utils::stringReplace(source, search, replacement);
    if (result.find(search) != std::string::npos)
        std::abort();
    if (source.find(search) == std::string::npos && result != source)
        std::abort();
    (void)Vorl::Utils::stringReplace(source, "%{number}", static_cast<std::int32_t>(size));
    return 0;
}
