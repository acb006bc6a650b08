#include "runtime/files/file.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

namespace RunTime {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Windows 10 has it; the headers name it only for later targets.
constexpr auto fileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

// Random names clash by an attacker's hand only; nobody guesses 64 bits this often.
constexpr int nameTries = 16;

// The long form as calls take it: no backslash at the end but a root's, which must be there.
std::wstring systemPath(const std::wstring& path) {
    std::wstring name = withoutTrailingBackslash(longPath(path));
    if (name.back() != L'\\' && isRoot(name)) {
        name += L'\\';
    }
    return name;
}

bool isUnsupported(DWORD code) {
    return code == ERROR_INVALID_PARAMETER || code == ERROR_NOT_SUPPORTED ||
           code == ERROR_INVALID_FUNCTION || code == ERROR_CALL_NOT_IMPLEMENTED ||
           code == ERROR_INVALID_LEVEL;
}

std::int64_t number(const FILETIME& time) {
    return static_cast<std::int64_t>(
        ULARGE_INTEGER{{time.dwLowDateTime, time.dwHighDateTime}}.QuadPart);
}

// The attributes that FILE_BASIC_INFO can set; 0 would mean "leave them".
DWORD settable(DWORD attributes) {
    constexpr DWORD mask = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                           FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_TEMPORARY |
                           FILE_ATTRIBUTE_OFFLINE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    attributes &= mask;
    return attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes;
}

bool setAttributes(HANDLE handle, DWORD attributes) noexcept {
    FILE_BASIC_INFO information = {};
    information.FileAttributes = settable(attributes);
    return ::SetFileInformationByHandle(handle, FileBasicInfo, &information, sizeof(information)) !=
           FALSE;
}

FileInformation fromFindData(const WIN32_FIND_DATAW& data) {
    FileInformation entry;
    entry.name.assign(data.cFileName, ::wcsnlen(data.cFileName, std::size(data.cFileName)));
    entry.attributes = data.dwFileAttributes;
    if (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        entry.reparseTag = data.dwReserved0;
    }
    if (!entry.isDirectory()) {
        entry.size = static_cast<std::int64_t>(
            ULARGE_INTEGER{{data.nFileSizeLow, data.nFileSizeHigh}}.QuadPart);
    }
    entry.creationTime = number(data.ftCreationTime);
    entry.lastAccessTime = number(data.ftLastAccessTime);
    entry.lastWriteTime = number(data.ftLastWriteTime);
    return entry;
}

bool readInformation(HANDLE handle, FileInformation& entry) {
    FILE_BASIC_INFO basic = {};
    FILE_STANDARD_INFO standard = {};
    FILE_ATTRIBUTE_TAG_INFO tag = {};
    if (!::GetFileInformationByHandleEx(handle, FileBasicInfo, &basic, sizeof(basic)) ||
        !::GetFileInformationByHandleEx(handle, FileStandardInfo, &standard, sizeof(standard)) ||
        !::GetFileInformationByHandleEx(handle, FileAttributeTagInfo, &tag, sizeof(tag))) {
        return false;
    }
    entry.attributes = basic.FileAttributes;
    if (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        entry.reparseTag = tag.ReparseTag;
    }
    entry.size = entry.isDirectory() ? 0 : standard.EndOfFile.QuadPart;
    entry.creationTime = basic.CreationTime.QuadPart;
    entry.lastAccessTime = basic.LastAccessTime.QuadPart;
    entry.lastWriteTime = basic.LastWriteTime.QuadPart;
    entry.changeTime = basic.ChangeTime.QuadPart;
    return true;
}

// The system's own word for one name. A wildcard would find something else.
DWORD find(const std::wstring& name, FileInformation& entry) {
    if (lastName(name).find_first_of(L"*?<>\"") != std::wstring::npos) {
        return ERROR_INVALID_NAME;
    }
    WIN32_FIND_DATAW data = {};
    const AutoFindHandle handle(::FindFirstFileExW(name.c_str(), FindExInfoBasic, &data,
                                                   FindExSearchNameMatch, nullptr, 0));
    if (!handle) {
        return ::GetLastError();
    }
    entry = fromFindData(data);
    return ERROR_SUCCESS;
}

// Looks an entry up in its directory first, which asks for no right on the entry itself and finds
// links as links even under Wine, whose opens follow them; a root has no directory, and one that
// may not be listed can be passed with the backup privilege.
DWORD lookUp(const std::wstring& name, FileInformation& entry) {
    DWORD code = ERROR_ACCESS_DENIED;
    if (!isRoot(name)) {
        code = find(name, entry);
        if (code != ERROR_ACCESS_DENIED) {
            return code;
        }
    }
    const AutoHandle handle = openExisting(name, FILE_READ_ATTRIBUTES, shareAll);
    if (!handle || !readInformation(handle.get(), entry)) {
        return ::GetLastError();
    }
    entry.name = lastName(name);
    return ERROR_SUCCESS;
}

std::wstring randomDigits() {
    std::random_device device;
    return formatString(L"%08x%08x", device(), device());
}

enum class Kind { file, directory };

// The plain call was denied: read-only is in the way, or the item's descriptor, which a handle
// opened for backup passes where SeRestore is enabled. Returns a Win32 code.
DWORD deleteThroughHandle(const std::wstring& name, Kind kind, bool& hopeless) {
    const AutoHandle handle =
        openExisting(name, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, shareAll);
    if (!handle) {
        const DWORD code = ::GetLastError();
        return meansMissing(code) ? ERROR_SUCCESS : code;
    }
    FileInformation now;
    if (const DWORD code = readKind(handle.get(), now)) {
        return code;
    }
    // A directory is denied to DeleteFileW for what it is. By handle it would go.
    if (now.isDirectory() != (kind == Kind::directory)) {
        hopeless = true;
        return kind == Kind::directory ? ERROR_DIRECTORY : ERROR_ACCESS_DENIED;
    }
    return deleteByHandle(handle.get());
}

void deleteItem(const std::wstring& path, Kind kind, int tryCount) {
    const std::wstring name = withoutTrailingBackslash(longPath(path));
    for (Retry retry(tryCount);;) {
        const BOOL deleted =
            kind == Kind::file ? ::DeleteFileW(name.c_str()) : ::RemoveDirectoryW(name.c_str());
        DWORD code = deleted ? ERROR_SUCCESS : ::GetLastError();
        bool hopeless = false;
        if (code == ERROR_ACCESS_DENIED) {
            code = deleteThroughHandle(name, kind, hopeless);
        }
        if (code == ERROR_SUCCESS || code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
            return;
        }
        if (hopeless || !retry.again(code)) {
            kind == Kind::file ? throwForPath(L"Unable to delete file (%s)", name, code,
                                              "RunTime::deleteFile", __LINE__)
                               : throwForPath(L"Unable to remove directory (%s)", name, code,
                                              "RunTime::removeDirectory", __LINE__);
        }
    }
}

} // namespace

bool Retry::again(DWORD code) {
    static constexpr DWORD passing[] = {
        ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION,
        ERROR_DIR_NOT_EMPTY, ERROR_USER_MAPPED_FILE,  ERROR_DELETE_PENDING,
    };
    if (left_ <= 1 ||
        std::find(std::begin(passing), std::end(passing), code) == std::end(passing)) {
        return false;
    }
    --left_;
    // In slices, so that a cancellation is heard soon.
    for (DWORD rest = pause_; rest != 0;) {
        ThreadCancelation::check();
        const DWORD slice = std::min<DWORD>(rest, 50);
        ::Sleep(slice); // allow(sleep): a holder that goes away tells nobody
        rest -= slice;
    }
    ThreadCancelation::check();
    pause_ = std::min<DWORD>(pause_ * 7 / 4, 1000);
    return true;
}

// A directory's entries by handle, or, in its place, by path.
struct DirectoryLister::State {
    // Most directories fit; a deep walk holds one buffer a level.
    static constexpr DWORD bufferSize = 32 * 1024;

    HANDLE directory = nullptr;
    std::wstring path;
    std::unique_ptr<std::byte[]> buffer; // null until the first call, and when listing by path
    std::size_t position = 0;
    bool filled = false;
    bool ended = false;
    AutoFindHandle search;
    bool byPath = false;

    [[noreturn]] void fail(DWORD code, int line) const {
        throwForPath(L"Unable to list directory (%s)", path, code, "RunTime::DirectoryLister::next",
                     line);
    }

    bool fill();
    bool nextByHandle(FileInformation& entry);
    bool nextByPath(FileInformation& entry);
};

DirectoryLister::DirectoryLister(HANDLE directory, std::wstring path)
    : state_(std::make_unique<State>()) {
    state_->directory = directory;
    state_->path = std::move(path);
}

DirectoryLister::~DirectoryLister() = default;

bool DirectoryLister::next(FileInformation& entry) {
    if (state_->ended) {
        return false;
    }
    const bool found = state_->byPath ? state_->nextByPath(entry) : state_->nextByHandle(entry);
    state_->ended = !found;
    return found;
}

// False at the end, and when the file system wants to be listed by path instead.
bool DirectoryLister::State::fill() {
    const bool first = !buffer;
    if (first) {
        buffer = std::make_unique<std::byte[]>(bufferSize);
    }
    if (::GetFileInformationByHandleEx(
            directory, first ? FileIdBothDirectoryRestartInfo : FileIdBothDirectoryInfo,
            buffer.get(), bufferSize)) {
        position = 0;
        return filled = true;
    }
    const DWORD code = ::GetLastError();
    filled = false;
    if (first && isUnsupported(code)) {
        buffer.reset();
        byPath = true;
        return false;
    }
    if (code != ERROR_NO_MORE_FILES && !(first && code == ERROR_FILE_NOT_FOUND)) {
        fail(code, __LINE__);
    }
    return false;
}

bool DirectoryLister::State::nextByHandle(FileInformation& entry) {
    if (!filled && !fill()) {
        return byPath && nextByPath(entry);
    }
    // A redirector's or driver's word: no field is read before it is known to lie in the buffer.
    constexpr std::size_t nameOffset = offsetof(FILE_ID_BOTH_DIR_INFO, FileName);
    FILE_ID_BOTH_DIR_INFO information;
    if (position > bufferSize - nameOffset) {
        fail(ERROR_INVALID_DATA, __LINE__);
    }
    std::memcpy(&information, buffer.get() + position, nameOffset);
    const std::size_t room = bufferSize - nameOffset - position;
    if (information.FileNameLength > room || information.FileNameLength % sizeof(wchar_t) != 0) {
        fail(ERROR_INVALID_DATA, __LINE__);
    }
    entry = {};
    entry.name.resize(information.FileNameLength / sizeof(wchar_t));
    std::memcpy(entry.name.data(), buffer.get() + position + nameOffset,
                information.FileNameLength);
    // A name that leads elsewhere is no name: paths are made of what comes from here.
    if (entry.name.find_first_of(std::wstring_view(L"\\/\0", 3)) != std::wstring::npos) {
        fail(ERROR_INVALID_DATA, __LINE__);
    }
    entry.attributes = information.FileAttributes;
    if (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        entry.reparseTag = information.EaSize; // what the field holds for a reparse point
    }
    entry.size = entry.isDirectory() ? 0 : information.EndOfFile.QuadPart;
    entry.creationTime = information.CreationTime.QuadPart;
    entry.lastAccessTime = information.LastAccessTime.QuadPart;
    entry.lastWriteTime = information.LastWriteTime.QuadPart;
    entry.changeTime = information.ChangeTime.QuadPart;
    entry.fileId = static_cast<std::uint64_t>(information.FileId.QuadPart);
    if (information.NextEntryOffset == 0) {
        filled = false;
    } else if (information.NextEntryOffset < nameOffset ||
               information.NextEntryOffset > bufferSize - position) {
        fail(ERROR_INVALID_DATA, __LINE__);
    } else {
        position += information.NextEntryOffset;
    }
    return true;
}

bool DirectoryLister::State::nextByPath(FileInformation& entry) {
    WIN32_FIND_DATAW data = {};
    if (!search) {
        search.reset(::FindFirstFileExW(combine(longPath(path), L"*").c_str(), FindExInfoBasic,
                                        &data, FindExSearchNameMatch, nullptr,
                                        FIND_FIRST_EX_LARGE_FETCH));
        if (!search) {
            const DWORD code = ::GetLastError();
            if (code == ERROR_FILE_NOT_FOUND || code == ERROR_NO_MORE_FILES) {
                return false; // a root without "." and ".." that holds nothing
            }
            fail(code, __LINE__);
        }
    } else if (!::FindNextFileW(search.get(), &data)) {
        const DWORD code = ::GetLastError();
        if (code != ERROR_NO_MORE_FILES) {
            fail(code, __LINE__);
        }
        return false;
    }
    entry = fromFindData(data);
    return true;
}

bool meansMissing(DWORD code) noexcept {
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ||
           code == ERROR_INVALID_DRIVE || code == ERROR_INVALID_NAME ||
           code == ERROR_BAD_PATHNAME || code == ERROR_DIRECTORY;
}

bool exists(const std::wstring& path) {
    const std::wstring name = systemPath(path);
    if (::GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    DWORD code = ::GetLastError();
    if (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION) {
        // The directory may tell what the item itself does not.
        FileInformation entry;
        code = lookUp(name, entry);
    }
    // In use by someone who shares nothing, such as the paging file: there.
    if (code == ERROR_SUCCESS || code == ERROR_SHARING_VIOLATION) {
        return true;
    }
    if (!meansMissing(code)) {
        throwForPath(L"Unable to get attributes (%s)", name, code, "RunTime::exists", __LINE__);
    }
    return false;
}

bool isDirectory(const std::wstring& path) {
    FileInformation entry;
    const std::wstring name = systemPath(path);
    entry.attributes = ::GetFileAttributesW(name.c_str());
    DWORD code = entry.attributes == INVALID_FILE_ATTRIBUTES ? ::GetLastError() : ERROR_SUCCESS;
    // Whether a reparse point is a link, only its tag tells.
    if (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION ||
        (code == ERROR_SUCCESS && (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)) {
        code = lookUp(name, entry);
    }
    if (code == ERROR_SUCCESS) {
        return entry.isDirectory() && !entry.isLink();
    }
    if (!meansMissing(code)) {
        throwForPath(L"Unable to get attributes (%s)", name, code, "RunTime::isDirectory",
                     __LINE__);
    }
    return false;
}

FileInformation fileInformation(const std::wstring& path) {
    const std::wstring name = systemPath(path);
    FileInformation entry;
    const DWORD code = lookUp(name, entry);
    if (code != ERROR_SUCCESS) {
        throwForPath(L"Unable to get file information (%s)", name, code, "RunTime::fileInformation",
                     __LINE__);
    }
    return entry;
}

AutoHandle openExisting(const std::wstring& path, DWORD access, DWORD share, DWORD flags) {
    AutoHandle handle;
    DWORD code = ERROR_SUCCESS;
    {
        const std::wstring name = systemPath(path);
        handle.reset(::CreateFileW(
            name.c_str(), access, share, nullptr, OPEN_EXISTING,
            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | flags, nullptr));
        code = ::GetLastError();
    }
    if (!handle) {
        handle.release();
        ::SetLastError(code); // freeing the name may have changed it
    }
    return handle;
}

DWORD readKind(HANDLE handle, FileInformation& entry) noexcept {
    FILE_ATTRIBUTE_TAG_INFO kind;
    if (!::GetFileInformationByHandleEx(handle, FileAttributeTagInfo, &kind, sizeof(kind))) {
        return ::GetLastError();
    }
    entry.attributes = kind.FileAttributes;
    entry.reparseTag = kind.ReparseTag;
    return ERROR_SUCCESS;
}

std::uint64_t fileIdOf(HANDLE handle) noexcept {
    BY_HANDLE_FILE_INFORMATION information;
    if (!::GetFileInformationByHandle(handle, &information)) {
        return 0;
    }
    return (static_cast<std::uint64_t>(information.nFileIndexHigh) << 32) |
           information.nFileIndexLow;
}

AutoHandle openPinnedDirectory(const std::wstring& path, int tryCount, DWORD moreAccess) {
    AutoHandle handle;
    for (Retry retry(tryCount);;) {
        handle = openExisting(path,
                              FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE | moreAccess,
                              FILE_SHARE_READ | FILE_SHARE_WRITE);
        if (handle) {
            break;
        }
        const DWORD code = ::GetLastError();
        if (meansMissing(code)) {
            return handle;
        }
        if (!retry.again(code)) {
            throwForPath(L"Unable to list directory (%s)", path, code,
                         "RunTime::openPinnedDirectory", __LINE__);
        }
    }
    FileInformation now;
    if (const DWORD code = readKind(handle.get(), now)) {
        throwForPath(L"Unable to list directory (%s)", path, code, "RunTime::openPinnedDirectory",
                     __LINE__);
    }
    if (!now.isDirectory() || now.isLink()) {
        handle.reset();
    }
    return handle;
}

void deleteFile(const std::wstring& path, int tryCount) {
    deleteItem(path, Kind::file, tryCount);
}

void removeDirectory(const std::wstring& path, int tryCount) {
    deleteItem(path, Kind::directory, tryCount);
}

DWORD deleteByHandle(HANDLE handle) noexcept {
    FILE_DISPOSITION_INFO_EX extended = {};
    extended.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                     FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE;
    if (::SetFileInformationByHandle(handle, fileDispositionInfoEx, &extended, sizeof(extended))) {
        return ERROR_SUCCESS;
    }
    DWORD code = ::GetLastError();
    if (!isUnsupported(code)) {
        return code;
    }
    FILE_BASIC_INFO basic = {};
    FILE_STANDARD_INFO standard = {};
    if (!::GetFileInformationByHandleEx(handle, FileBasicInfo, &basic, sizeof(basic)) ||
        !::GetFileInformationByHandleEx(handle, FileStandardInfo, &standard, sizeof(standard))) {
        return ::GetLastError();
    }
    const bool readOnly = (basic.FileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (readOnly && !setAttributes(handle, basic.FileAttributes & ~FILE_ATTRIBUTE_READONLY)) {
        return ::GetLastError();
    }
    FILE_DISPOSITION_INFO disposition = {};
    disposition.DeleteFile = TRUE;
    code =
        ::SetFileInformationByHandle(handle, FileDispositionInfo, &disposition, sizeof(disposition))
            ? ERROR_SUCCESS
            : ::GetLastError();
    // Attributes belong to the file, not to the name: its other names would lose theirs. A file
    // that is about to go whole needs none.
    if (readOnly && (code != ERROR_SUCCESS || standard.NumberOfLinks > 1)) {
        setAttributes(handle, basic.FileAttributes);
    }
    return code;
}

void moveEx(const std::wstring& from, const std::wstring& to, DWORD flags, int tryCount) {
    if (flags & MOVEFILE_COPY_ALLOWED) {
        throw ArgumentException(L"A move must not become a copy",
                                {L"", "RunTime::moveEx", __LINE__});
    }
    const std::wstring source = withoutTrailingBackslash(longPath(from));
    const std::wstring target = withoutTrailingBackslash(longPath(to));
    for (Retry retry(tryCount); !::MoveFileExW(source.c_str(), target.c_str(), flags);) {
        const DWORD code = ::GetLastError();
        if (!retry.again(code)) {
            _throwError(formatString(L"Unable to move (%s) to (%s)", nicePath(source).c_str(),
                                     nicePath(target).c_str())
                            .c_str(),
                        code, {L"", "RunTime::moveEx", __LINE__});
        }
    }
}

std::wstring temporaryMove(const std::wstring& path, const std::wstring& prefix, int tryCount) {
    const std::wstring source = withoutTrailingBackslash(longPath(path));
    const std::wstring parent = parentPath(source);
    if (parent.empty()) {
        throw ArgumentException(
            formatString(L"A root (%s) cannot be renamed", nicePath(source).c_str()),
            {L"", "RunTime::temporaryMove", __LINE__});
    }
    int names = nameTries;
    for (Retry retry(tryCount);;) {
        std::wstring target = combine(parent, prefix + randomDigits());
        if (::MoveFileExW(source.c_str(), target.c_str(), 0)) {
            return target;
        }
        const DWORD code = ::GetLastError();
        const bool taken = code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS;
        if (taken ? --names == 0 : !retry.again(code)) {
            _throwError(formatString(L"Unable to move (%s) to (%s)", nicePath(source).c_str(),
                                     nicePath(target).c_str())
                            .c_str(),
                        code, {L"", "RunTime::temporaryMove", __LINE__});
        }
    }
}

std::wstring temporaryName(const std::wstring& directory, const std::wstring& stem, int tryCount) {
    const std::wstring parent = longPath(directory);
    for (int left = std::max(tryCount, 1); left != 0; --left) {
        std::wstring name = combine(parent, stem + randomDigits());
        if (!exists(name)) {
            return name;
        }
    }
    throwForPath(L"Unable to find a temporary name in (%s)", parent, ERROR_FILE_EXISTS,
                 "RunTime::temporaryName", __LINE__);
}

bool createDirectory(const std::wstring& path, SECURITY_ATTRIBUTES* security) {
    const std::wstring name = systemPath(path);
    if (::CreateDirectoryW(name.c_str(), security)) {
        return true;
    }
    const DWORD code = ::GetLastError();
    // A drive's root is denied instead.
    const bool taken =
        code == ERROR_ALREADY_EXISTS || (code == ERROR_ACCESS_DENIED && isRoot(name));
    if (!taken || !isDirectory(name)) {
        throwForPath(L"Unable to create directory (%s)", name, code, "RunTime::createDirectory",
                     __LINE__);
    }
    return false;
}

} // namespace RunTime
