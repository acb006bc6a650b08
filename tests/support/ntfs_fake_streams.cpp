// NtfsFake: alternate streams, and what else files have besides their data.
#include "tests/support/ntfs_fake_state.h"

#include <stdexcept>

namespace ntfs {

namespace {

BOOL WINAPI findNextStream(HANDLE handle, LPVOID data) {
    const Lock lock;
    const auto found = state->searches.find(handle);
    if (found == state->searches.end() || found->second.next == found->second.streams.size()) {
        return fail(ERROR_HANDLE_EOF);
    }
    const auto& [name, size] = found->second.streams[found->second.next++];
    auto* out = static_cast<WIN32_FIND_STREAM_DATA*>(data);
    *out = {};
    out->StreamSize.QuadPart = size;
    name.copy(out->cStreamName, std::size(out->cStreamName) - 1);
    return TRUE;
}

HANDLE WINAPI findFirstStream(LPCWSTR path, STREAM_INFO_LEVELS, LPVOID data, DWORD) {
    const Lock lock;
    const UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    Search search;
    search.ours = true;
    if (file && !file.stat().isLink()) {
        if (!file.stat().isDirectory()) {
            search.streams.emplace_back(L"::$DATA", file.stat().size);
        }
        if (const Extra* extra = extraOf(file)) {
            for (const auto& [name, backing] : extra->streams) {
                search.streams.emplace_back(decorated(name), UnixFile(backing).stat().size);
            }
        }
    }
    if (search.streams.empty()) {
        fail(file ? ERROR_HANDLE_EOF : ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = REAL(CreateEventW)(nullptr, TRUE, FALSE, nullptr);
    state->searches.insert_or_assign(handle, std::move(search));
    findNextStream(handle, data);
    return handle;
}

} // namespace

std::wstring decorated(const std::wstring& name) {
    return std::wstring(L":").append(name).append(L":$DATA");
}

bool isSparse(const UnixFile& file) {
    const Extra* extra = extraOf(file);
    return extra != nullptr && (extra->flags & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
}

std::vector<std::pair<std::int64_t, std::int64_t>> allocatedRanges(const UnixFile& file) {
    const std::int64_t size = file.stat().size;
    if (!isSparse(file)) {
        return size != 0 ? std::vector{std::pair<std::int64_t, std::int64_t>(0, size)}
                         : std::vector<std::pair<std::int64_t, std::int64_t>>();
    }
    std::vector<std::pair<std::int64_t, std::int64_t>> found;
    const UnixFile readable(file.proc(), unixcall::ReadOnly);
    const auto seek = [&](std::int64_t from, std::intptr_t whence) {
        return unixCall(unixcall::Lseek, readable.fd(), unixcall::number(from),
                        unixcall::number(whence));
    };
    for (std::int64_t at = 0; at < size;) {
        const long long begin = seek(at, 3); // SEEK_DATA
        if (begin < 0) {
            break;
        }
        at = seek(begin, 4); // SEEK_HOLE
        found.emplace_back(begin, at - begin);
    }
    return found;
}

// Opens the Unix file that holds a stream. A read-only file or directory takes no new ones.
UnixFile openStream(const UnixFile& file, const std::wstring& name, bool create, DWORD& code) {
    Extra* extra = extraOf(file, create);
    if (extra == nullptr || !extra->streams.contains(name)) {
        if (!create || extra == nullptr) {
            code = ERROR_FILE_NOT_FOUND;
            return UnixFile("");
        }
        if ((extra->attributes.value_or(0) & FILE_ATTRIBUTE_READONLY) != 0) {
            code = ERROR_ACCESS_DENIED;
            return UnixFile("");
        }
        const std::string backing =
            unixPath(state->backing / std::to_wstring(++state->backingCount));
        const UnixFile made(backing, unixcall::CreateNew);
        extra->streams[name] = backing;
    }
    return UnixFile(extra->streams[name]);
}

void patchStreams(State& to) {
    patch(to, "FindFirstStreamW", findFirstStream);
    patch(to, "FindNextStreamW", findNextStream);
}

} // namespace ntfs

void NtfsFake::setStream(const std::wstring& path, const std::wstring& name,
                         const std::string& content) {
    const ntfs::UnixFile file(unixPath(path));
    DWORD code = 0;
    const ntfs::UnixFile held = ntfs::openStream(file, name, true, code);
    if (code != 0 || unixWrite(held.proc(), content) < 0) {
        throw std::runtime_error("no stream can be made: " + toUtf8(path));
    }
}

std::map<std::wstring, std::string> NtfsFake::streams(const std::wstring& path) {
    std::map<std::wstring, std::string> result;
    if (const ntfs::Extra* record = ntfs::extraAt(unixPath(path))) {
        for (const auto& [name, backing] : record->streams) {
            result[name] = unixRead(backing);
        }
    }
    return result;
}

void NtfsFake::setEa(const std::wstring& path, const std::string& data) {
    ntfs::extraAt(unixPath(path), true)->ea = data;
}

std::string NtfsFake::ea(const std::wstring& path) {
    const ntfs::Extra* record = ntfs::extraAt(unixPath(path));
    return record != nullptr ? record->ea : std::string();
}

void NtfsFake::setObjectId(const std::wstring& path, const std::string& data) {
    ntfs::extraAt(unixPath(path), true)->objectId = data;
}

std::vector<std::pair<std::int64_t, std::int64_t>> NtfsFake::allocated(const std::wstring& path) {
    return ntfs::allocatedRanges(ntfs::UnixFile(unixPath(path)));
}
