// The one value that is stored otherwise than it is meant: "FTPPassword" stands in the store as
// "[passwd]" and the Base64 of its UTF-16LE bytes. That keeps it from being read over somebody's
// shoulder, and protects it from nobody.
#pragma once

#include <string>

namespace config {

// What to store for a value of this name. Only "FTPPassword", in exactly this letter case, is
// encoded, and an empty one is stored empty.
std::wstring toStored(const std::wstring& name, const std::wstring& value);

// What a stored text means. One without the prefix, or whose rest is not what toStored writes (no
// Base64, half a character), means itself.
std::wstring fromStored(const std::wstring& name, const std::wstring& stored);

} // namespace config
