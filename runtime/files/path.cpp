#include "runtime/files/path.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/volume_kind.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace RunTime {

namespace {

// A UNICODE_STRING holds no more, its terminator counted.
constexpr std::size_t maximumPath = 32767;

bool isDriveLetter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool hasLongPrefix(std::wstring_view path) {
    return path.substr(0, longPrefix.size()) == longPrefix;
}

bool hasLongUncPrefix(std::wstring_view path) {
    return hasLongPrefix(path) && beginsWith(path, longUncPrefix);
}

// Length of the root without a backslash at its end; 0 for a path that has none.
std::size_t rootLength(std::wstring_view path) {
    const auto endOfComponent = [&](std::size_t from) {
        return std::min(path.find(L'\\', from), path.size());
    };
    const auto endOfShare = [&](std::size_t server) {
        const std::size_t end = endOfComponent(server);
        return end == path.size() ? end : endOfComponent(end + 1);
    };
    if (hasLongUncPrefix(path)) {
        return endOfShare(longUncPrefix.size());
    }
    // "\\.\" begins a device path as "\\?\" does.
    if (hasLongPrefix(path) || path.substr(0, 4) == L"\\\\.\\") {
        return endOfComponent(4);
    }
    if (path.substr(0, 2) == L"\\\\") {
        return endOfShare(2);
    }
    return path.size() >= 2 && isDriveLetter(path[0]) && path[1] == L':' ? 2 : 0;
}

// A share's root is complete without a backslash, that of a drive or volume is not.
bool isShare(std::wstring_view path) {
    return hasLongUncPrefix(path) || (path.substr(0, 2) == L"\\\\" && !hasLongPrefix(path));
}

void checkText(const std::wstring& path) {
    if (path.empty()) {
        throw ArgumentException(L"The path is empty", {L"", "RunTime::longPath", __LINE__});
    }
    if (path.find(L'\0') != std::wstring::npos) {
        throw ArgumentException(L"The path has a zero character in it",
                                {L"", "RunTime::longPath", __LINE__});
    }
    if (path.size() >= maximumPath) {
        _throwError(L"Unable to get a full path: it is too long", ERROR_FILENAME_EXCED_RANGE,
                    {L"", "RunTime::longPath", __LINE__});
    }
}

// Calls a function that fills a buffer and returns the length, or the size it needs; an empty text
// with GetLastError() set when it fails.
template <class Function>
std::wstring fillBuffer(Function function) {
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        ::SetLastError(ERROR_SUCCESS);
        const DWORD length = function(buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length < buffer.size()) {
            buffer.resize(length);
            return buffer;
        }
        if (length > maximumPath + longUncPrefix.size()) {
            ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return {};
        }
        // What is named may grow between two calls, so the size is only a hint.
        buffer.resize(std::size_t{length} + 1);
    }
}

std::wstring fullPath(const std::wstring& path) {
    return fillBuffer([&](wchar_t* buffer, DWORD size) {
        return ::GetFullPathNameW(path.c_str(), size, buffer, nullptr);
    });
}

// Wine's GetLongPathNameW and GetVolumeNameForVolumeMountPointW do not understand the prefix, and
// Windows takes more than MAX_PATH characters only with it. So the typed form is used while it is
// short and says the same; names that end in a dot, devices' names and the like need the prefix.
std::wstring callablePath(const std::wstring& longForm) {
    std::wstring nice = nicePath(longForm);
    const bool same = nice.size() < MAX_PATH && rootLength(nice) != 0 && fullPath(nice) == nice;
    return same ? nice : longForm;
}

enum class Names { shortOnes, longOnes };

// Empty, with GetLastError() set, on failure.
std::wstring tryNames(const std::wstring& path, Names names) {
    const bool prefixed = hasLongPrefix(path);
    const std::wstring given = callablePath(longPath(path));
    std::wstring result = fillBuffer([&](wchar_t* buffer, DWORD size) {
        return names == Names::shortOnes ? ::GetShortPathNameW(given.c_str(), buffer, size)
                                         : ::GetLongPathNameW(given.c_str(), buffer, size);
    });
    if (result.empty()) {
        return result;
    }
    if (!prefixed) {
        return nicePath(result);
    }
    if (hasLongPrefix(result)) {
        return result;
    }
    return isShare(result) ? std::wstring(longUncPrefix) + result.substr(2)
                           : std::wstring(longPrefix) + result;
}

// What tells one file of a machine from every other.
struct Identity {
    ULONGLONG volume = 0;
    FILE_ID_128 file = {};

    bool operator==(const Identity& other) const {
        return volume == other.volume && std::memcmp(&file, &other.file, sizeof(file)) == 0;
    }
};

// Follows links, as no other open here does: the question is what a path leads to in the end, and
// nothing but that is learnt through the handle.
AutoHandle openFollowing(const std::wstring& path) {
    const std::wstring name = longPath(path);
    const bool bare = isRoot(name) && name.back() != L'\\'; // "\\?\C:" is the device, not its root
    return AutoHandle(::CreateFileW((bare ? name + L"\\" : name).c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// The two kinds of identity are not comparable with each other: 64-bit ids are one half of 128-bit
// ones on NTFS, and unrelated elsewhere.
bool identityOf(HANDLE handle, bool wide, Identity& identity) {
    if (wide) {
        FILE_ID_INFO information = {};
        if (!::GetFileInformationByHandleEx(handle, FileIdInfo, &information,
                                            sizeof(information))) {
            return false;
        }
        identity.volume = information.VolumeSerialNumber;
        identity.file = information.FileId;
        return true;
    }
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!::GetFileInformationByHandle(handle, &information)) {
        return false;
    }
    identity.volume = information.dwVolumeSerialNumber;
    const DWORD halves[] = {information.nFileIndexLow, information.nFileIndexHigh};
    std::memcpy(&identity.file, halves, sizeof(halves));
    return true;
}

// File systems without ids answer with zeros or with ones.
bool isKnown(const Identity& identity) {
    const auto all = [&](BYTE value) {
        return std::all_of(std::begin(identity.file.Identifier), std::end(identity.file.Identifier),
                           [=](BYTE byte) { return byte == value; });
    };
    return !all(0) && !all(0xFF);
}

// The volume's GUID name, which is the same whatever way leads to the volume; otherwise the root.
std::wstring volumeName(const std::wstring& path) {
    std::wstring root = volumeRoot(path);
    wchar_t name[64] = {}; // "\\?\Volume{...}\" has 49 characters
    if (::GetVolumeNameForVolumeMountPointW(callablePath(root).c_str(), name,
                                            static_cast<DWORD>(std::size(name)))) {
        return name;
    }
    return root;
}

// A substituted drive is a directory of another volume; the handle's own name tells which.
std::wstring finalPath(const std::wstring& path) {
    const AutoHandle handle = openFollowing(path);
    if (!handle) {
        return {};
    }
    return fillBuffer([&](wchar_t* buffer, DWORD size) {
        return ::GetFinalPathNameByHandleW(handle.get(), buffer, size, VOLUME_NAME_DOS);
    });
}

// path itself, or the nearest item above it that is there; what may not be looked at is there too.
std::wstring nearestExisting(std::wstring path) {
    while (!isRoot(path) && ::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES &&
           meansMissing(::GetLastError())) {
        std::wstring parent = parentPath(path);
        if (parent.empty()) {
            break;
        }
        path = std::move(parent);
    }
    return path;
}

std::wstring withBackslash(std::wstring path) {
    if (path.empty() || path.back() != L'\\') {
        path += L'\\';
    }
    return path;
}

} // namespace

std::wstring longPath(const std::wstring& path) {
    checkText(path);
    if (hasLongPrefix(path)) {
        return path;
    }
    std::wstring full = fullPath(path);
    if (full.empty()) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to get a full path (%s)", path.c_str()).c_str(),
                    code == ERROR_SUCCESS ? ERROR_INVALID_NAME : code,
                    {L"", "RunTime::longPath", __LINE__});
    }
    const bool prefixed = hasLongPrefix(full); // typed with slashes
    if (!prefixed && full.size() >= 3 && full.compare(0, 2, L"\\\\") == 0 &&
        (full[2] == L'.' || full[2] == L'?') && (full.size() == 3 || full[3] == L'\\')) {
        throw ArgumentException(
            formatString(L"The path (%s) names a device, not a file or directory", path.c_str()),
            {L"", "RunTime::longPath", __LINE__});
    }
    std::wstring result;
    if (prefixed) {
        result = std::move(full);
    } else if (isShare(full)) {
        result.append(longUncPrefix).append(full, 2);
    } else {
        result.append(longPrefix).append(full);
    }
    if (result.size() >= maximumPath) {
        _throwError(L"Unable to get a full path: it is too long", ERROR_FILENAME_EXCED_RANGE,
                    {L"", "RunTime::longPath", __LINE__});
    }
    return result;
}

std::wstring nicePath(const std::wstring& path) {
    if (hasLongUncPrefix(path)) {
        return L"\\\\" + path.substr(longUncPrefix.size());
    }
    return hasLongPrefix(path) ? path.substr(longPrefix.size()) : path;
}

void throwForPath(const wchar_t* format, const std::wstring& path, DWORD code, const char* function,
                  int line) {
    _throwError(formatString(format, nicePath(path).c_str()).c_str(), code, {L"", function, line});
}

std::wstring combine(const std::wstring& directory, std::wstring_view name) {
    std::size_t length = directory.size();
    while (length > 0 && directory[length - 1] == L'\\') {
        --length;
    }
    std::wstring result;
    result.reserve(length + 1 + name.size());
    result.append(directory, 0, length);
    if (!directory.empty()) {
        result += L'\\';
    }
    return result.append(name);
}

std::wstring withoutTrailingBackslash(const std::wstring& path) {
    const std::size_t root = rootLength(path);
    // The backslash behind a drive or volume is a part of its root, and so is a lone one.
    const std::size_t least = std::min(path.size(), isShare(path) ? root : root + 1);
    std::size_t length = path.size();
    while (length > least && path[length - 1] == L'\\') {
        --length;
    }
    return path.substr(0, length);
}

std::wstring parentPath(const std::wstring& path) {
    if (isRoot(path)) {
        return {};
    }
    const std::wstring bare = withoutTrailingBackslash(path);
    const std::size_t last = bare.rfind(L'\\');
    const std::size_t root = rootLength(bare);
    if (last == std::wstring::npos || last < root || last + 1 == bare.size()) {
        return {};
    }
    // "C:" alone would be the drive's current directory.
    return bare.substr(0, last == root && !isShare(bare) ? last + 1 : last);
}

std::wstring lastName(const std::wstring& path) {
    if (isRoot(path)) {
        return {};
    }
    const std::wstring bare = withoutTrailingBackslash(path);
    const std::size_t last = bare.rfind(L'\\');
    return last == std::wstring::npos ? bare : bare.substr(last + 1);
}

bool isRoot(const std::wstring& path) {
    const std::size_t root = rootLength(path);
    return root != 0 && (root == path.size() || (root + 1 == path.size() && path[root] == L'\\'));
}

bool isDotEntry(std::wstring_view name) {
    return std::wstring_view(L"..").find(name) != std::wstring_view::npos;
}

bool equalNames(std::wstring_view first, std::wstring_view second) {
    // Upper and lower case are of one length in the file system's own table. CompareStringOrdinal
    // refuses an empty view's null pointer and a length that does not fit.
    if (first.size() != second.size() ||
        first.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return false;
    }
    const int length = static_cast<int>(first.size());
    return length == 0 ||
           ::CompareStringOrdinal(first.data(), length, second.data(), length, TRUE) == CSTR_EQUAL;
}

bool NameOrder::operator()(std::wstring_view first, std::wstring_view second) const {
    // Names of different lengths differ, so the length may come first; it also spares the calls.
    if (first.size() != second.size()) {
        return first.size() < second.size();
    }
    const int length = static_cast<int>(first.size());
    return length != 0 && ::CompareStringOrdinal(first.data(), length, second.data(), length,
                                                 TRUE) == CSTR_LESS_THAN;
}

bool beginsWith(std::wstring_view text, std::wstring_view prefix) {
    return text.size() >= prefix.size() && equalNames(text.substr(0, prefix.size()), prefix);
}

bool isStrictlyInside(const std::wstring& path, const std::wstring& directory) {
    std::wstring base = directory;
    while (!base.empty() && base.back() == L'\\') {
        base.pop_back();
    }
    if (base.empty() || path.size() <= base.size() + 1 || path[base.size()] != L'\\' ||
        !beginsWith(path, base)) {
        return false;
    }
    // The path may come from a file that anybody wrote. What the system would read otherwise than
    // it stands here is refused: a zero character ends a path, a slash is a separator in a typed
    // one, a colon begins the name of a stream.
    const std::size_t root = rootLength(path);
    if (base.size() < root || path.find_first_of(std::wstring_view(L"\0/", 2)) != path.npos ||
        path.find(L':', root) != path.npos) {
        return false;
    }
    const bool typed = !hasLongPrefix(path); // dots and blanks at a name's end do not count then
    for (std::size_t begin = root == 0 ? 0 : root + 1; begin <= path.size();) {
        const std::size_t end = std::min(path.find(L'\\', begin), path.size());
        const std::wstring_view name = std::wstring_view(path).substr(begin, end - begin);
        if (isDotEntry(name) || (typed && name.find_first_not_of(L". ") == name.npos)) {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

bool isFullyQualified(std::wstring_view path) {
    const auto separator = [&](std::size_t at) {
        return at < path.size() && (path[at] == L'\\' || path[at] == L'/');
    };
    return (separator(0) && separator(1)) ||
           (path.size() >= 3 && isDriveLetter(path[0]) && path[1] == L':' && separator(2));
}

bool File::inpath(const std::wstring& path, const std::wstring& directory) {
    const auto comparable = [](const std::wstring& text) {
        std::wstring result = nicePath(text);
        std::replace(result.begin(), result.end(), L'/', L'\\');
        return result;
    };
    std::wstring base = comparable(directory);
    base.resize(base.find_last_not_of(L'\\') + 1);
    const std::wstring inner = comparable(path);
    if (base.empty() || !beginsWith(inner, base) ||
        (inner.size() > base.size() && inner[base.size()] != L'\\')) {
        return false;
    }
    for (std::size_t begin = base.size() + 1; begin < inner.size();) {
        const std::size_t end = std::min(inner.find(L'\\', begin), inner.size());
        if (end != begin && isDotEntry(std::wstring_view(inner).substr(begin, end - begin))) {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

std::wstring File::longPath(const std::wstring& path) {
    return longNamePath(path);
}

std::wstring shortPath(const std::wstring& path) {
    std::wstring result = tryNames(path, Names::shortOnes);
    if (result.empty()) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to get a short path (%s)", path, code, "RunTime::shortPath",
                     __LINE__);
    }
    return result;
}

std::wstring longNamePath(const std::wstring& path) {
    std::wstring result = tryNames(path, Names::longOnes);
    if (result.empty()) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to get a long path (%s)", path, code, "RunTime::longNamePath",
                     __LINE__);
    }
    return result;
}

std::wstring realPath(const std::wstring& path) {
    std::wstring result = finalPath(path);
    if (result.empty()) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to find the real path (%s)", path, code, "RunTime::realPath",
                     __LINE__);
    }
    return withoutTrailingBackslash(result);
}

std::wstring volumeRoot(const std::wstring& path) {
    const std::wstring given = nearestExisting(withoutTrailingBackslash(longPath(path)));
    std::wstring root(std::max<std::size_t>(given.size() + 2, MAX_PATH), L'\0');
    if (::GetVolumePathNameW(given.c_str(), root.data(), static_cast<DWORD>(root.size()))) {
        root.resize(std::wcslen(root.c_str()));
        // A typed form comes back from some redirectors.
        return withBackslash(hasLongPrefix(root) ? root : longPath(root));
    }
    return withBackslash(given.substr(0, rootLength(given)));
}

bool theSameVolume(const std::wstring& first, const std::wstring& second) {
    if (equalNames(volumeName(first), volumeName(second))) {
        return true;
    }
    const std::wstring firstFinal = finalPath(nearestExisting(longPath(first)));
    const std::wstring secondFinal = finalPath(nearestExisting(longPath(second)));
    return !firstFinal.empty() && !secondFinal.empty() &&
           equalNames(volumeName(firstFinal), volumeName(secondFinal));
}

bool theSameDirectory(const std::wstring& first, const std::wstring& second) {
    const std::wstring paths[] = {withoutTrailingBackslash(longPath(first)),
                                  withoutTrailingBackslash(longPath(second))};
    const std::wstring shortForms[] = {tryNames(paths[0], Names::shortOnes),
                                       tryNames(paths[1], Names::shortOnes)};
    if (!shortForms[0].empty() && equalNames(shortForms[0], shortForms[1])) {
        return true;
    }
    // Both stay open until they are compared: some file systems give out ids for open files only.
    AutoHandle handles[2];
    for (int i = 0; i < 2; ++i) {
        handles[i] = openFollowing(paths[i]);
        if (!handles[i]) {
            const DWORD code = ::GetLastError();
            if (meansMissing(code)) {
                return false;
            }
            _throwError(
                formatString(L"Unable to get file information (%s)", nicePath(paths[i]).c_str())
                    .c_str(),
                code, {L"", "RunTime::theSameDirectory", __LINE__});
        }
    }
    for (const bool wide : {true, false}) {
        Identity identities[2];
        if (identityOf(handles[0].get(), wide, identities[0]) &&
            identityOf(handles[1].get(), wide, identities[1])) {
            return identities[0] == identities[1] && isKnown(identities[0]);
        }
    }
    return false; // a file system without ids; the names differ
}

VolumeInformation volumeInformation(const std::wstring& path) {
    const VolumeKind kind = volumeKind(path);
    VolumeInformation result;
    result.root = kind.root;
    result.fileSystem = kind.fileSystem;
    result.serial = kind.serial;
    result.flags = kind.flags;
    const auto check = [&](BOOL succeeded, int line) {
        if (!succeeded) {
            const DWORD code = ::GetLastError();
            throwForPath(L"Unable to get volume information (%s)", result.root, code,
                         "RunTime::volumeInformation", line);
        }
    };
    result.driveType = ::GetDriveTypeW(result.root.c_str());
    ULARGE_INTEGER available = {};
    ULARGE_INTEGER total = {};
    check(::GetDiskFreeSpaceExW(result.root.c_str(), &available, &total, nullptr), __LINE__);
    result.freeBytes = available.QuadPart;
    result.totalBytes = total.QuadPart;
    DWORD sectors = 0;
    DWORD bytes = 0;
    DWORD unused[2] = {};
    check(::GetDiskFreeSpaceW(result.root.c_str(), &sectors, &bytes, &unused[0], &unused[1]),
          __LINE__);
    result.clusterBytes = sectors * bytes;
    return result;
}

} // namespace RunTime
