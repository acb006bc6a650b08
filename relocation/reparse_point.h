// Reads reparse points as themselves. Their data is foreign: every length in it is checked.
#pragma once

#include <string>
#include <vector>
#include <windows.h>

// The raw reparse data of an item opened with FILE_FLAG_OPEN_REPARSE_POINT. Empty, with the last
// error set, when the item has none or the system does not give it.
std::vector<unsigned char> readReparsePoint(HANDLE item);

// Where a symbolic link or junction leads, as people write it ("C:\data\x"); relative targets as
// they are. Empty for other tags and for damaged data.
std::wstring reparseTarget(const std::vector<unsigned char>& data);
