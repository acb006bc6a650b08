#include "security/hosting/item_identity.h"

#include "runtime/files/file.h"

#include <winternl.h>

namespace HostingSecurity {

DWORD readFacts(HANDLE handle, ItemFacts& facts) noexcept {
    BY_HANDLE_FILE_INFORMATION information;
    if (!::GetFileInformationByHandle(handle, &information)) {
        return ::GetLastError();
    }
    facts.identity.volume = information.dwVolumeSerialNumber;
    facts.identity.file =
        (std::uint64_t{information.nFileIndexHigh} << 32) | information.nFileIndexLow;
    facts.isDirectory = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    facts.names = information.nNumberOfLinks;
    return ERROR_SUCCESS;
}

// Asking the system for volume and file together can take longer than all else that an item needs.
// The short way is not for links: not every file system tells their own number so.
DWORD readFacts(HANDLE handle, DWORD volume, ItemFacts& facts) noexcept {
    RunTime::FileInformation kind;
    FILE_STANDARD_INFO standard;
    FILE_INTERNAL_INFORMATION number;
    IO_STATUS_BLOCK status;
    if (RunTime::readKind(handle, kind) != ERROR_SUCCESS ||
        (kind.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
        !::GetFileInformationByHandleEx(handle, FileStandardInfo, &standard, sizeof(standard)) ||
        ::NtQueryInformationFile(handle, &status, &number, sizeof(number),
                                 FileInternalInformation) != 0) {
        return readFacts(handle, facts);
    }
    facts.identity = {volume, static_cast<std::uint64_t>(number.IndexNumber.QuadPart)};
    facts.isDirectory = kind.isDirectory();
    facts.names = standard.NumberOfLinks;
    return ERROR_SUCCESS;
}

} // namespace HostingSecurity
