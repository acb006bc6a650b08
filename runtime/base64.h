// Bytes as text in Base64: the usual 64 characters, "=" at the end.
#pragma once

#include "runtime/wipe.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace RunTime {

// What comes out of a text may be a secret.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

// On one line.
std::wstring encodeBase64(std::span<const std::uint8_t> bytes);

// Blanks, tabs and line ends are passed over, since many tools break such texts into lines.
// Anything else must be right: nothing comes back for another character, for a "=" too few, too
// many or in the middle, and for bits left over that are not zero, which no encoder writes.
std::optional<SecretBytes> decodeBase64(std::wstring_view text);

} // namespace RunTime
