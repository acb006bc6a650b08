#include "relocation/vhosts/saved_file.h"

#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pinned_directories.h"
#include "runtime/sha256.h"

#include <algorithm>
#include <cstring>

using RunTime::AutoHandle;
using RunTime::throwForPath;

namespace {

constexpr DWORD shareForReading = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Fills the buffer from the beginning of the file. Returns a Win32 code.
DWORD readWhole(HANDLE file, char* buffer, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        DWORD got = 0;
        if (!::ReadFile(file, buffer + done, static_cast<DWORD>(size - done), &got, nullptr)) {
            return ::GetLastError();
        }
        if (got == 0) {
            return ERROR_HANDLE_EOF;
        }
        done += got;
    }
    return ERROR_SUCCESS;
}

DWORD writeWhole(HANDLE file, const char* buffer, std::size_t size) {
    if (!::SetFilePointerEx(file, {}, nullptr, FILE_BEGIN)) {
        return ::GetLastError();
    }
    for (std::size_t done = 0; done < size;) {
        DWORD put = 0;
        if (!::WriteFile(file, buffer + done, static_cast<DWORD>(size - done), &put, nullptr)) {
            return ::GetLastError();
        }
        if (put == 0) {
            return ERROR_WRITE_FAULT;
        }
        done += put;
    }
    return ::SetEndOfFile(file) ? ERROR_SUCCESS : ::GetLastError();
}

AutoHandle openDirectoryOf(const std::wstring& path, DWORD access) {
    return RunTime::openExisting(RunTime::parentPath(path), access, shareForReading);
}

DWORD getBasic(HANDLE handle, FILE_BASIC_INFO& basic) {
    return ::GetFileInformationByHandleEx(handle, FileBasicInfo, &basic, sizeof basic)
               ? ERROR_SUCCESS
               : ::GetLastError();
}

DWORD setBasic(HANDLE handle, FILE_BASIC_INFO basic) {
    return ::SetFileInformationByHandle(handle, FileBasicInfo, &basic, sizeof basic)
               ? ERROR_SUCCESS
               : ::GetLastError();
}

bool isFile(HANDLE handle) {
    RunTime::FileInformation entry;
    return RunTime::readKind(handle, entry) == ERROR_SUCCESS && !entry.isDirectory() &&
           !entry.isLink();
}

} // namespace

std::optional<SavedFile> SavedFile::of(const std::wstring& path, const std::wstring& root) {
    const std::wstring name = RunTime::longPath(path);
    const RunTime::PrivilegeScope privileges({SE_BACKUP_NAME, SE_RESTORE_NAME});
    const auto held = RunTime::openPinnedDirectories(RunTime::longPath(root), name);
    if (held.empty()) {
        return std::nullopt;
    }
    const auto check = [&path](DWORD code, int line) {
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to read file (%s)", path, code, "SavedFile::of", line);
        }
    };
    const AutoHandle file = RunTime::openExisting(name, GENERIC_READ, shareForReading);
    if (!file) {
        const DWORD code = ::GetLastError();
        if (RunTime::meansMissing(code)) {
            return std::nullopt;
        }
        check(code, __LINE__);
    }
    if (!isFile(file.get())) {
        return std::nullopt;
    }
    SavedFile saved;
    const AutoHandle directory = openDirectoryOf(name, FILE_READ_ATTRIBUTES);
    check(directory ? getBasic(directory.get(), saved.directory_) : ::GetLastError(), __LINE__);
    check(getBasic(file.get(), saved.basic_), __LINE__);
    LARGE_INTEGER size{};
    check(::GetFileSizeEx(file.get(), &size) ? ERROR_SUCCESS : ::GetLastError(), __LINE__);
    check(size.QuadPart > largest ? ERROR_FILE_TOO_LARGE : ERROR_SUCCESS, __LINE__);
    saved.content_.resize(static_cast<std::size_t>(size.QuadPart));
    check(readWhole(file.get(), saved.content_.data(), saved.content_.size()), __LINE__);
    return saved;
}

SavedFile::Stamp SavedFile::stamp() const {
    RunTime::Sha256 sum;
    sum.add(content_.data(), content_.size());
    return {sum.finish(), basic_, directory_};
}

bool SavedFile::restoreTimes(const Stamp& stamp, const std::wstring& path,
                             const std::wstring& root) {
    std::optional<SavedFile> present = of(path, root);
    if (!present || present->stamp().sha256 != stamp.sha256) {
        return false;
    }
    present->basic_ = stamp.file;
    present->directory_ = stamp.directory;
    present->restore(path, root);
    return true;
}

void SavedFile::restore(const std::wstring& path, const std::wstring& root) const {
    const auto check = [&path](DWORD code, int line) {
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to restore file (%s)", path, code, "SavedFile::restore", line);
        }
    };
    const std::wstring name = RunTime::longPath(path);
    const RunTime::PrivilegeScope privileges({SE_BACKUP_NAME, SE_RESTORE_NAME});
    const auto held = RunTime::openPinnedDirectories(RunTime::longPath(root), name);
    check(held.empty() ? ERROR_PATH_NOT_FOUND : ERROR_SUCCESS, __LINE__);
    const auto open = [&](DWORD access) {
        AutoHandle file = RunTime::openExisting(name, access, FILE_SHARE_READ);
        check(file ? ERROR_SUCCESS : ::GetLastError(), __LINE__);
        check(isFile(file.get()) ? ERROR_SUCCESS : ERROR_REPARSE_TAG_MISMATCH, __LINE__);
        return file;
    };
    AutoHandle file = open(GENERIC_READ | FILE_WRITE_ATTRIBUTES);
    LARGE_INTEGER size{};
    check(::GetFileSizeEx(file.get(), &size) ? ERROR_SUCCESS : ::GetLastError(), __LINE__);
    std::vector<char, RunTime::WipingAllocator<char>> present(content_.size());
    bool same = size.QuadPart == static_cast<LONGLONG>(content_.size());
    if (same) {
        check(readWhole(file.get(), present.data(), present.size()), __LINE__);
        same = present == content_;
    }
    if (!same) {
        FILE_BASIC_INFO writable = basic_; // a read-only file is not opened for writing
        writable.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        check(setBasic(file.get(), writable), __LINE__);
        file.reset();
        file = open(GENERIC_WRITE);
        check(writeWhole(file.get(), content_.data(), content_.size()), __LINE__);
    }
    check(setBasic(file.get(), basic_), __LINE__);
    const AutoHandle directory = openDirectoryOf(name, FILE_WRITE_ATTRIBUTES);
    check(directory ? ERROR_SUCCESS : ::GetLastError(), __LINE__);
    check(setBasic(directory.get(), directory_), __LINE__);
}
