#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>

namespace Vorl {

/// A printf format that the compiler has checked against the types of its arguments.
///
/// The compiler's own check does not work through a template, so a std::string for "%s" would print
/// garbage at run time. Can be built from a literal only. A conversion that does not fit its
/// argument, or a wrong number of arguments, does not compile. Supports what the daemon's messages
/// use: %s (a character pointer), %d, %u (an int-sized integer or enumeration) and %%.
template<typename... Args> class PrintfFormat {
public:
    // Implicit, so that callers can pass a plain literal.
    consteval PrintfFormat(const char* literal) : format(literal) {
        constexpr std::size_t count = sizeof...(Args);
        constexpr bool isText[] = {isCharacterPointer<Args>..., false};
        constexpr bool isInt[] = {isIntSized<Args>..., false};
        std::size_t used = 0;
        for (const char* at = literal; *at != '\0'; ++at) {
            if (*at != '%' || *++at == '%')
                continue;
            const bool fits = used < count && ((*at == 's' && isText[used]) ||
                                               ((*at == 'd' || *at == 'u') && isInt[used]));
            if (!fits)
                throw "a conversion of the format does not fit its argument";
            ++used;
        }
        if (used != count)
            throw "more arguments than conversions in the format";
    }

    [[nodiscard]] constexpr const char* text() const { return format; }

private:
    template<typename T>
    static constexpr bool isCharacterPointer =
        std::same_as<T, char*> || std::same_as<T, const char*> || std::is_null_pointer_v<T>;
    // Narrower integers are promoted to int when they are passed through "...".
    template<typename T>
    static constexpr bool isIntSized = sizeof(T) <= sizeof(int) &&
                                       (std::is_integral_v<T> || std::is_enum_v<T>);

    const char* format;
};

} // namespace Vorl
