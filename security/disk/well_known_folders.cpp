#include "security/disk/well_known_folders.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/registry/registry.h"

#include <shlobj.h>
#include <userenv.h>

namespace DiskSecurity {

namespace {

constexpr wchar_t currentVersion[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";

template <int Index>
std::wstring folder() {
    wchar_t path[MAX_PATH] = {};
    const HRESULT result = ::SHGetFolderPathW(nullptr, Index, nullptr, SHGFP_TYPE_CURRENT, path);
    if (result != S_OK) { // S_FALSE: there is no such folder
        const DWORD code = result == S_FALSE ? ERROR_PATH_NOT_FOUND
                           : HRESULT_FACILITY(result) == FACILITY_WIN32
                               ? HRESULT_CODE(result)
                               : static_cast<DWORD>(result);
        _throwError(formatString(L"SHGetFolderPath failed for index %d", Index).c_str(), code,
                    {L"", "DiskSecurity::wellKnownFolders", __LINE__});
    }
    return path;
}

template <int Index>
std::wstring specialFolder() {
    wchar_t path[MAX_PATH] = {};
    ::SetLastError(ERROR_PATH_NOT_FOUND); // the function need not say why
    if (!::SHGetSpecialFolderPathW(nullptr, path, Index, FALSE)) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"SHGetSpecialFolderPath failed for index %d", Index).c_str(),
                    code, {L"", "DiskSecurity::wellKnownFolders", __LINE__});
    }
    return path;
}

std::wstring profiles() {
    wchar_t path[MAX_PATH] = {};
    DWORD size = MAX_PATH;
    if (!::GetProfilesDirectoryW(path, &size)) {
        const DWORD code = ::GetLastError();
        _throwError(L"GetProfilesDirectory failed", code,
                    {L"", "DiskSecurity::wellKnownFolders", __LINE__});
    }
    return path;
}

std::wstring currentVersionValue(const wchar_t* name, RegistryView view) {
    std::wstring path;
    const LSTATUS status = registry::lookup(HKEY_LOCAL_MACHINE, currentVersion, name, path, view);
    if (status != ERROR_SUCCESS) {
        _throwError(formatString(L"Unable to read %s", name).c_str(), static_cast<DWORD>(status),
                    {L"", "DiskSecurity::wellKnownFolders", __LINE__});
    }
    return path;
}

// The shell's folders are those of this process, which is a 64-bit one; those of 64-bit programs,
// where a name asks for them, stand in the 64-bit registry whatever the process.
constexpr WellKnownFolder table[] = {
    {L"CommonAdmintools", specialFolder<CSIDL_COMMON_ADMINTOOLS>},
    {L"CommonAppdata", specialFolder<CSIDL_COMMON_APPDATA>},
    {L"CommonDocuments", specialFolder<CSIDL_COMMON_DOCUMENTS>},
    {L"ProgramFiles", folder<CSIDL_PROGRAM_FILES>},
    {L"ProgramFilesX86", folder<CSIDL_PROGRAM_FILESX86>},
    {L"ProgramFilesX64",
     [] { return currentVersionValue(L"ProgramFilesDir", RegistryView::View64); }},
    {L"ProgramFilesCommon", folder<CSIDL_PROGRAM_FILES_COMMON>},
    {L"ProgramFilesCommonX86", folder<CSIDL_PROGRAM_FILES_COMMONX86>},
    {L"ProgramFilesCommonX64",
     [] { return currentVersionValue(L"CommonFilesDir", RegistryView::View64); }},
    {L"CommonFilesDir",
     [] { return currentVersionValue(L"CommonFilesDir", RegistryView::Default); }},
    {L"Windows", folder<CSIDL_WINDOWS>},
    {L"WindowsSystem32", folder<CSIDL_SYSTEM>},
    {L"WindowsSystem32X86", folder<CSIDL_SYSTEMX86>},
    {L"WindowsSystem32X64", folder<CSIDL_SYSTEM>},
    {L"Profiles", profiles},
};

} // namespace

std::span<const WellKnownFolder> wellKnownFolders() {
    return table;
}

} // namespace DiskSecurity
