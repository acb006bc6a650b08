#include "relocation/place_check.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"

#include <shlobj.h>
#include <userenv.h>

namespace {

using RunTime::AutoHandle;

std::wstring knownFolder(int id) {
    wchar_t path[MAX_PATH];
    if (FAILED(::SHGetFolderPathW(nullptr, id, nullptr, SHGFP_TYPE_CURRENT, path))) {
        return {};
    }
    return path;
}

std::wstring profilesDirectory() {
    wchar_t path[MAX_PATH];
    DWORD length = MAX_PATH;
    if (!::GetProfilesDirectoryW(path, &length)) {
        return {};
    }
    return path;
}

// The system keeps these in the root of a volume.
constexpr const wchar_t* rootDirectories[] = {
    L"System Volume Information", L"$Recycle.Bin", L"Recovery", L"Boot", L"Config.Msi", L"EFI",
};

std::wstring finalPath(HANDLE handle) {
    std::wstring path(512, L'\0');
    for (;;) {
        const DWORD length = ::GetFinalPathNameByHandleW(
            handle, path.data(), static_cast<DWORD>(path.size()), VOLUME_NAME_DOS);
        if (length == 0) {
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(length + 1);
    }
}

bool is(const std::wstring& path, const std::wstring& other) {
    return !other.empty() && RunTime::equalNames(path, other);
}

bool isIn(const std::wstring& path, const std::wstring& directory) {
    return !directory.empty() && RunTime::isStrictlyInside(path, directory);
}

} // namespace

bool isAbsolutePath(const std::wstring& path) {
    const std::wstring nice = RunTime::nicePath(path);
    const auto isSeparator = [](wchar_t c) { return c == L'\\' || c == L'/'; };
    const auto isLetter = [](wchar_t c) {
        return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
    };
    if (nice.size() >= 3 && isLetter(nice[0]) && nice[1] == L':' && isSeparator(nice[2])) {
        return true;
    }
    if (nice.size() >= 2 && isSeparator(nice[0]) && isSeparator(nice[1])) {
        return true;
    }
    return path.starts_with(RunTime::longPrefix);
}

bool isThere(const std::wstring& path) {
    try {
        return RunTime::exists(path);
    } catch (const vexception&) {
        return false;
    }
}

std::wstring realPath(const std::wstring& path) {
    const std::wstring full = RunTime::withoutTrailingBackslash(RunTime::longPath(path));
    for (std::wstring existing = full; !existing.empty();
         existing = RunTime::parentPath(existing)) {
        // Links are followed on purpose: it is the place behind them that counts.
        const AutoHandle handle(::CreateFileW(
            existing.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
            OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        if (handle) {
            const std::wstring real = finalPath(handle.get());
            if (real.empty()) {
                return full;
            }
            const std::wstring rest = full.substr(existing.size());
            const std::size_t begin = rest.find_first_not_of(L'\\');
            return begin == std::wstring::npos ? real : RunTime::combine(real, rest.substr(begin));
        }
    }
    return full;
}

std::wstring systemPlace(const std::wstring& real) {
    const std::wstring path = RunTime::withoutTrailingBackslash(RunTime::nicePath(real));
    wchar_t windows[MAX_PATH] = L"";
    if (::GetSystemWindowsDirectoryW(windows, MAX_PATH) != 0 &&
        (is(path, windows) || isIn(path, windows))) {
        return L"is the directory of Windows, or lies in it";
    }
    for (const int id : {CSIDL_PROGRAM_FILES, CSIDL_PROGRAM_FILESX86, CSIDL_PROGRAM_FILES_COMMON,
                         CSIDL_PROGRAM_FILES_COMMONX86}) {
        if (is(path, knownFolder(id))) {
            return L"is the directory of all installed programs";
        }
    }
    const std::wstring programData = knownFolder(CSIDL_COMMON_APPDATA);
    const std::wstring microsoft =
        programData.empty() ? std::wstring() : RunTime::combine(programData, L"Microsoft");
    if (is(path, programData) || is(path, microsoft) || isIn(path, microsoft)) {
        return L"holds the data of all installed programs, or of Windows";
    }
    const std::wstring profiles = profilesDirectory();
    if (is(path, profiles) || is(RunTime::parentPath(path), profiles)) {
        return L"holds the profiles of users";
    }
    if (RunTime::isRoot(RunTime::parentPath(path))) {
        for (const wchar_t* name : rootDirectories) {
            if (RunTime::equalNames(RunTime::lastName(path), name)) {
                return L"belongs to the system";
            }
        }
    }
    for (const wchar_t* name : {L"System Volume Information", L"$Recycle.Bin"}) {
        const std::wstring volumeRoot = path.size() >= 3 ? path.substr(0, 3) : path;
        if (isIn(path, RunTime::combine(volumeRoot, name))) {
            return L"belongs to the system";
        }
    }
    return {};
}

DWORD probeWritable(const std::wstring& directory) {
    const AutoHandle parent =
        RunTime::openExisting(directory, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    FILE_BASIC_INFO before{};
    const bool known = parent && ::GetFileInformationByHandleEx(parent.get(), FileBasicInfo,
                                                                &before, sizeof(before));
    const std::wstring name = RunTime::temporaryName(directory, L"$Probe");
    {
        const AutoHandle probe(::CreateFileW(
            name.c_str(), GENERIC_WRITE | DELETE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
            CREATE_NEW, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
        if (!probe) {
            return ::GetLastError();
        }
    }
    if (known) {
        before.FileAttributes = 0; // leave
        ::SetFileInformationByHandle(parent.get(), FileBasicInfo, &before, sizeof(before));
    }
    return ERROR_SUCCESS;
}
