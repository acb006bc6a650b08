#include "relocation/reparse_point.h"

#include "runtime/files/path.h"

#include <cstddef>
#include <cstring>
#include <string_view>
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
constexpr std::size_t lengthBegins = 8;                                  // what dataLength counts
constexpr ULONG symlinkRelative = 1;

// The substitute name is an object path: "\??\C:\data", "\??\UNC\server\share".
constexpr std::wstring_view objectPrefix = L"\\??\\";
constexpr std::wstring_view objectUncPrefix = L"\\??\\UNC\\";

// 0: no link of the two kinds.
std::size_t beginOfNames(ULONG tag) {
    return tag == IO_REPARSE_TAG_SYMLINK       ? symlinkNames
           : tag == IO_REPARSE_TAG_MOUNT_POINT ? mountNames
                                               : 0;
}

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

std::optional<LinkNames> linkNames(const std::vector<unsigned char>& data) {
    LinkHeader header{};
    if (data.size() < sizeof(header)) {
        return std::nullopt;
    }
    std::memcpy(&header, data.data(), sizeof(header));
    LinkNames names;
    names.tag = header.tag;
    const std::size_t begin = beginOfNames(header.tag);
    if (begin == 0 || begin > data.size()) {
        return std::nullopt;
    }
    if (header.tag == IO_REPARSE_TAG_SYMLINK) {
        ULONG flags = 0;
        std::memcpy(&flags, data.data() + mountNames, sizeof(flags));
        names.relative = (flags & symlinkRelative) != 0;
    }
    const auto read = [&](USHORT offset, USHORT length, std::wstring& name) {
        if (begin + offset > data.size() || length > data.size() - begin - offset) {
            return false;
        }
        name.resize(length / sizeof(wchar_t));
        std::memcpy(name.data(), data.data() + begin + offset, name.size() * sizeof(wchar_t));
        return true;
    };
    if (!read(header.substituteOffset, header.substituteLength, names.target)) {
        return std::nullopt;
    }
    if (!read(header.printOffset, header.printLength, names.print)) {
        names.print.clear(); // nothing follows it
    }
    if (names.target.starts_with(objectUncPrefix)) {
        names.target = L"\\" + names.target.substr(objectUncPrefix.size() - 1);
    } else if (names.target.starts_with(objectPrefix)) {
        names.target.erase(0, objectPrefix.size());
    }
    return names;
}

std::wstring reparseTarget(const std::vector<unsigned char>& data) {
    const std::optional<LinkNames> names = linkNames(data);
    return names ? names->target : std::wstring();
}

std::vector<unsigned char> linkData(const LinkNames& names) {
    const std::wstring substitute = names.target.starts_with(L"\\\\")
                                        ? std::wstring(objectUncPrefix).append(names.target, 2)
                                        : std::wstring(objectPrefix).append(names.target);
    // The names of a mount point are terminated, and a symbolic link does not mind.
    const std::wstring text = substitute + L'\0' + names.print + L'\0';
    const std::size_t begin = beginOfNames(names.tag);
    const std::size_t size = begin + text.size() * sizeof(wchar_t);
    if (begin == 0 || size > MAXIMUM_REPARSE_DATA_BUFFER_SIZE) {
        RunTime::throwForPath(L"Unable to make a link to (%s)", names.target,
                              ERROR_INVALID_REPARSE_DATA, "linkData", __LINE__);
    }
    const auto bytesOf = [](std::size_t characters) {
        return static_cast<USHORT>(characters * sizeof(wchar_t));
    };
    LinkHeader header{};
    header.tag = names.tag;
    header.dataLength = static_cast<USHORT>(size - lengthBegins);
    header.substituteLength = bytesOf(substitute.size());
    header.printOffset = bytesOf(substitute.size() + 1);
    header.printLength = bytesOf(names.print.size());
    std::vector<unsigned char> data(size); // flags of a symbolic link: absolute
    std::memcpy(data.data(), &header, sizeof(header));
    std::memcpy(data.data() + begin, text.data(), text.size() * sizeof(wchar_t));
    return data;
}

DWORD writeReparsePoint(HANDLE item, const std::vector<unsigned char>& data) noexcept {
    DWORD length = 0;
    return ::DeviceIoControl(item, FSCTL_SET_REPARSE_POINT, const_cast<unsigned char*>(data.data()),
                             static_cast<DWORD>(data.size()), nullptr, 0, &length, nullptr)
               ? ERROR_SUCCESS
               : ::GetLastError();
}
