#include "runtime/files/recycle.h"

#include "runtime/com.h"

#include <shellapi.h>

namespace RunTime {

namespace {

bool recycled(const std::wstring& path) {
    std::wstring names = nicePath(path);
    // The shell takes typed paths only, and reads a name that ends in a dot as one without it.
    if (names.size() >= MAX_PATH || longPath(names) != longPath(path)) {
        return false;
    }
    names.push_back(L'\0'); // a list, which ends with an empty name
    const ComScope com;
    SHFILEOPSTRUCTW operation = {};
    operation.wFunc = FO_DELETE;
    operation.pFrom = names.c_str();
    operation.fFlags = FOF_ALLOWUNDO | FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI |
                       FOF_NORECURSION | FOF_NO_CONNECTED_ELEMENTS;
    return ::SHFileOperationW(&operation) == 0 && !operation.fAnyOperationsAborted && !exists(path);
}

} // namespace

void recycleFile(const std::wstring& path, int tryCount) {
    if (!recycled(path)) {
        deleteFile(path, tryCount);
    }
}

} // namespace RunTime
