// Removing a file so that an administrator can still get it back.
#pragma once

#include "runtime/files/file.h"

namespace RunTime {

// Puts a file into the recycle bin of its drive. Where that does not take it (there is none, the
// path is too long for it, the file is in use), the file is deleted as deleteFile() does it, with
// its errors and its try count. Links are for deleteFile() alone.
void recycleFile(const std::wstring& path, int tryCount = defaultTryCount);

} // namespace RunTime
