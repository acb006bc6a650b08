#include "security/access.h"

#include "runtime/files/file.h"

namespace RunTime::Access {

DescriptorBytes getSecurity(const std::wstring& path) {
    DescriptorBytes bytes;
    const AutoHandle handle =
        openExisting(path, READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    const DWORD code = handle ? readDescriptor(handle.get(), false, bytes) : ::GetLastError();
    if (code != ERROR_SUCCESS) {
        throwForPath(L"Unable to get security (%s)", path, code, "RunTime::Access::getSecurity",
                     __LINE__);
    }
    return bytes;
}

} // namespace RunTime::Access
