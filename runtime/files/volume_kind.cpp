#include "runtime/files/volume_kind.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"

#include <iterator>

namespace RunTime {

VolumeKind volumeKind(const std::wstring& path) {
    VolumeKind result;
    result.root = volumeRoot(path);
    wchar_t fileSystem[MAX_PATH + 1] = {};
    if (!::GetVolumeInformationW(result.root.c_str(), nullptr, 0, &result.serial, nullptr,
                                 &result.flags, fileSystem,
                                 static_cast<DWORD>(std::size(fileSystem)))) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to get volume information (%s)", result.root, code,
                     "RunTime::volumeKind", __LINE__);
    }
    result.fileSystem = fileSystem;
    return result;
}

} // namespace RunTime
