// What a volume can hold, without asking how much.
#pragma once

#include <string>
#include <windows.h>

namespace RunTime {

struct VolumeKind {
    std::wstring root;       // in long form, with a backslash at the end
    std::wstring fileSystem; // "NTFS"
    DWORD serial = 0;        // also that of the volume's copies
    DWORD flags = 0;         // FILE_PERSISTENT_ACLS, FILE_NAMED_STREAMS, FILE_SUPPORTS_...
};

// Of the volume that holds path, which need not exist; by three calls less than volumeInformation.
// "Unable to get volume information (%s)".
VolumeKind volumeKind(const std::wstring& path);

} // namespace RunTime
