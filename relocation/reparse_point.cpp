#include "relocation/reparse_point.h"

#include <cstddef>
#include <cstring>
#include <winioctl.h>

namespace {

// REPARSE_DATA_BUFFER, which belongs to the driver kit: tag, length of what follows the 8-byte
// header, then offset and length in bytes of substitute and print name, which stand behind them.
struct LinkHeader {
    ULONG tag;
    USHORT dataLength;
    USHORT reserved;
    USHORT substituteOffset;
    USHORT substituteLength;
    USHORT printOffset;
    USHORT printLength;
};
constexpr std::size_t mountNames = sizeof(LinkHeader);
constexpr std::size_t symlinkNames = sizeof(LinkHeader) + sizeof(ULONG); // flags in between

} // namespace

std::vector<unsigned char> readReparsePoint(HANDLE item) {
    std::vector<unsigned char> data(MAXIMUM_REPARSE_DATA_BUFFER_SIZE);
    DWORD length = 0;
    if (!::DeviceIoControl(item, FSCTL_GET_REPARSE_POINT, nullptr, 0, data.data(),
                           static_cast<DWORD>(data.size()), &length, nullptr)) {
        return {};
    }
    data.resize(length);
    return data;
}

std::wstring reparseTarget(const std::vector<unsigned char>& data) {
    LinkHeader header{};
    if (data.size() < sizeof(header)) {
        return {};
    }
    std::memcpy(&header, data.data(), sizeof(header));
    const std::size_t names = header.tag == IO_REPARSE_TAG_SYMLINK       ? symlinkNames
                              : header.tag == IO_REPARSE_TAG_MOUNT_POINT ? mountNames
                                                                         : 0;
    const std::size_t begin = names + header.substituteOffset;
    if (names == 0 || begin > data.size() || header.substituteLength > data.size() - begin) {
        return {};
    }
    std::wstring target(header.substituteLength / sizeof(wchar_t), L'\0');
    std::memcpy(target.data(), data.data() + begin, target.size() * sizeof(wchar_t));
    // The substitute name is an object path: "\??\C:\data", "\??\UNC\server\share".
    if (target.starts_with(L"\\??\\UNC\\")) {
        return L"\\" + target.substr(7);
    }
    return target.starts_with(L"\\??\\") ? target.substr(4) : target;
}
