// NtfsFake: links and other reparse points, device controls.
#include "tests/support/ntfs_fake_state.h"

#include <stdexcept>

namespace ntfs {

namespace {

// REPARSE_DATA_BUFFER, which the SDK leaves to drivers. Lengths are bytes.
struct ReparseHeader {
    DWORD tag;
    WORD length, reserved;
};
struct LinkHeader { // behind it 4 bytes of flags for a symbolic link, then the names
    WORD substituteOffset, substituteLength, printOffset, printLength;
};

std::string bytesOf(const std::wstring& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

template <class Value>
std::string bytesOf(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string withHeader(DWORD tag, const std::string& data) {
    return bytesOf(ReparseHeader{tag, static_cast<WORD>(data.size()), 0}) + data;
}

// The Unix text for what the link names; false for a buffer that the system would not take.
bool parseLink(const std::string& data, std::string& text) {
    ReparseHeader header;
    LinkHeader link;
    std::memcpy(&header, data.data(), sizeof header);
    const std::size_t names =
        sizeof header + sizeof link + (header.tag == IO_REPARSE_TAG_SYMLINK ? 4 : 0);
    if (data.size() < names) {
        return false;
    }
    std::memcpy(&link, data.data() + sizeof header, sizeof link);
    DWORD flags = 0;
    if (header.tag == IO_REPARSE_TAG_SYMLINK) {
        std::memcpy(&flags, data.data() + sizeof header + sizeof link, sizeof flags);
    }
    if (names + link.substituteOffset + link.substituteLength > data.size() ||
        names + link.printOffset + link.printLength > data.size() || link.substituteLength == 0 ||
        link.substituteLength % 2 != 0) {
        return false;
    }
    std::wstring name(link.substituteLength / sizeof(wchar_t), L'\0');
    std::memcpy(name.data(), data.data() + names + link.substituteOffset, link.substituteLength);
    if ((flags & 1) != 0) { // SYMLINK_FLAG_RELATIVE
        text = toUtf8(name);
        for (char& c : text) {
            c = c == '\\' ? '/' : c;
        }
        return true;
    }
    if (!name.starts_with(L"\\??\\")) {
        return false;
    }
    text = unixPath(L"\\\\?\\" + name.substr(4));
    text = text.empty() ? "/nowhere/" + toUtf8(name.substr(4)) : text;
    return true;
}

bool answer(const std::string& data, void* out, DWORD size, DWORD* returned) {
    const DWORD count = static_cast<DWORD>(std::min<std::size_t>(data.size(), size));
    std::memcpy(out, data.data(), count);
    if (returned != nullptr) {
        *returned = count;
    }
    return count == data.size() || fail(ERROR_MORE_DATA);
}

bool ranges(const OpenFile& file, const void* in, DWORD inSize, void* out, DWORD outSize,
            DWORD* returned) {
    FILE_ALLOCATED_RANGE_BUFFER wanted;
    if (inSize < sizeof wanted) {
        return fail(ERROR_INVALID_PARAMETER);
    }
    std::memcpy(&wanted, in, sizeof wanted);
    const std::int64_t begin = wanted.FileOffset.QuadPart, end = begin + wanted.Length.QuadPart;
    std::string found;
    for (const auto& [offset, length] : allocatedRanges(file.file)) {
        FILE_ALLOCATED_RANGE_BUFFER range;
        range.FileOffset.QuadPart = std::max(offset, begin);
        range.Length.QuadPart = std::min(offset + length, end) - range.FileOffset.QuadPart;
        if (range.Length.QuadPart > 0) {
            found += bytesOf(range);
        }
    }
    return answer(found, out, outSize - outSize % sizeof wanted, returned);
}

BOOL WINAPI deviceIoControl(HANDLE handle, DWORD code, LPVOID in, DWORD inSize, LPVOID out,
                            DWORD outSize, LPDWORD returned, LPOVERLAPPED overlapped) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(DeviceIoControl)(handle, code, in, inSize, out, outSize, returned, overlapped);
    }
    const auto flag = [&](DWORD which, bool set) {
        Extra* extra = extraOf(file->file, true);
        extra->flags = set ? extra->flags | which : extra->flags & ~which;
        return true;
    };
    const bool writes = code == FSCTL_SET_REPARSE_POINT || code == FSCTL_SET_SPARSE ||
                        code == FSCTL_SET_COMPRESSION;
    if (writes && !file->may(FILE_WRITE_DATA) &&
        !(code == FSCTL_SET_REPARSE_POINT && file->may(FILE_WRITE_ATTRIBUTES))) {
        return fail(ERROR_ACCESS_DENIED);
    }
    if (returned != nullptr) {
        *returned = 0;
    }
    switch (code) {
    case FSCTL_GET_REPARSE_POINT: {
        const std::string data = reparseDataOf(file->file);
        return data.empty() ? fail(ERROR_NOT_A_REPARSE_POINT)
                            : answer(data, out, outSize, returned);
    }
    case FSCTL_SET_REPARSE_POINT: {
        const DWORD error = setReparse(*file, std::string(static_cast<char*>(in), inSize));
        return error == 0 || fail(error);
    }
    case FSCTL_SET_SPARSE:
        return flag(FILE_ATTRIBUTE_SPARSE_FILE,
                    inSize == 0 || static_cast<FILE_SET_SPARSE_BUFFER*>(in)->SetSparse);
    case FSCTL_SET_COMPRESSION:
        return inSize < sizeof(USHORT)
                   ? fail(ERROR_INVALID_PARAMETER)
                   : flag(FILE_ATTRIBUTE_COMPRESSED, *static_cast<USHORT*>(in) != 0);
    case FSCTL_QUERY_ALLOCATED_RANGES:
        return ranges(*file, in, inSize, out, outSize, returned);
    case FSCTL_SET_OBJECT_ID:
        for (const auto& [key, other] : state->extras) {
            if (other.objectId == std::string(static_cast<char*>(in), inSize)) {
                return fail(ERROR_OBJECT_ALREADY_EXISTS); // unique on a volume
            }
        }
        extraOf(file->file, true)->objectId.assign(static_cast<char*>(in), inSize);
        return TRUE;
    default:
        return REAL(DeviceIoControl)(handle, code, in, inSize, out, outSize, returned, overlapped);
    }
}

} // namespace

bool isDirectoryLink(const UnixFile& link) {
    if (const Extra* extra = extraOf(link)) {
        return extra->directoryLink;
    }
    unixcall::Stat64 target;
    return unixStat(link.path(), target, true) && target.isDirectory();
}

std::string linkData(const std::wstring& target, DWORD tag, bool relative) {
    const std::wstring substitute = relative ? target : std::wstring(L"\\??\\").append(target);
    const auto bytes = [](const std::wstring& text) {
        return static_cast<WORD>(text.size() * sizeof(wchar_t));
    };
    // A mount point's names have terminators.
    const WORD gap = tag == IO_REPARSE_TAG_MOUNT_POINT ? 2 : 0;
    const LinkHeader header = {0, bytes(substitute), static_cast<WORD>(bytes(substitute) + gap),
                               bytes(target)};
    std::string data = bytesOf(header);
    data += tag == IO_REPARSE_TAG_SYMLINK ? bytesOf(static_cast<DWORD>(relative)) : "";
    data += bytesOf(substitute) + std::string(gap, '\0') + bytesOf(target) + std::string(gap, '\0');
    return withHeader(tag, data);
}

std::string reparseDataOf(const UnixFile& file) {
    const Extra* extra = extraOf(file);
    if (extra != nullptr && !extra->reparse.empty()) {
        return extra->reparse;
    }
    if (!file.stat().isLink()) {
        return {};
    }
    const std::string text = unixReadLink(file.path());
    if (text.starts_with('/')) {
        return linkData(dosPath(text), IO_REPARSE_TAG_SYMLINK, false);
    }
    std::wstring target = toWide(text);
    for (wchar_t& c : target) {
        c = c == L'/' ? L'\\' : c;
    }
    return linkData(target, IO_REPARSE_TAG_SYMLINK, true);
}

// An empty file or directory becomes a Unix link in its place; its record goes along.
DWORD setReparse(OpenFile& file, const std::string& data) {
    ReparseHeader header = {};
    if (data.size() >= sizeof header) {
        std::memcpy(&header, data.data(), sizeof header);
    }
    if (data.size() != sizeof header + header.length || header.tag == 0) {
        return ERROR_INVALID_REPARSE_DATA;
    }
    const bool directory = file.link ? isDirectoryLink(file.file) : file.file.stat().isDirectory();
    std::string text;
    if (!parseLink(data, text) || (header.tag == IO_REPARSE_TAG_MOUNT_POINT && !directory)) {
        return ERROR_INVALID_REPARSE_DATA;
    }
    const std::string path = file.file.path();
    Extra* known = extraOf(file.file);
    Extra record = known != nullptr ? *known : Extra();
    const bool rmdir = directory && !file.link;
    if (const DWORD code =
            errorOf(unixCall(rmdir ? unixcall::Rmdir : unixcall::Unlink, path.c_str()))) {
        return code;
    }
    if (const DWORD code = errorOf(unixCall(unixcall::Symlink, text.c_str(), path.c_str()))) {
        return code;
    }
    file.file = UnixFile(path, unixcall::OnlyPath | unixcall::NoFollow);
    file.link = true;
    record.tag = header.tag;
    record.reparse = data;
    record.linkText = text;
    record.directoryLink = directory;
    *extraOf(file.file, true) = std::move(record);
    return ERROR_SUCCESS;
}

// Wine's opens follow every link; an event stands in for the link's own handle.
HANDLE openLink(const std::string& unixName, DWORD access, DWORD share, DWORD disposition,
                DWORD flags) {
    UnixFile link(unixName, unixcall::OnlyPath | unixcall::NoFollow);
    if (disposition != OPEN_EXISTING) {
        fail(ERROR_FILE_EXISTS);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = REAL(CreateEventW)(nullptr, TRUE, FALSE, nullptr);
    OpenFile& file = state->open.insert_or_assign(handle, OpenFile(std::move(link), access, share))
                         .first->second;
    file.link = true;
    file.deleteOnClose = (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    fail(ERROR_SUCCESS);
    return handle;
}

void patchLinks(State& to) {
    patch(to, "DeviceIoControl", deviceIoControl);
}

} // namespace ntfs

void NtfsFake::setForeignTag(const std::wstring& path, DWORD tag, const std::string& data) {
    ntfs::Extra* extra = ntfs::extraAt(unixPath(path), true);
    extra->tag = tag;
    extra->reparse = ntfs::withHeader(tag, data);
}

void NtfsFake::makeLink(const std::wstring& path, const std::wstring& target, DWORD tag,
                        bool directory) {
    const std::string unixName = unixPath(path);
    const bool relative = target.find(L':') == target.npos;
    const std::string data = ntfs::linkData(target, tag, relative);
    std::string text;
    if (!ntfs::parseLink(data, text) ||
        unixCall(unixcall::Symlink, text.c_str(), unixName.c_str()) != 0) {
        throw std::runtime_error("no link can be made: " + unixName);
    }
    ntfs::Extra* extra = ntfs::extraAt(unixName, true);
    extra->tag = tag;
    extra->reparse = data;
    extra->directoryLink = directory;
}

bool NtfsFake::swapForLink(const std::wstring& path, const std::string& target) {
    const std::string unixName = unixPath(path);
    const std::string canonical = ntfs::UnixFile(unixName).path();
    for (const auto& [handle, file] : ntfs::state->open) {
        const std::string name = file.file.path();
        if (name.starts_with(canonical + "/") ||
            (name == canonical && (file.share & FILE_SHARE_DELETE) == 0)) {
            return false;
        }
    }
    return unixCall(unixcall::Rename, unixName.c_str(), (unixName + ".aside").c_str()) == 0 &&
           unixCall(unixcall::Symlink, target.c_str(), unixName.c_str()) == 0;
}
