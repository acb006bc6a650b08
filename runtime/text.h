// Conversions between UTF-16, in which the library and Windows speak, and UTF-8, in which logs,
// tracing tags, the database and C++'s own exceptions do.
//
// Neither direction refuses a text: a lone surrogate or a malformed byte sequence becomes U+FFFD,
// because these functions work on file names and error texts that nobody has vetted, often while
// another failure is being reported. Embedded zero characters are kept.
#pragma once

#include <string>
#include <string_view>

std::string toUtf8(std::wstring_view text);
std::wstring toWide(std::string_view text);

// In lower case, character by character, whatever the user's language.
std::wstring toLower(std::wstring_view text);
