// printf-style formatting into a wide string. "%s" and "%c" take wide text, "%hs" 8-bit text;
// 64-bit integers are "%lld" or "%llu".
#pragma once

#include <cstdarg>
#include <string>

// Throws ArgumentException when the format cannot be carried out.
std::wstring formatString(const wchar_t* format, ...);
std::wstring vformatString(const wchar_t* format, std::va_list arguments);
