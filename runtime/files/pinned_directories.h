// The way to a file in a tree that others may write to.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <vector>

namespace RunTime {

// Holds every directory from root down to the one that path lies in as openPinnedDirectory() does
// (runtime/files/file.h); both are in long form. While they are held, the path leads through no
// link. Empty when one of them has gone, or a link or file stands there instead.
std::vector<AutoHandle> openPinnedDirectories(const std::wstring& root, const std::wstring& path);

} // namespace RunTime
