// Strings on their way into the library.
#pragma once

#include <string>
#include <string_view>

namespace Utils {

// Every UTF-16 unit as it is, zeros and lone surrogates included.
inline std::wstring toUnmanagedString(std::u16string_view text) {
    return std::wstring(text.begin(), text.end());
}
inline std::wstring toUnmanagedString(std::wstring_view text) {
    return std::wstring(text);
}

} // namespace Utils
