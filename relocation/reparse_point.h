// Reads and writes reparse points as themselves. Their data is foreign: every length in it is
// checked.
#pragma once

#include <optional>
#include <string>
#include <vector>
#include <windows.h>

// The raw reparse data of an item opened with FILE_FLAG_OPEN_REPARSE_POINT. Empty, with the last
// error set, when the item has none or the system does not give it.
std::vector<unsigned char> readReparsePoint(HANDLE item);

// Where a symbolic link or junction leads, as people write it ("C:\data\x"); relative targets as
// they are. Empty for other tags and for damaged data.
std::wstring reparseTarget(const std::vector<unsigned char>& data);

// What a symbolic link or junction says of where it leads.
struct LinkNames {
    DWORD tag = 0;         // IO_REPARSE_TAG_SYMLINK or IO_REPARSE_TAG_MOUNT_POINT
    bool relative = false; // of a symbolic link: the target is relative to the link's place
    std::wstring target;   // as reparseTarget() gives it: this is followed
    std::wstring print;    // what programs show; may be empty, and need not be the same
};
// Nothing for other tags and for damaged data.
std::optional<LinkNames> linkNames(const std::vector<unsigned char>& data);

// The reparse data of an absolute link with these names; the target is an absolute nice path.
// Throws vosexception (4392) for names that no link has room for.
std::vector<unsigned char> linkData(const LinkNames& names);

// Writes the data to an item opened with FILE_FLAG_OPEN_REPARSE_POINT and FILE_WRITE_ATTRIBUTES. A
// Win32 code, 0 when done.
DWORD writeReparsePoint(HANDLE item, const std::vector<unsigned char>& data) noexcept;
