// NtfsFake: opening, listing, attributes and times, removing and renaming.
#include "tests/support/ntfs_fake_state.h"

#include <cstddef>

namespace ntfs {

namespace {

// Cuts ":stream" or ":stream:$DATA" off; the unnamed stream is the file itself.
std::wstring cutStream(std::wstring& path) {
    const std::size_t name = path.rfind(L'\\') == path.npos ? 0 : path.rfind(L'\\') + 1;
    const std::size_t colon = path.find(L':', name);
    const bool drive = colon == name + 1 && (name == 0 || name == 4); // "C:", "\\\\?\\C:"
    if (colon == path.npos || drive || colon + 1 == path.size()) {
        return {};
    }
    std::wstring stream = path.substr(colon + 1);
    path.resize(colon);
    return stream.substr(0, stream.find(L':'));
}

bool readOnly(const std::string& unixName) {
    const Extra* extra = extraAt(unixName);
    return extra != nullptr && (extra->attributes.value_or(0) & FILE_ATTRIBUTE_READONLY) != 0;
}

void runMoments(const std::string& unixName) {
    std::vector<std::function<void()>> due;
    for (std::size_t i = 0; i < state->moments.size(); ++i) {
        State::Moment& moment = state->moments[i];
        if (moment.path == unixName && --moment.left == 0) {
            due.push_back(std::move(moment.fn));
        }
    }
    for (const auto& fn : due) {
        fn();
    }
}

HANDLE WINAPI createFile(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                         DWORD disposition, DWORD flags, HANDLE model) {
    const Lock lock;
    std::wstring path = name != nullptr ? name : L"";
    const std::wstring stream = cutStream(path);
    const std::string unixName =
        path.empty() || path.starts_with(L"\\\\.\\") ? std::string() : unixPath(path);
    if (unixName.empty()) {
        return REAL(CreateFileW)(name, access, share, security, disposition, flags, model);
    }
    runMoments(unixName);
    if ((access & ACCESS_SYSTEM_SECURITY) != 0 && !hasPrivilege(L"SeSecurityPrivilege")) {
        fail(ERROR_PRIVILEGE_NOT_HELD);
        return INVALID_HANDLE_VALUE;
    }
    const DWORD realAccess = access & ~DWORD(ACCESS_SYSTEM_SECURITY);
    unixcall::Stat64 before;
    bool existed = unixStat(unixName, before);
    std::string opened = unixName;
    if (!stream.empty()) {
        DWORD code = existed ? 0 : ERROR_FILE_NOT_FOUND;
        const UnixFile base(unixName);
        const Extra* extra = extraOf(base);
        existed = extra != nullptr && extra->streams.contains(stream);
        const bool create = disposition != OPEN_EXISTING && disposition != TRUNCATE_EXISTING;
        const UnixFile held =
            existed || code == 0 ? openStream(base, stream, create, code) : UnixFile("");
        if (code != 0 || (existed && disposition == CREATE_NEW)) {
            fail(code != 0 ? code : ERROR_FILE_EXISTS);
            return INVALID_HANDLE_VALUE;
        }
        opened = held.path();
        path = dosPath(opened);
        disposition = disposition == CREATE_NEW ? OPEN_EXISTING : disposition;
    } else if (existed && before.isLink() && (flags & FILE_FLAG_OPEN_REPARSE_POINT) != 0) {
        return openLink(unixName, access, share, disposition, flags);
    }
    const HANDLE handle =
        REAL(CreateFileW)(path.c_str(), realAccess, share, security, disposition, flags, model);
    const DWORD code = REAL(GetLastError)();
    if (handle != INVALID_HANDLE_VALUE) {
        OpenFile& file =
            state->open.insert_or_assign(handle, OpenFile(UnixFile(opened), access, share))
                .first->second;
        if (!existed && stream.empty()) {
            created(file.file, flags);
            setSecurityAtBirth(file.file, security);
        }
    }
    fail(code);
    return handle;
}

BOOL WINAPI createDirectory(LPCWSTR name, LPSECURITY_ATTRIBUTES security) {
    const Lock lock;
    if (!REAL(CreateDirectoryW)(name, security)) {
        return FALSE;
    }
    const UnixFile file(unixPath(name));
    created(file, 0);
    setSecurityAtBirth(file, security);
    return TRUE;
}

BOOL WINAPI closeHandle(HANDLE handle) {
    const Lock lock;
    OpenFile* const known = state->find(handle);
    if (known == nullptr) {
        return REAL(CloseHandle)(handle);
    }
    state->onClose(handle);
    const OpenFile file = std::move(*known);
    state->open.erase(handle);
    if (file.link && file.deleteOnClose) {
        unixCall(unixcall::Unlink, file.file.path().c_str());
    }
    const BOOL closed = REAL(CloseHandle)(handle);
    forgetIfGone(file.file);
    return closed;
}

template <class Info>
void showLink(const unixcall::Stat64& link, Info& info) {
    info.LastAccessTime.QuadPart = fileTime(link.accessed.seconds, link.accessed.nanoseconds);
    info.LastWriteTime.QuadPart = fileTime(link.written.seconds, link.written.nanoseconds);
    info.ChangeTime.QuadPart = fileTime(link.changed.seconds, link.changed.nanoseconds);
}

// In structures that have FILETIMEs. Returns the tag.
template <class Info>
DWORD showItem(const std::string& unixName, Info& info) {
    std::int64_t created = 0;
    std::memcpy(&created, &info.ftCreationTime, sizeof created);
    const Shown shown = shownOf(unixName, info.dwFileAttributes, created);
    info.dwFileAttributes = shown.attributes;
    std::memcpy(&info.ftCreationTime, &shown.created, sizeof shown.created);
    if (shown.link) {
        FILE_BASIC_INFO basic = {};
        showLink(*shown.link, basic);
        std::memcpy(&info.ftLastAccessTime, &basic.LastAccessTime, sizeof(FILETIME));
        std::memcpy(&info.ftLastWriteTime, &basic.LastWriteTime, sizeof(FILETIME));
        info.nFileSizeHigh = info.nFileSizeLow = 0;
    }
    return shown.tag;
}

void showEntry(const std::string& directory, FILE_ID_BOTH_DIR_INFO& entry) {
    const std::wstring name(entry.FileName, entry.FileNameLength / sizeof(wchar_t));
    if (name == L"." || name == L"..") {
        return;
    }
    const Shown shown =
        shownOf(directory + "/" + toUtf8(name), entry.FileAttributes, entry.CreationTime.QuadPart);
    entry.FileAttributes = shown.attributes;
    entry.CreationTime.QuadPart = shown.created;
    entry.EaSize = shown.tag;
    if (shown.link) {
        showLink(*shown.link, entry);
        entry.EndOfFile.QuadPart = entry.AllocationSize.QuadPart = 0;
    }
}

// Wine's listing, corrected; behind its end come the links that it leaves out, one a call.
BOOL list(OpenFile& file, HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, void* buffer, DWORD size,
          bool restart) {
    const std::string directory = file.file.path();
    if (restart || !file.listing) {
        file.listing = true;
        file.nextUnlisted = 0;
        file.unlisted.clear();
        for (const std::string& name : unixEntries(directory)) {
            unixcall::Stat64 item;
            if (unixStat(directory + "/" + name, item) && item.isLink() &&
                !unixStat(directory + "/" + name, item, true)) {
                file.unlisted.push_back(name);
            }
        }
    }
    if (REAL(GetFileInformationByHandleEx)(handle, kind, buffer, size)) {
        for (char* next = static_cast<char*>(buffer);;) {
            auto* entry = reinterpret_cast<FILE_ID_BOTH_DIR_INFO*>(next);
            showEntry(directory, *entry);
            if (entry->NextEntryOffset == 0) {
                return TRUE;
            }
            next += entry->NextEntryOffset;
        }
    }
    const DWORD code = REAL(GetLastError)();
    if (code != ERROR_NO_MORE_FILES || file.nextUnlisted == file.unlisted.size()) {
        return fail(code);
    }
    const std::wstring name = toWide(file.unlisted[file.nextUnlisted]);
    const std::size_t bytes = name.size() * sizeof(wchar_t);
    if (size < offsetof(FILE_ID_BOTH_DIR_INFO, FileName) + bytes) {
        return fail(ERROR_MORE_DATA);
    }
    auto* entry = static_cast<FILE_ID_BOTH_DIR_INFO*>(buffer);
    std::memset(entry, 0, offsetof(FILE_ID_BOTH_DIR_INFO, FileName));
    entry->FileNameLength = static_cast<DWORD>(bytes);
    std::memcpy(entry->FileName, name.data(), bytes);
    showEntry(directory, *entry);
    ++file.nextUnlisted;
    return TRUE;
}

BOOL WINAPI getInformationEx(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID buffer,
                             DWORD size) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(GetFileInformationByHandleEx)(handle, kind, buffer, size);
    }
    if (!file->link) {
        if (kind == FileIdBothDirectoryInfo || kind == FileIdBothDirectoryRestartInfo) {
            return list(*file, handle, kind, buffer, size, kind == FileIdBothDirectoryRestartInfo);
        }
        if (!REAL(GetFileInformationByHandleEx)(handle, kind, buffer, size)) {
            return FALSE;
        }
    }
    const unixcall::Stat64 item = file->file.stat();
    const auto answer = [&](auto info) {
        std::memset(&info, 0, sizeof info);
        return info;
    };
    if (kind == FileBasicInfo && size >= sizeof(FILE_BASIC_INFO)) {
        auto* basic = static_cast<FILE_BASIC_INFO*>(buffer);
        if (file->link) {
            *basic = answer(FILE_BASIC_INFO());
            showLink(item, *basic);
        }
        const Shown shown =
            shownOf(file->file.path(), basic->FileAttributes, basic->CreationTime.QuadPart);
        basic->FileAttributes = shown.attributes;
        basic->CreationTime.QuadPart = shown.created;
    } else if (kind == FileAttributeTagInfo && size >= sizeof(FILE_ATTRIBUTE_TAG_INFO)) {
        auto* tag = static_cast<FILE_ATTRIBUTE_TAG_INFO*>(buffer);
        const Shown shown = shownOf(file->file.path(), file->link ? 0 : tag->FileAttributes, 0);
        tag->FileAttributes = shown.attributes;
        tag->ReparseTag = shown.tag;
    } else if (kind == FileStandardInfo && size >= sizeof(FILE_STANDARD_INFO) && file->link) {
        auto* standard = static_cast<FILE_STANDARD_INFO*>(buffer);
        *standard = answer(FILE_STANDARD_INFO());
        standard->NumberOfLinks = static_cast<DWORD>(item.links);
        standard->DeletePending = file->deleteOnClose;
        standard->Directory = isDirectoryLink(file->file);
    } else if (file->link) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    return TRUE;
}

BOOL WINAPI getInformation(HANDLE handle, LPBY_HANDLE_FILE_INFORMATION info) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(GetFileInformationByHandle)(handle, info);
    }
    if (file->link) {
        const unixcall::Stat64 item = file->file.stat();
        *info = {};
        info->dwVolumeSerialNumber = static_cast<DWORD>(item.device);
        info->nNumberOfLinks = static_cast<DWORD>(item.links);
        info->nFileIndexHigh = static_cast<DWORD>(item.inode >> 32);
        info->nFileIndexLow = static_cast<DWORD>(item.inode);
    } else if (!REAL(GetFileInformationByHandle)(handle, info)) {
        return FALSE;
    }
    showItem(file->file.path(), *info);
    return TRUE;
}

void keepAttributes(const UnixFile& file, DWORD attributes) {
    if (attributes != 0) {
        extraOf(file, true)->attributes = attributes & settableAttributes;
    }
}

BOOL setLink(OpenFile& file, FILE_INFO_BY_HANDLE_CLASS kind, const void* buffer) {
    if (kind == FileDispositionInfo) {
        file.deleteOnClose = static_cast<const FILE_DISPOSITION_INFO*>(buffer)->DeleteFile;
        return TRUE;
    }
    if (kind != FileBasicInfo) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    const auto* basic = static_cast<const FILE_BASIC_INFO*>(buffer);
    constexpr std::int64_t omit = (1 << 30) - 2;
    std::int64_t times[4] = {0, omit, 0, omit};
    const auto set = [&](std::int64_t time, std::int64_t* to) {
        if (time > 0) {
            to[0] = time / 10'000'000 - 11'644'473'600;
            to[1] = time % 10'000'000 * 100;
        }
    };
    set(basic->LastAccessTime.QuadPart, times);
    set(basic->LastWriteTime.QuadPart, times + 2);
    Extra* extra = extraOf(file.file, true);
    extra->created =
        basic->CreationTime.QuadPart > 0 ? basic->CreationTime.QuadPart : extra->created;
    keepAttributes(file.file, basic->FileAttributes);
    const DWORD code =
        errorOf(unixCall(unixcall::Utimensat, unixcall::number(-100), file.file.path().c_str(),
                         times, 0x100)); // AT_SYMLINK_NOFOLLOW
    return code == 0 || fail(code);
}

BOOL WINAPI setInformation(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID buffer,
                           DWORD size) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(SetFileInformationByHandle)(handle, kind, buffer, size);
    }
    if (kind == FileDispositionInfo) {
        if (!file->may(DELETE)) {
            return fail(ERROR_ACCESS_DENIED);
        }
        if (static_cast<FILE_DISPOSITION_INFO*>(buffer)->DeleteFile &&
            readOnly(file->file.path())) {
            return fail(ERROR_ACCESS_DENIED);
        }
    }
    if (kind == FileBasicInfo && !file->may(FILE_WRITE_ATTRIBUTES)) {
        return fail(ERROR_ACCESS_DENIED);
    }
    if (file->link) {
        return setLink(*file, kind, buffer);
    }
    if (kind != FileBasicInfo || size < sizeof(FILE_BASIC_INFO)) {
        return REAL(SetFileInformationByHandle)(handle, kind, buffer, size);
    }
    FILE_BASIC_INFO basic = *static_cast<FILE_BASIC_INFO*>(buffer);
    if ((basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
        !file->file.stat().isDirectory()) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    for (LARGE_INTEGER* time :
         {&basic.CreationTime, &basic.LastAccessTime, &basic.LastWriteTime, &basic.ChangeTime}) {
        time->QuadPart = time->QuadPart < 0 ? 0 : time->QuadPart; // "do not update"
    }
    // Kept before: Wine takes write access away with the attribute.
    keepAttributes(file->file, basic.FileAttributes);
    if (basic.CreationTime.QuadPart > 0) {
        extraOf(file->file, true)->created = basic.CreationTime.QuadPart;
    }
    return REAL(SetFileInformationByHandle)(handle, kind, &basic, sizeof basic);
}

DWORD WINAPI getAttributes(LPCWSTR path) {
    const Lock lock;
    const std::string unixName = unixPath(path);
    unixcall::Stat64 item;
    const bool link = unixStat(unixName, item) && item.isLink();
    const DWORD attributes = link ? 0 : REAL(GetFileAttributesW)(path);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return attributes;
    }
    return shownOf(unixName, attributes, 0).attributes;
}

BOOL WINAPI setAttributes(LPCWSTR path, DWORD attributes) {
    const Lock lock;
    const UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    if (file) {
        keepAttributes(file, attributes | FILE_ATTRIBUTE_NORMAL);
    }
    return (file && file.stat().isLink()) || REAL(SetFileAttributesW)(path, attributes);
}

void showFound(const std::string& directory, WIN32_FIND_DATAW& data) {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L"..") {
        return;
    }
    data.dwReserved0 = showItem(directory + "/" + toUtf8(name), data);
}

// A link is found by its name; a whole directory is listed by its handle.
HANDLE WINAPI findFirstEx(LPCWSTR pattern, FINDEX_INFO_LEVELS level, LPVOID data,
                          FINDEX_SEARCH_OPS operation, LPVOID filter, DWORD flags) {
    const Lock lock;
    auto* found = static_cast<WIN32_FIND_DATAW*>(data);
    const std::wstring path = pattern;
    const std::size_t slash = path.find_last_of(L"\\/");
    const std::string parent =
        slash == path.npos ? unixPath(L".") : unixPath(path.substr(0, slash + 1));
    unixcall::Stat64 item;
    if (path.find_first_of(L"*?", slash == path.npos ? 0 : slash) == path.npos &&
        unixStat(unixPath(path), item) && item.isLink()) {
        const std::string whole = unixPath(path);
        *found = {};
        toWide(whole.substr(whole.rfind('/') + 1)).copy(found->cFileName, MAX_PATH - 1);
        showFound(parent, *found);
        const HANDLE handle = REAL(CreateEventW)(nullptr, TRUE, FALSE, nullptr);
        state->searches.insert_or_assign(handle, Search{parent, {}, 0, true});
        return handle;
    }
    const HANDLE handle = REAL(FindFirstFileExW)(pattern, level, data, operation, filter, flags);
    const DWORD code = REAL(GetLastError)();
    if (handle != INVALID_HANDLE_VALUE) {
        showFound(parent, *found);
        state->searches.insert_or_assign(handle, Search{parent, {}, 0, false});
    }
    fail(code);
    return handle;
}

HANDLE WINAPI findFirst(LPCWSTR pattern, WIN32_FIND_DATAW* data) {
    return findFirstEx(pattern, FindExInfoStandard, data, FindExSearchNameMatch, nullptr, 0);
}

BOOL WINAPI findNext(HANDLE handle, WIN32_FIND_DATAW* data) {
    const Lock lock;
    const auto found = state->searches.find(handle);
    if (found == state->searches.end()) {
        return REAL(FindNextFileW)(handle, data);
    }
    if (found->second.ours) {
        return fail(ERROR_NO_MORE_FILES);
    }
    if (!REAL(FindNextFileW)(handle, data)) {
        return FALSE;
    }
    showFound(found->second.directory, *data);
    return TRUE;
}

BOOL WINAPI findClose(HANDLE handle) {
    const Lock lock;
    const auto found = state->searches.find(handle);
    const bool ours = found != state->searches.end() && found->second.ours;
    if (found != state->searches.end()) {
        state->searches.erase(found);
    }
    return ours ? REAL(CloseHandle)(handle) : REAL(FindClose)(handle);
}

BOOL removeName(LPCWSTR path, bool directory) {
    const auto remove = [&] {
        return directory ? REAL(RemoveDirectoryW)(path) : REAL(DeleteFileW)(path);
    };
    const UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    if (!file) {
        return remove();
    }
    const std::string unixName = file.path();
    if (readOnly(unixName)) {
        return fail(ERROR_ACCESS_DENIED);
    }
    if (!file.stat().isLink()) {
        const BOOL removed = remove();
        const DWORD code = REAL(GetLastError)();
        forgetIfGone(file);
        return removed || fail(code);
    }
    if (isDirectoryLink(file) != directory) {
        return fail(directory ? ERROR_DIRECTORY : ERROR_ACCESS_DENIED);
    }
    if (state->fake->openHandles(path, false) != 0) {
        return fail(ERROR_SHARING_VIOLATION);
    }
    const DWORD code = errorOf(unixCall(unixcall::Unlink, unixName.c_str()));
    forgetIfGone(file);
    return code == 0 || fail(code);
}

BOOL WINAPI deleteFile(LPCWSTR path) {
    const Lock lock;
    return removeName(path, false);
}

BOOL WINAPI removeDirectory(LPCWSTR path) {
    const Lock lock;
    return removeName(path, true);
}

// What is open below a directory keeps it in its place.
BOOL WINAPI moveFileEx(LPCWSTR from, LPCWSTR to, DWORD flags) {
    const Lock lock;
    if (to == nullptr || (flags & MOVEFILE_DELAY_UNTIL_REBOOT) != 0) {
        return REAL(MoveFileExW)(from, to, flags);
    }
    const std::string source = unixPath(from), target = unixPath(to);
    unixcall::Stat64 item, there;
    if (!unixStat(source, item)) {
        return REAL(MoveFileExW)(from, to, flags);
    }
    if (item.isDirectory() &&
        state->fake->openHandles(from) > state->fake->openHandles(from, false)) {
        return fail(ERROR_ACCESS_DENIED);
    }
    if (!item.isLink()) {
        return REAL(MoveFileExW)(from, to, flags);
    }
    if (unixStat(target, there) && !there.same(item)) {
        return fail(ERROR_ALREADY_EXISTS);
    }
    const DWORD code = errorOf(unixCall(unixcall::Rename, source.c_str(), target.c_str()));
    return code == 0 || fail(code);
}

BOOL WINAPI getVolumeInformation(LPCWSTR root, LPWSTR name, DWORD nameSize, LPDWORD serial,
                                 LPDWORD longest, LPDWORD flags, LPWSTR system, DWORD systemSize) {
    const Lock lock;
    if (!REAL(GetVolumeInformationW)(root, name, nameSize, serial, longest, flags, system,
                                     systemSize)) {
        return FALSE;
    }
    if (flags != nullptr) {
        *flags = volumeFlagsOf(root != nullptr ? root : L"C:");
    }
    return TRUE;
}

} // namespace

void created(const UnixFile& file, DWORD attributes) {
    const bool directory = file.stat().isDirectory();
    Extra& extra = *extraOf(file, true) = Extra();
    FILETIME now;
    REAL(GetSystemTimeAsFileTime)(&now);
    extra.created = static_cast<std::int64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    extra.attributes = directory ? 0 : (attributes & settableAttributes) | FILE_ATTRIBUTE_ARCHIVE;
    const std::string path = file.path();
    if (const Extra* parent = extraAt(path.substr(0, path.rfind('/')))) {
        extra.flags = parent->flags & FILE_ATTRIBUTE_COMPRESSED;
        if ((attributes & FILE_ATTRIBUTE_SYSTEM) == 0) {
            extra.flags |= parent->flags & FILE_ATTRIBUTE_ENCRYPTED;
        }
    }
    inheritSecurity(file, directory);
}

void patchFiles(State& to) {
    patch(to, "CreateFileW", createFile);
    patch(to, "CreateDirectoryW", createDirectory);
    patch(to, "CloseHandle", closeHandle);
    patch(to, "GetFileInformationByHandleEx", getInformationEx);
    patch(to, "GetFileInformationByHandle", getInformation);
    patch(to, "SetFileInformationByHandle", setInformation);
    patch(to, "GetFileAttributesW", getAttributes);
    patch(to, "SetFileAttributesW", setAttributes);
    patch(to, "FindFirstFileW", findFirst);
    patch(to, "FindFirstFileExW", findFirstEx);
    patch(to, "FindNextFileW", findNext);
    patch(to, "FindClose", findClose);
    patch(to, "DeleteFileW", deleteFile);
    patch(to, "RemoveDirectoryW", removeDirectory);
    patch(to, "MoveFileExW", moveFileEx);
    patch(to, "GetVolumeInformationW", getVolumeInformation);
}

} // namespace ntfs
