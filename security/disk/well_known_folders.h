// The folders of Windows that a policy may name.
#pragma once

#include <span>
#include <string>

namespace DiskSecurity {

struct WellKnownFolder {
    const wchar_t* name;
    std::wstring (*path)(); // as the system has it now
};

// In the order in which messages list them. The functions throw vosexception with "SHGetFolderPath
// failed for index %d", "SHGetSpecialFolderPath failed for index %d", "GetProfilesDirectory failed"
// or, for a value of the registry, "Unable to read %s".
std::span<const WellKnownFolder> wellKnownFolders();

} // namespace DiskSecurity
