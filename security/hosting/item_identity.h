// What tells an item from any other that has its name at another time.
#pragma once

#include <cstdint>
#include <windows.h>

namespace HostingSecurity {

struct ItemIdentity {
    DWORD volume = 0;
    std::uint64_t file = 0;

    bool operator==(const ItemIdentity&) const = default;
};

// What a file system tells of an open item.
struct ItemFacts {
    ItemIdentity identity;
    bool isDirectory = false;
    DWORD names = 0; // of a file; directories have one, whatever some file systems count
};

// Return a Win32 code. The second is for an item below a directory that has been asked for: folders
// with other volumes are links, so the volume is the same.
DWORD readFacts(HANDLE handle, ItemFacts& facts) noexcept;
DWORD readFacts(HANDLE handle, DWORD volume, ItemFacts& facts) noexcept;

} // namespace HostingSecurity
