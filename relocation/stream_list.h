// The named streams of one file or directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>
#include <windows.h>

struct StreamEntry {
    std::wstring name; // ":name:$DATA"
    std::int64_t size = 0;
};

// Fills streams with all but the main one; path is in long form and names no link. Returns a Win32
// code: 0 also where the file system has no streams to list.
DWORD listNamedStreams(const std::wstring& path, std::vector<StreamEntry>& streams);
